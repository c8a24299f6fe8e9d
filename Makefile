# The two commands a new user needs: `make run` and `make test`.
# Every target installs missing Debian packages first (scripts/install-deps).

BUILD      ?= build
SAN_BUILD  ?= build-asan
TSAN_BUILD ?= build-tsan
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 30
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=

CTEST = ctest --output-on-failure --no-tests=error -j $(JOBS)

.PHONY: all deps configure build run package test test-main test-sanitize test-tsan bench fuzz clean

all: build

deps:
	@scripts/install-deps

$(BUILD)/build.ninja: | deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS)

configure: $(BUILD)/build.ninja

build: deps configure
	cmake --build $(BUILD) -j $(JOBS)

run: build
	@scripts/run-example $(BUILD)

# Debian packages (libcorvane0, libcorvane-dev, corvane, and their -dbgsym
# debug information) in $(BUILD)/packages.
package: build
	cd $(BUILD) && cpack -G DEB -B packages

test: test-main test-sanitize test-tsan

test-main: build
	cd $(BUILD) && $(CTEST)

# Unit tests again, built with AddressSanitizer and UndefinedBehaviorSanitizer
# in their own tree (no tools, no benchmarks).
test-sanitize: deps
	cmake -S . -B $(SAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug \
	  -DCORVANE_SANITIZE=address,undefined -DCORVANE_BUILD_TOOLS=OFF $(CMAKE_ARGS)
	cmake --build $(SAN_BUILD) -j $(JOBS)
	cd $(SAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 $(CTEST) -L unit

# The cross-thread tests (marked TSAN in their CMakeLists) under ThreadSanitizer.
test-tsan: deps
	cmake -S . -B $(TSAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCORVANE_SANITIZE=thread -DCORVANE_BUILD_TOOLS=OFF $(CMAKE_ARGS)
	cmake --build $(TSAN_BUILD) -j $(JOBS)
	cd $(TSAN_BUILD) && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
	  ctest --output-on-failure -j $(JOBS)

bench: deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCORVANE_BUILD_BENCH=ON $(CMAKE_ARGS)
	cmake --build $(BUILD) -j $(JOBS)
	@scripts/run-benchmarks $(BUILD)

fuzz: deps
	cmake -S . -B $(FUZZ_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 \
	  -DCORVANE_BUILD_FUZZ=ON -DCORVANE_BUILD_TESTS=OFF -DCORVANE_BUILD_TOOLS=OFF \
	  -DCORVANE_SANITIZE=address,undefined $(CMAKE_ARGS)
	cmake --build $(FUZZ_BUILD) -j $(JOBS)
	@scripts/run-fuzzers $(FUZZ_BUILD) $(FUZZ_SECONDS)

clean:
	rm -rf $(BUILD) $(SAN_BUILD) $(TSAN_BUILD) $(FUZZ_BUILD)
