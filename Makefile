# Entry points for people and CI. Every target installs what is missing first.
#   make demo           build, simulate a backup domain, run one pass, show anomalies
#   make build          configure and build into build/
#   make test           build, then run every test with ctest
#   make test-sanitize  the same tests under AddressSanitizer + UBSan, in build-sanitize/
#   make bench          build and run the benchmarks: the clusterer, calibration,
#                       and a whole detection pass against its SQL floor
#                       (PASS_BENCH_ARGS, e.g. "--runs 9 --only medium"), and the
#                       operator console at 100,000 anomalies and 7 million history
#                       rows (CONSOLE_BENCH_ARGS, e.g. "--runs 5 --anomalies 20000"),
#                       and tsanomalyctl ingest of a 100,000-job jsonl history
#   make soak           2000 detection passes in one process (memory and
#                       descriptors every 100 passes), then 20 under valgrind
#   make install        install the programs, schema, configuration and unit
#   make package        build the Debian package into build-package/
#   make test-package   lintian on that package (no error or warning), then
#                       install, check, remove and purge it (root)
#   make fuzz           build the libFuzzer targets (clang) into build-fuzz/ and run
#                       each for FUZZ_SECONDS (default 600); make fuzz-ci: 60 s each

MAKEFLAGS     += --no-print-directory
BUILD_DIR     ?= build
SANITIZE_DIR  ?= build-sanitize
PACKAGE_DIR   ?= build-package
BUILD_TYPE    ?= RelWithDebInfo
JOBS          ?= $(shell nproc)
FUZZ_DIR      ?= build-fuzz
FUZZ_SECONDS  ?= 600

.PHONY: deps build demo test test-sanitize bench soak install package test-package fuzz fuzz-ci clean

deps:
	@scripts/install-deps

build: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)
	cmake --build $(BUILD_DIR) -j $(JOBS)

demo: build
	BUILD_DIR=$(BUILD_DIR) scripts/demo

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
	$(BUILD_DIR)/bench/pass_bench $(PASS_BENCH_ARGS)
	$(BUILD_DIR)/bench/ingest_bench
	$(BUILD_DIR)/bench/console_bench $(CONSOLE_BENCH_ARGS)

soak: build
	tests/soak/run-soak $(BUILD_DIR)

install: build
	cmake --install $(BUILD_DIR)

package: deps
	cmake -S . -B $(PACKAGE_DIR) -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DTSANOMALY_BENCH=OFF -DTSANOMALY_TESTS=OFF \
	  -DTSANOMALY_REQUIRE_MANPAGES=ON
	cmake --build $(PACKAGE_DIR) -j $(JOBS) --target tsanomalydetect tsanomalyctl manpages bash-completion
	cd $(PACKAGE_DIR) && cpack

test-package: package
	tests/package/deb_install_test.sh $(PACKAGE_DIR)

fuzz: deps
	FUZZ_DIR=$(FUZZ_DIR) FUZZ_SECONDS=$(FUZZ_SECONDS) FUZZ_JOBS=$(JOBS) fuzz/run-fuzzers

fuzz-ci: deps
	FUZZ_DIR=$(FUZZ_DIR) FUZZ_SECONDS=60 FUZZ_JOBS=$(JOBS) fuzz/run-fuzzers

clean:
	rm -rf $(BUILD_DIR) $(SANITIZE_DIR) $(PACKAGE_DIR) $(FUZZ_DIR)
