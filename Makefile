# Drives the CMake build. `make demo`, `make test` and `make package` install
# what is missing first.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps configure build test test-browser demo package clean check-asan check-tsan fuzz mutate

all: build

deps:
	@./scripts/deps.sh

$(BUILD_DIR)/build.ninja:
	cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_FLAGS)

configure: $(BUILD_DIR)/build.ninja

build: deps configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS) -LE browser

# The tests that drive headless Chromium (label "browser"); installs it first.
test-browser: build
	@./scripts/apt-install-missing.sh chromium
	ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS) -L browser

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
# directory. Any report fails the test that caused it. One spy test also loads
# the spy into OpenSC's pkcs11-tool, which is not instrumented: the spy tests
# run with the ASan runtime preloaded, and with the leaks that pkcs11-tool and
# its OpenSSL objects leave at exit suppressed. Leaks of the spy itself are
# checked in the tests that load it into zelph_spy_test, an instrumented host.
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
# ThreadSanitizer, in their own build directory. Tests that TSan cannot run
# (those that load the spy into OpenSC's pkcs11-tool, or unload the library
# and then exit) skip themselves there.
TSAN_DIR ?= build-tsan
TSAN_LABELS ?= base|trace|ipc|spy|http
TSAN_ENV = TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

check-tsan: deps
	cmake -S . -B $(TSAN_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DZELPH_SANITIZE=thread \
	  -DZELPH_BUILD_EXAMPLES=OFF
	cmake --build $(TSAN_DIR) -j $(JOBS)
	$(TSAN_ENV) ctest --test-dir $(TSAN_DIR) --output-on-failure -j $(JOBS) -L '$(TSAN_LABELS)'

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

# Plants each mutant of tests/mutation/mutants/ in a scratch copy of the tree
# (build-mutate/), rebuilds, runs the tests of the mutant's label and says
# whether they caught it; ends with "K of N caught". Not part of `make test`.
# MUTANTS=id,label,... runs some of them.
MUTATE_DIR ?= build-mutate
MUTANTS ?=

mutate: deps
	python3 scripts/mutate.py --scratch $(MUTATE_DIR) --only '$(MUTANTS)' \
	  --json $(MUTATE_DIR)/results.json

# Lines of tests against lines of code (.c, .cpp, .h, .py, .sh; seed corpora
# and golden files are data and not counted). The owner's ceiling is 35%.
COUNT_LINES = find $(1) -path tests/fuzz/corpus -prune -o -type f \( -name '*.c' -o -name '*.cpp' \
	-o -name '*.h' -o -name '*.py' -o -name '*.sh' \) -print | xargs cat | wc -l

.PHONY: proportion
proportion:
	@tests=$$($(call COUNT_LINES,tests)); code=$$($(call COUNT_LINES,src include)); \
	echo "tests $$tests lines, src+include $$code lines: $$((1000 * tests / code / 10)).$$((1000 * tests / code % 10))%"

clean:
	rm -rf $(BUILD_DIR) $(ASAN_DIR) $(TSAN_DIR) $(FUZZ_DIR) $(MUTATE_DIR)

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
	cmake --build $(BENCH_DIR) --target zelph_bench zelph-log -j $(JOBS)
	python3 bench/compare.py --build-dir $(BENCH_DIR) --out $(BENCH_DIR)/results.json $(BENCH_FLAGS)
