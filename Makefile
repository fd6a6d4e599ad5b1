# Front door: `make run` and `make test` install what is missing, build and go.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all bootstrap configure build test run clean bench fuzz soak package test-arm64 test-board

all: build

bootstrap:
	scripts/bootstrap

configure: bootstrap
	cmake -S . -B $(BUILD_DIR) $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

# The daemon in the foreground on the demo configuration (127.0.0.1:6600).
run: build
	$(BUILD_DIR)/bin/vireo-monitor -c config/demo/main.json

# Daemon against its bare ZeroMQ topology; report in build/bench/.
bench: build
	bench/run $(BUILD_DIR)

# Each fuzz target for FUZZ_SECONDS (default 60).
fuzz: bootstrap
	fuzz/run

# Long load run against the daemon (SOAK_SECONDS, default 600).
soak: build
	tests/hardening/soak $(BUILD_DIR)

# Debian packages for the host and for arm64, in build/packages/.
package: bootstrap
	scripts/package

# Cross build for AArch64 and the tests under qemu-user.
test-arm64:
	scripts/test-arm64

# The arm64 packages installed and checked on an emulated board (root; the
# first run builds the board image, cached in /var/cache/vireo-monitor/board).
test-board: build
	BUILD_DIR=$(BUILD_DIR) scripts/test-board

clean:
	rm -rf $(BUILD_DIR) build-*
