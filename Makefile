# SPDX-License-Identifier: GPL-2.0-only
# The doors of the project; `make help` names them. Kbuild makes the module, CMake all else.

BUILD   ?= $(CURDIR)/build
KDIR    ?=
JOBS    ?= $(shell nproc)
PREFIX  ?= /usr
DESTDIR ?=
VERSION := $(shell cat VERSION)

export SNBF_BUILD := $(abspath $(BUILD))
MODULE_MAKE := $(MAKE) --no-print-directory -f platform/linux/module.mk BUILD=$(BUILD) $(if $(KDIR),KDIR=$(KDIR))

.DEFAULT_GOAL := all
.PHONY: all help setup module agent tests check check-all check-rows check-locks check-unit check-guest debug-kernel check-debug coverage simulate mutants demo bench deb install format clean

all: check-rows module agent tests ## everything that this machine can build

help: ## this list
	@sed -n 's/^\([a-z][a-z-]*\):.*## \(.*\)/  make \1|\2/p' $(firstword $(MAKEFILE_LIST)) | column -t -s '|'

setup: ## installs the Debian packages that are missing
	@tools/setup

module: ## build/snbf.ko, for KDIR (default: the newest installed kernel headers)
	@$(MODULE_MAKE) -j$(JOBS) module

# One build folder with the tests, where they can be built: the tool is not compiled twice.
agent: ## build/snbf, the command-line tool, build/libsnbf.*, and the manual in build/man
	@if [ -d /usr/include/gtest ]; then folder=$(BUILD)/plain tests=ON; \
	  else folder=$(BUILD)/agent tests=OFF; fi; mkdir -p $$folder && \
	{ cmake -S . -B $$folder -G Ninja -Wno-dev -DSNBF_TESTS=$$tests >$$folder/cmake.log 2>&1 || \
	  { cat $$folder/cmake.log; false; }; } && \
	cmake --build $$folder -j $(JOBS) --target snbf libsnbf libsnbf_shared manual && \
	cp -Pu $$folder/agent/snbf $$folder/agent/snbf.bash $$folder/agent/libsnbf.* $(BUILD)/ && \
	mkdir -p $(BUILD)/man && cp -u $$folder/agent/man/*.[14] $(BUILD)/man/

tests: ## the unit and simulation tests, plain and under sanitizers
	@tests/check --all --build-only --jobs $(JOBS)

check-rows: ## the rules that a compiler does not know: who includes whom, what is exported
	@tools/check-rows
	@tools/check-symbols
	@tools/kernel-table --check
	@tools/mutants --check
	@tools/coverage --check

check-locks: ## Clang's thread-safety analysis over the driver
	@JOBS=$(JOBS) tools/check-locks

check: setup ## what every change must pass, half an hour on two cores; ends with a tally
	@$(MAKE) --no-print-directory check-rows module agent check-locks
	@tests/check --jobs $(JOBS)

check-all: setup ## every test, some two hours on two cores; ends with a tally
	@$(MAKE) --no-print-directory all check-locks
	@tests/check --all --jobs $(JOBS)

check-unit: tests ## the unit and simulation tests alone
	@tests/check --all --no-guest --jobs $(JOBS)

check-guest: module agent ## the guest tests alone; TESTS="name..." chooses
	@tests/guest/check $(TESTS)

coverage: ## what of the driver the unit and simulation tests run
	@tools/setup gcovr
	@tools/coverage --jobs $(JOBS)

debug-kernel: ## two kernels that forgive nothing, in build/debug, and the module for each; a quarter of an hour each
	@tools/setup linux-source-6.1 bc flex bison libelf-dev libssl-dev
	@for flavour in kasan kcsan; do \
	  release=$$(JOBS=$(JOBS) tools/debug-kernel $$flavour $(BUILD)/debug/$$flavour) && \
	  $(MAKE) --no-print-directory -f platform/linux/module.mk -j$(JOBS) BUILD=$(BUILD)/debug/$$flavour \
	    KDIR=$(BUILD)/debug/$$flavour/build module && echo "$$release" || exit 1; done

check-debug: debug-kernel agent ## the guest tests on the debug kernels, some hours; TESTS="name..." chooses
	@tests/guest/check --debug kasan --debug kcsan $(TESTS)

simulate: tests ## whole-driver runs by seed, SEEDS="1-5000"; a failing one is cut down
	@tools/simulate $(or $(SEEDS),1-5000)

mutants: ## plants defects in the driver, one at a time: the tests must find each; NAMES="word..." chooses
	@tools/mutants --jobs $(JOBS) $(NAMES)

demo: setup ## a real file system, backed up, changed, backed up again, restored
	@$(MAKE) --no-print-directory module agent
	@demo/run

bench: setup ## the benchmarks beside device-mapper's targets, as ratios; the cost of maps
	@bench/maps
	@$(MAKE) --no-print-directory module agent
	@bench/run

deb: setup ## build/deb: the Debian packages, looked at by lintian
	@JOBS=$(JOBS) packaging/deb $(BUILD)/deb
	@ls -1 $(BUILD)/deb/*.deb

install: agent ## module (DKMS), tool, library, manual, completions, system files; honours DESTDIR
	@packaging/install "$(DESTDIR)" "$(PREFIX)" "$(VERSION)" "$(BUILD)"

format: ## lays out the C and C++ sources
	@git ls-files -- '*.c' '*.h' '*.cpp' | xargs clang-format -i

clean: ## removes what was built
	rm -rf $(BUILD)
