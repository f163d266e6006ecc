# Thin: each target installs what it needs (with apt, through sudo when not root) and calls CMake
# presets or a script that can be used alone.

FUZZ_SECONDS ?= 60
export FUZZ_SECONDS

.PHONY: help deps build demo test test-confined test-sanitize fuzz soak mutation bench clang format clean install docs test-target test-gateway size
.DEFAULT_GOAL := help

# Where CI is set, warnings are errors.
PRESET := $(if $(CI),ci,default)

# The build tree; `make test BUILD=dir` puts it elsewhere, for a source tree that is not to be written.
BUILD ?= build/$(PRESET)

help: ## lists the targets
	@grep -E '^[a-z-]+:.*##' $(MAKEFILE_LIST) | sed 's/:.*## /\t/' | expand -t 16

deps: ## installs the missing Debian packages
	@tools/install-deps
	@tests/support/root-way > /dev/null 2>&1 || tools/install-deps proot || tests/support/root-way

build: deps ## builds everything for this workstation
	@cmake --preset $(PRESET) -B "$(BUILD)"
	@cmake --build "$(BUILD)"

demo: deps ## shows the main job, start to end
	@cmake --preset $(PRESET) -B "$(BUILD)"
	@cmake --build "$(BUILD)" --target demo_programs
	@examples/demo "$(BUILD)"

test: build ## builds and runs every test of the workstation build
	@tests/run "$(BUILD)"

test-confined: build ## the suite and the demo as in a container that refuses namespaces, as root and as a plain user
	@tests/confined

test-sanitize: deps ## the suite under the sanitizers, and a part of it under memcheck
	@tools/install-deps valgrind
	@tests/sanitize/run

fuzz: deps ## fuzzes every input from outside, FUZZ_SECONDS (60) for each
	@tools/install-deps clang llvm libclang-rt-dev
	@cmake --preset fuzz
	@cmake --build --preset fuzz
	@tests/fuzz/run build/fuzz

soak: build ## calls, events and commits at full length, SOAK_CALLS (200000) remote calls
	@tests/soak/run "$(BUILD)"

mutation: build ## breaks the library in one place at a time; every test that is missing shows
	@tests/mutation/run "$(BUILD)"

bench: ## runs the benchmarks beside their peers, counts on the target, writes docs/benchmarks.md
	@tools/install-deps libbenchmark-dev libglib2.0-dev libgcrypt20-dev nettle-dev \
		libmbedtls-dev zlib1g-dev valgrind util-linux qemu-user
	@tools/target/setup musl > /dev/null
	@cmake --preset bench > /dev/null
	@cmake --build --preset bench -- --quiet
	@cmake --preset mipsel-bench > /dev/null
	@cmake --build --preset mipsel-bench -- --quiet
	@bench/report build/bench build/mipsel-bench

test-target: ## builds for mipsel and runs the suite under user-mode emulation
	@tools/target/test

test-gateway: ## boots the emulated gateway and runs flash, driver, event, shell and main-job tests
	@tools/target/setup musl kernel > /dev/null
	@cmake --preset mipsel-musl > /dev/null
	@cmake --build --preset mipsel-musl
	@tests/gateway/run build/mipsel-musl

size: deps ## footprint of the library on mipsel musl: sections, folders, heap
	@tools/target/size

docs: ## makes build/docs/html of the pages and headers; a declaration without its docs is an error
	@tools/install-deps doxygen
	@mkdir -p build/docs
	@doxygen docs/Doxyfile

install: build ## installs below PREFIX (default /usr/local), DESTDIR in front of it
	@DESTDIR="$(DESTDIR)" cmake --install "$(BUILD)" --prefix "$(or $(PREFIX),/usr/local)"

clang: deps ## builds with clang, warnings are errors
	@tools/install-deps clang
	@cmake --preset clang
	@cmake --build --preset clang

format: ## puts every source file into the house format
	@tools/install-deps clang-format
	@git ls-files '*.c' '*.cpp' '*.h' | xargs clang-format -i

clean: ## removes the build trees
	@rm -rf build
