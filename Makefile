# SPDX-License-Identifier: ISC
# Thin: each target installs what it needs (with apt, through sudo when not root) and calls CMake
# presets or a script that can be used alone.

FUZZ_SECONDS ?= 60
export FUZZ_SECONDS

.DEFAULT_GOAL := help
.PHONY: configure $(shell sed -n 's/^\([a-z0-9-]*\):.*\#\#.*/\1/p' $(MAKEFILE_LIST))

# Where CI is set, warnings are errors.
PRESET := $(if $(CI),ci,default)

# What `make test` gives to CTest, for instance TESTS="-R '^Queue'".
TESTS ?=

# The build tree; `make test BUILD=dir` puts it elsewhere, for a source tree that is not to be written.
BUILD ?= build/$(PRESET)

help: ## lists the targets
	@grep -E '^[a-z0-9-]+:.*##' $(MAKEFILE_LIST) | sed 's/:.*## /\t/' | expand -t 16

deps: ## installs the missing Debian packages
	@scripts/install-deps
	@tests/support/root-way > /dev/null 2>&1 || scripts/install-deps proot || tests/support/root-way

configure: deps
	@cmake -S . -B "$(BUILD)" -G Ninja $(if $(CI),-DBV_WERROR=ON)

build: configure ## builds everything for this workstation
	@cmake --build "$(BUILD)"

demo: deps ## shows the main job, start to end
	@echo 'Building the library and the examples in $(BUILD) ...'
	@mkdir -p "$(BUILD)"
	@{ cmake -S . -B "$(BUILD)" -G Ninja $(if $(CI),-DBV_WERROR=ON) && \
	    cmake --build "$(BUILD)" --target demo_programs; } > "$(BUILD)/demo.log" 2>&1 || \
	    { cat "$(BUILD)/demo.log"; exit 1; }
	@examples/demo "$(BUILD)"

test: build ## builds and runs every test of the workstation build
	@tests/run "$(BUILD)" $(TESTS)

test-compat: deps ## builds the stand-ins of compat/ alone, with clang, and runs their tests
	@scripts/install-deps clang
	@CC=clang CXX=clang++ cmake -S compat -B build/compat -G Ninja -DBV_WERROR=ON -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON
	@cmake --build build/compat
	@tests/run build/compat -L compat

test-platform: deps ## the suite against libraries of a platform in a prefix of their own, without the stand-ins
	@rm -rf build/platform-prefix
	@tests/package/make-platform build/platform-prefix
	@cmake --preset ci -B build/platform -DBV_COMPAT=OFF -DCMAKE_PREFIX_PATH="$(CURDIR)/build/platform-prefix"
	@cmake --build build/platform
	@tests/run build/platform

test-confined: build ## the suite, but its long searches, and the demo as in a container that refuses namespaces, as root and as a plain user
	@tests/confined

test-sanitize: deps ## the suite under the sanitizers, and a part of it under memcheck
	@scripts/install-deps valgrind
	@tests/sanitize/run

test-target: ## builds for mipsel and runs the suite under user-mode emulation
	@scripts/test-target

test-arm64: ## the same for 64-bit ARM with glibc
	@scripts/test-target arm64

test-musl: deps ## the suite with musl, for x86_64, without emulation
	@scripts/setup-target amd64 > /dev/null
	@cmake --preset musl > /dev/null
	@cmake --build build/musl -- --quiet
	@tests/run build/musl

test-compilers: ## builds and tests with COMPILERS, or with all of the last years (slow)
	@scripts/test-compilers $(COMPILERS)

test-gateway: ## boots the emulated gateway: flash, driver, events, shell, main job, serial console
	@scripts/setup-target musl kernel > /dev/null
	@cmake --preset mipsel-musl > /dev/null
	@cmake --build build/mipsel-musl
	@tests/gateway/run build/mipsel-musl

test-debian: ## builds the Debian packages; installs, tests and removes them in a clean Debian
	@tests/package/debian

test-package: ## from a minimal Debian to a service's programs, in every way to install and to link
	@tests/package/journey

fuzz: deps ## fuzzes every input from outside, FUZZ_SECONDS (60) for each
	@scripts/install-deps clang llvm libclang-rt-dev
	@cmake --preset fuzz
	@cmake --build build/fuzz --target fuzzers
	@tests/fuzz/run build/fuzz

soak: build ## calls, events and commits at full length, SOAK_CALLS (200000) remote calls
	@tests/soak/run "$(BUILD)"

mutation: deps ## breaks the library's FILES, one place at a time, and prints what no test noticed
	@scripts/mutation $(FILES)

bench: deps ## runs the benchmarks beside their peers, counts on the gateway, writes docs/benchmarks.md
	@scripts/install-deps libbenchmark-dev libglib2.0-dev libgcrypt20-dev nettle-dev \
		libmbedtls-dev zlib1g-dev python3-matplotlib util-linux qemu-user
	@cmake --preset bench > /dev/null
	@cmake --build build/bench -- --quiet
	@scripts/setup-target musl > /dev/null
	@cmake --preset mipsel-bench > /dev/null
	@cmake --build build/mipsel-bench -- --quiet
	@bench/report build/bench build/mipsel-bench

test-counts: build/counts ## fails when a hot call takes over 3 % more instructions on the gateway than bench/counts says
	@bench/check-counts bench/counts build/counts

counts: build/counts ## counts anew and writes bench/counts; the commit says why a figure changes
	@awk 'FNR == NR { new[$$1]; next } !($$1 in new)' build/counts bench/counts > build/counts.rest
	@cat build/counts.rest build/counts > bench/counts

.PHONY: build/counts
build/counts: deps
	@scripts/install-deps qemu-user
	@scripts/setup-target musl > /dev/null
	@cmake --preset mipsel-bench > /dev/null
	@cmake --build build/mipsel-bench -- --quiet
	@bench/report --counts build/mipsel-bench > build/counts.new
	@mv build/counts.new build/counts

size: deps ## footprint of the library on mipsel musl: sections, folders, heap
	@scripts/size

clang: deps ## builds all but the stand-ins' tests with clang, warnings are errors
	@scripts/install-deps clang
	@cmake --preset clang
	@cmake --build build/clang

tidy: deps ## runs clang-tidy over the library, warnings are errors
	@scripts/install-deps clang clang-tidy
	@cmake --preset clang > /dev/null
	@git ls-files 'os/*.cpp' 'debug/*.cpp' 'core/*.cpp' 'db/*.cpp' 'bus/*.cpp' 'dev/*.cpp' 'crypto/*.cpp' 'service/*.cpp' | \
		xargs -P $$(nproc) -n 4 clang-tidy -p build/clang --quiet --warnings-as-errors='*'
	@echo 'Everything passed clang-tidy.'

format: ## puts every source file into the house format
	@scripts/install-deps clang-format
	@git ls-files '*.c' '*.cpp' '*.h' | xargs clang-format -i

docs: ## makes build/docs/html of the pages and headers; a declaration without its docs is an error
	@scripts/install-deps doxygen
	@mkdir -p build/docs
	@BV_VERSION=$$(scripts/version) doxygen docs/Doxyfile

# Built without the tests, so that it needs few packages and little time.
INSTALL_BUILD = $(if $(filter command line,$(origin BUILD)),$(BUILD),build/install)
PREFIX ?= /usr/local

install: ## installs below PREFIX (default /usr/local), DESTDIR in front of it
	@scripts/install-deps --build
	@cmake -S . -B "$(INSTALL_BUILD)" -G Ninja -DBV_TESTS=OFF -DCMAKE_INSTALL_PREFIX="$(PREFIX)"
	@cmake --build "$(INSTALL_BUILD)"
	@DESTDIR="$(DESTDIR)" cmake --install "$(INSTALL_BUILD)"

uninstall: ## removes what `make install` installed, with the same DESTDIR
	@DESTDIR="$(DESTDIR)" cmake --build "$(INSTALL_BUILD)" --target uninstall

clean: ## removes the build trees
	@rm -rf build
