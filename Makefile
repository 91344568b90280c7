# Drives the CMake build. `make demo`, `make test` and `make package` install
# what is missing first.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps configure build test demo package clean

all: build

deps:
	@./scripts/deps.sh

$(BUILD_DIR)/build.ninja:
	cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_FLAGS)

configure: $(BUILD_DIR)/build.ninja

build: deps configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS)

# A real PKCS#11 session with pkcs11-tool through the spy, against a SoftHSM2
# token in a temporary directory; prints where the logs are and their start.
demo: build
	./scripts/demo.sh $(BUILD_DIR)

# The Debian package (library, headers, pkg-config and CMake files, the spy,
# zelph-names), written into $(BUILD_DIR).
package: build
	cd $(BUILD_DIR) && cpack -G DEB

clean:
	rm -rf $(BUILD_DIR)
