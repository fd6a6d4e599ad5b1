# Front door: `make run` and `make test` install what is missing, build and go.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all bootstrap configure build test run clean

all: build

bootstrap:
	scripts/bootstrap

configure: bootstrap
	cmake -S . -B $(BUILD_DIR) $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

run: build
	$(BUILD_DIR)/bin/vireo-monitor -c config/demo/main.json

clean:
	rm -rf $(BUILD_DIR)
