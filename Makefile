# Entry points for people and CI. `make test` does all set-up itself.
JOBS ?= 2
CMAKE_FLAGS ?=

.PHONY: all deps build test test-unit test-asan test-tsan fuzz-smoke fuzz bench demo power power-update clean

all: build

deps:
	@scripts/install-deps.sh

build: deps
	cmake -S . -B build -G Ninja $(CMAKE_FLAGS) >/dev/null
	ninja -C build -j$(JOBS)

test-unit: build
	cd build && ctest -j$(JOBS) --output-on-failure

# Every test again under AddressSanitizer and UndefinedBehaviorSanitizer, built with
# clang so that both compilers see the code warning-free.
test-asan: deps
	CC=clang CXX=clang++ cmake -S . -B build-asan -G Ninja -DNOX_SANITIZE=address,undefined -DNOX_BUILD_BENCH=OFF >/dev/null
	ninja -C build-asan -j$(JOBS)
	cd build-asan && ctest -j$(JOBS) --output-on-failure

# The tests whose code crosses threads, under ThreadSanitizer.
test-tsan: deps
	cmake -S . -B build-tsan -G Ninja -DNOX_SANITIZE=thread -DNOX_BUILD_BENCH=OFF >/dev/null
	ninja -C build-tsan -j$(JOBS)
	cd build-tsan && ctest -j$(JOBS) -L threads --output-on-failure

# Short libFuzzer runs of every fuzz target (clang), over their seed corpora.
fuzz-smoke: deps
	scripts/fuzz.sh smoke

# Every fuzz target for FUZZ_SECONDS each.
FUZZ_SECONDS ?= 300
fuzz: build
	scripts/fuzz.sh all $(FUZZ_SECONDS)

test: test-unit test-asan test-tsan fuzz-smoke
	@echo "All test runs passed."

# noxd beside reference servers, and the framework's micro-benchmarks (bench/RESULTS.md).
bench: build
	bench/run.sh

# What the sample policies save: trace replays against the simulator's radio model, into
# build/power/POWER.md; power-update rewrites the tracked bench/POWER.md instead.
power: build
	scripts/power.sh

power-update: build
	scripts/power.sh --out bench/POWER.md

demo: build
	scripts/demo.sh

clean:
	rm -rf build build-asan build-tsan build-fuzz
