# Thin front of CMake: every target sets up what is missing first.
PRESETS ?= i386 x86_64

.PHONY: all setup build demo test lint clean

all: build

setup: ## installs the packages that are missing
	tools/setup.sh

build: setup ## builds the library and the tools of both word sizes
	tools/build.sh $(PRESETS)

demo: setup ## builds the 32-bit product and passes real messages through it
	tools/build.sh i386
	tools/demo.sh build/i386

test: build ## builds and passes all tests
	tools/test.sh $(PRESETS)

lint: ## checks format, includes, and what clang-tidy knows
	tools/setup.sh lint
	tools/lint.sh

clean:
	rm -rf build
