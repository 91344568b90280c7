# Drives the CMake build. `make demo`, `make test` and `make package` install
# what is missing first.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps configure build test demo package clean check-asan check-tsan fuzz

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

# The whole test suite under AddressSanitizer with UndefinedBehaviorSanitizer
# (LeakSanitizer included), every target instrumented, in its own build
# directory. Any report fails the test that caused it. The spy tests also load
# the spy into OpenSC's pkcs11-tool, which is not instrumented: they run with
# the ASan runtime preloaded, and with the leaks that pkcs11-tool and its
# OpenSSL objects leave at exit suppressed. Leaks of the spy itself are
# checked without suppressions through zelph_spy_client, an instrumented host.
ASAN_DIR ?= build-asan
ASAN_ENV = ASAN_OPTIONS=detect_leaks=1:halt_on_error=1:strict_init_order=1:check_initialization_order=1 \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ASAN_SPY_ENV = LD_PRELOAD=$$(g++ -print-file-name=libasan.so) \
	LSAN_OPTIONS=suppressions=$(abspath $(ASAN_DIR))/third-party-leaks.supp

check-asan: deps
	cmake -S . -B $(ASAN_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DZELPH_SANITIZE=address \
	  -DZELPH_BUILD_EXAMPLES=OFF
	cmake --build $(ASAN_DIR) -j $(JOBS)
	$(ASAN_ENV) ctest --test-dir $(ASAN_DIR) --output-on-failure -j $(JOBS) -LE spy
	printf 'leak:pkcs11-tool\nleak:libcrypto.so\n' > $(ASAN_DIR)/third-party-leaks.supp
	$(ASAN_ENV) $(ASAN_SPY_ENV) ctest --test-dir $(ASAN_DIR) --output-on-failure -j $(JOBS) -L spy

# The tests that run threads, signals, sockets and child processes under
# ThreadSanitizer, in their own build directory. Left out, as TSan cannot run
# them: the two that unload the library with dlclose and then exit (TSan's
# atexit interceptor drops the library's handle, so the session's exit
# handler outlives the unloaded library), and those that load the spy into
# OpenSC's pkcs11-tool (TSan's runtime cannot be loaded with dlopen).
TSAN_DIR ?= build-tsan
TSAN_LABELS ?= base|trace|ipc|spy|http
TSAN_UNLOADING = EachLoadOfTheLibraryIsASessionOfItsOwn|TraceDirectoryMissingUnderDlopen
TSAN_PKCS11_TOOL = SpySessionTest.LogHoldsNoPinAndNoKeyMaterial|SpySessionTest.Pkcs11ToolTest|SpySessionTest.ApplicationLabelReachesTheLogUnchanged
TSAN_EXCLUDE ?= $(TSAN_UNLOADING)|$(TSAN_PKCS11_TOOL)
TSAN_ENV = TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

check-tsan: deps
	cmake -S . -B $(TSAN_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DZELPH_SANITIZE=thread \
	  -DZELPH_BUILD_EXAMPLES=OFF
	cmake --build $(TSAN_DIR) -j $(JOBS)
	$(TSAN_ENV) ctest --test-dir $(TSAN_DIR) --output-on-failure -j $(JOBS) -L '$(TSAN_LABELS)' \
	  -E '$(TSAN_EXCLUDE)'

# libFuzzer targets, built with clang in their own build directory: replays
# the seed corpora (CTest label "fuzz"), then runs each target FUZZ_SECONDS
# seconds (tests/fuzz/run_fuzzers.sh; FUZZ_TARGETS picks some of them).
FUZZ_DIR ?= build-fuzz
FUZZ_SECONDS ?= 60
FUZZ_TARGETS ?=

fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DZELPH_FUZZ=ON -DZELPH_BUILD_TESTS=OFF -DZELPH_BUILD_EXAMPLES=OFF
	cmake --build $(FUZZ_DIR) --target zelph_fuzzers -j $(JOBS)
	ctest --test-dir $(FUZZ_DIR) --output-on-failure -L fuzz
	./tests/fuzz/run_fuzzers.sh $(FUZZ_DIR) $(FUZZ_SECONDS) $(FUZZ_TARGETS)

clean:
	rm -rf $(BUILD_DIR) $(ASAN_DIR) $(TSAN_DIR) $(FUZZ_DIR)

# Benchmarks against the floors of the design and peer libraries, in a
# release tree of their own (never part of `make test`): installs the peers
# (scripts/bench-deps.sh), builds, runs bench/compare.py and writes the table
# of ratios to $(BENCH_DIR)/results.json. Takes a few minutes.
BENCH_DIR ?= $(BUILD_DIR)/bench
BENCH_FLAGS ?=

.PHONY: bench
bench: deps
	@./scripts/bench-deps.sh
	cmake -S . -B $(BENCH_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZELPH_BUILD_BENCH=ON \
	  -DZELPH_BUILD_TESTS=OFF -DZELPH_BUILD_EXAMPLES=OFF
	cmake --build $(BENCH_DIR) --target zelph_bench -j $(JOBS)
	python3 bench/compare.py --build-dir $(BENCH_DIR) --out $(BENCH_DIR)/results.json $(BENCH_FLAGS)
