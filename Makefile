# The two commands of the README: `make run` and `make test`. Both install what is missing first.
BUILD_DIR ?= build
SANITIZE_DIR ?= build-sanitize
TSAN_DIR ?= build-tsan
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=
FUZZ_SECONDS ?= 30

export CCACHE_BASEDIR := $(CURDIR)
export CCACHE_NOHASHDIR := 1

LAUNCHER := $(shell command -v ccache >/dev/null 2>&1 && echo -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)

.PHONY: all bootstrap build run test sanitize-build sanitize fuzz bench tsan clean

all: build

bootstrap:
	@bash tools/bootstrap

$(BUILD_DIR)/build.ninja:
	cmake -S . -B $(BUILD_DIR) -G Ninja $(LAUNCHER) -DORLIN_WERROR=ON $(CMAKE_FLAGS)

build: bootstrap $(BUILD_DIR)/build.ninja
	cmake --build $(BUILD_DIR) -j $(JOBS)

# Converts the bundled example (a raw 16-bit tone) to floats and shows what was read.
run: build
	@mkdir -p $(BUILD_DIR)/run
	$(BUILD_DIR)/orlin info examples/tone.sw
	$(BUILD_DIR)/orlin convert --yes examples/tone.sw --to f32 -o $(BUILD_DIR)/run/tone.f32
	$(BUILD_DIR)/orlin info $(BUILD_DIR)/run/tone.f32

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

# One clang build with AddressSanitizer and UndefinedBehaviorSanitizer serves both the sanitized test
# run and the libFuzzer targets.
sanitize-build: bootstrap
	CC=clang CXX=clang++ cmake -S . -B $(SANITIZE_DIR) -G Ninja $(LAUNCHER) -DORLIN_FUZZ=ON -DORLIN_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)
	cmake --build $(SANITIZE_DIR) -j $(JOBS)

sanitize: sanitize-build
	cd $(SANITIZE_DIR) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

# Each libFuzzer target for FUZZ_SECONDS, seeded from the outside test corpus.
fuzz: sanitize-build
	bash fuzz/run_all.sh $(SANITIZE_DIR) $(FUZZ_SECONDS)

# ThreadSanitizer over the synthesizer's tests that run its workers and its event ring from other
# threads. Not part of CI: a separate clang build of everything the tests link.
tsan: bootstrap
	CC=clang CXX=clang++ cmake -S . -B $(TSAN_DIR) -G Ninja $(LAUNCHER) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_C_FLAGS=-fsanitize=thread -DCMAKE_CXX_FLAGS=-fsanitize=thread -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread $(CMAKE_FLAGS)
	cmake --build $(TSAN_DIR) -j $(JOBS) --target synth_tests
	cd $(TSAN_DIR) && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" ./tests/synth_tests \
	  --gtest_filter='*Workers*:*Posted*:*Replace*'

bench: bootstrap
	# GCC 12 at -O3 warns falsely inside the standard library; the test builds keep -Werror.
	cmake -S . -B build-bench -G Ninja $(LAUNCHER) -DORLIN_BENCH=ON -DORLIN_TESTS=OFF -DORLIN_WERROR=OFF -DCMAKE_BUILD_TYPE=Release
	cmake --build build-bench -j $(JOBS)
	bash bench/run_all.sh build-bench
	bash bench/compare_tools.sh build-bench

clean:
	rm -rf $(BUILD_DIR) $(SANITIZE_DIR) $(TSAN_DIR) build-bench
