# Front door: `make run` and `make test` install what is missing, build and go.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all bootstrap configure build test run run-exporter clean bench fuzz soak package lintian test-arm64 test-board

all: build

bootstrap:
	scripts/bootstrap

configure: bootstrap
	cmake -S . -B $(BUILD_DIR) $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

# The exporter's tests check its pages with Prometheus' promtool and server;
# the symbols tests check names against debuginfod, llvm-symbolizer and pprof;
# the crash tests read stack-only cores with gdb and eu-stack.
test: build
	scripts/bootstrap prometheus debuginfod llvm-16 golang-go gdb elfutils binutils
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

# The daemon in the foreground on the demo configuration (127.0.0.1:6600).
run: build
	$(BUILD_DIR)/bin/vireo-monitor -c config/demo/main.json

# Two demo daemons scraped by Prometheus through vireo-exporter, on free
# 127.0.0.1 ports; Ctrl-C stops them all.
run-exporter: build
	scripts/run-exporter $(BUILD_DIR)

# Daemon against its bare ZeroMQ topology; report in build/bench/.
bench: build
	scripts/bootstrap python3 python3-matplotlib
	bench/run $(BUILD_DIR)

# Each fuzz target for FUZZ_SECONDS (default 60).
fuzz: bootstrap
	fuzz/run

# Long load run against the daemon (SOAK_SECONDS, default 600).
soak: build
	tests/hardening/soak $(BUILD_DIR)

# Debian packages (debian/) for the host and, cross-built, for arm64, in
# build/packages/; lintian and a served request from each.
package: bootstrap
	scripts/package

# lintian --pedantic on the packages in build/packages/: fails on E: or W:.
lintian:
	scripts/lintian-check

# Cross build for AArch64 and the tests under qemu-user.
test-arm64:
	scripts/test-arm64

# The arm64 packages installed and checked on an emulated board (root; the
# first run builds the board image, cached in /var/cache/vireo-monitor/board).
test-board: build
	BUILD_DIR=$(BUILD_DIR) scripts/test-board

clean:
	rm -rf $(BUILD_DIR) build-*
