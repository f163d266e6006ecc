# Thin: each target installs what it needs (with apt, through sudo when not root) and calls CMake
# presets or a script that can be used alone.

.PHONY: help deps build demo test clang format clean
.DEFAULT_GOAL := help

help: ## lists the targets
	@grep -E '^[a-z-]+:.*##' $(MAKEFILE_LIST) | sed 's/:.*## /\t/' | expand -t 16

deps: ## installs the missing Debian packages
	@tools/install-deps

build: deps ## builds everything for this workstation
	@cmake --preset default
	@cmake --build --preset default

demo: build ## shows the main job, start to end
	@examples/demo build/default

test: build ## builds and runs every test of the workstation build
	@ctest --preset default -j$$(nproc)

clang: deps ## builds with clang, warnings are errors
	@cmake --preset clang
	@cmake --build --preset clang

format: ## puts every source file into the house format
	@git ls-files '*.c' '*.cpp' '*.h' | xargs clang-format -i

clean: ## removes the build trees
	@rm -rf build
