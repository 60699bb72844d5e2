# Entry points for people and CI. Every target installs what is missing first.
#   make build          configure and build into build/
#   make test           build, then run every test with ctest
#   make test-sanitize  the same tests under AddressSanitizer + UBSan, in build-sanitize/
#   make bench          build and run the benchmarks

BUILD_DIR     ?= build
SANITIZE_DIR  ?= build-sanitize
BUILD_TYPE    ?= RelWithDebInfo
JOBS          ?= $(shell nproc)

.PHONY: deps build test test-sanitize bench clean

deps:
	@scripts/install-deps

build: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS)

test-sanitize: deps
	cmake -S . -B $(SANITIZE_DIR) -DCMAKE_BUILD_TYPE=Debug -DTSANOMALY_SANITIZE=ON -DTSANOMALY_BENCH=OFF
	cmake --build $(SANITIZE_DIR) -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir $(SANITIZE_DIR) --output-on-failure -j $(JOBS)

bench: build
	$(BUILD_DIR)/bench/dbscan_bench
	$(BUILD_DIR)/bench/calibrate_bench

clean:
	rm -rf $(BUILD_DIR) $(SANITIZE_DIR)
