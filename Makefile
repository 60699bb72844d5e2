# Entry points for people and CI. Every target installs what is missing first.
#   make demo           build, simulate a backup domain, run one pass, show anomalies
#   make build          configure and build into build/
#   make test           build, then run every test with ctest
#   make test-sanitize  the same tests under AddressSanitizer + UBSan, in build-sanitize/
#   make bench          build and run the benchmarks
#   make install        install the programs, schema, configuration and unit
#   make package        build the Debian package into build-package/
#   make test-package   install, check, remove and purge that package (root)

MAKEFLAGS     += --no-print-directory
BUILD_DIR     ?= build
SANITIZE_DIR  ?= build-sanitize
PACKAGE_DIR   ?= build-package
BUILD_TYPE    ?= RelWithDebInfo
JOBS          ?= $(shell nproc)

.PHONY: deps build demo test test-sanitize bench install package test-package clean

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

install: build
	cmake --install $(BUILD_DIR)

package: deps
	cmake -S . -B $(PACKAGE_DIR) -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DTSANOMALY_BENCH=OFF
	cmake --build $(PACKAGE_DIR) -j $(JOBS) --target tsanomalydetect tsanomalyctl
	cd $(PACKAGE_DIR) && cpack

test-package: package
	tests/package/deb_install_test.sh $(PACKAGE_DIR)

clean:
	rm -rf $(BUILD_DIR) $(SANITIZE_DIR) $(PACKAGE_DIR)
