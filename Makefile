# Thin targets around CMake. On Debian 12 each one first installs the packages that it needs and does not find
# (cmake/packages.sh); when nothing is missing nothing is installed and no network is used. Everything lands in build/.
#
# The presets in CMakePresets.json are what these targets use; call cmake and ctest yourself for the other compilers and
# the sanitizers.
.DEFAULT_GOAL := help
.PHONY: build demo test arm packages abi bench lint format clean help

# More for cmake's first step, for example: make test CONFIGURE=-DCMAKE_BUILD_TYPE=Debug
CONFIGURE ?=
JOBS ?= $(shell nproc)

build: ## the library, the service, the command and the examples
	@sh cmake/packages.sh build
	@sh cmake/configure.sh $(CONFIGURE)
	@cmake --build build --parallel $(JOBS)

demo: build ## bring up a sample switch on the embedded store and show what became of it
	@build/bin/ebridge run --dump examples/leaf.json

test: ## build everything with its tests and run them
	@sh cmake/packages.sh build test package
	@sh cmake/configure.sh -DEBRIDGE_TESTS=ON $(CONFIGURE)
	@cmake --build build --parallel $(JOBS)
	@ctest --test-dir build --output-on-failure --no-tests=error --no-label-summary --parallel $(JOBS)

arm: ## cross-build everything for 32-bit ARM and run its tests under an emulator
	@sh cmake/packages.sh build test arm package
	@PRESET=arm sh cmake/configure.sh -DEBRIDGE_TESTS=ON $(CONFIGURE)
	@cmake --build --preset arm --parallel $(JOBS)
	@rm -f build-arm/bench/size.json
	@ctest --preset arm --no-label-summary --parallel $(JOBS)
	@if [ -f build-arm/bench/size.json ]; then mkdir -p build/bench && cp build-arm/bench/size.json build/bench/size-arm.json; fi

packages: ## Debian packages in build/packages, for this machine and for 32-bit ARM, tried in an empty root
	@sh cmake/packages.sh build arm package
	@sh cmake/configure.sh -DEBRIDGE_PLATFORM=own $(CONFIGURE)
	@PRESET=arm sh cmake/configure.sh -DEBRIDGE_PLATFORM=own $(CONFIGURE)
	@rm -rf build/packages
	@set -e; for folder in build build-arm; do \
	  cmake --build $$folder --parallel $(JOBS); sh packaging/build.sh $$folder build/packages; done
	@sh packaging/try.sh packages build/packages "$(CURDIR)"

abi: ## record the library's interface, on both targets, as the one that later versions keep
	@sh cmake/packages.sh build test arm
	@sh cmake/configure.sh -DEBRIDGE_TESTS=ON $(CONFIGURE)
	@PRESET=arm sh cmake/configure.sh -DEBRIDGE_TESTS=ON $(CONFIGURE)
	@for folder in build build-arm; do cmake --build $$folder --parallel $(JOBS) --target abi_baseline || exit 1; done

bench: ## build and run the benchmarks
	@sh cmake/packages.sh build bench
	@sh cmake/configure.sh -DEBRIDGE_BENCH=ON $(CONFIGURE)
	@cmake --build build --parallel $(JOBS)
	@set -e; for program in build/bench/*; do \
	  if [ -f "$$program" ] && [ -x "$$program" ]; then echo "== $$program"; "$$program"; fi; done

lint: ## formatting, clang-tidy and shell scripts
	@sh cmake/packages.sh build test lint
	@sh cmake/configure.sh -DEBRIDGE_TESTS=ON $(CONFIGURE)
	@cmake --build build --parallel $(JOBS) --target ebridge_records all_descriptors
	@sh cmake/lint.sh build $(JOBS)

format: ## rewrite our sources in the project's format
	@sh cmake/packages.sh lint
	@sh cmake/sources.sh c | xargs clang-format -i

clean: ## remove every build folder
	rm -rf build build-clang build-asan build-tsan build-arm

help: ## this list
	@awk -F ':.*## ' '/^[a-z]+:.*## /{printf "make %-8s %s\n", $$1, $$2}' Makefile
