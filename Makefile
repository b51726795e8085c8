# Thin front of CMake: every target sets up what is missing first.
PRESETS ?= i386 x86_64
PREFIX ?= /usr/local
export PREFIX DESTDIR

.PHONY: all setup build demo demo-relay test install packages check-packages stress fuzz bench picture pictures lint clean

all: build

setup: ## installs the packages that are missing
	dev/setup.sh

build: setup ## builds the library and the tools of both word sizes
	dev/build.sh $(PRESETS)

demo: setup ## builds the 32-bit product and passes real messages through it
	dev/build.sh i386
	dev/demo.sh build/i386

demo-relay: ## passes messages from a segment through a broker into another one
	dev/setup.sh relay
	dev/build.sh i386 x86_64
	dev/demo_relay.sh build/i386 build/x86_64

test: build ## builds and passes all tests
	dev/test.sh $(PRESETS)

stress: setup ## passes the long form of the stress tests, feeds hostile input, prints every figure
	dev/setup.sh fuzz
	dev/build.sh i386
	dev/stress.sh i386

fuzz: ## feeds hostile input to the library for FUZZ_SECONDS (120) per target
	dev/setup.sh fuzz
	dev/fuzz.sh

picture: setup ## draws the status table, the live screen and the served page anew, from segments at work
	dev/build.sh i386
	dev/picture.sh build/i386 docs
	dev/page_picture.py build/i386 docs

bench: ## measures the library beside its peers; QUICK=1 within a minute, PLOT=1 draws docs/bench.svg
	dev/setup.sh bench
	bench/run.sh

install: ## installs what is built: make install PREFIX=/usr/local DESTDIR=
	dev/install.sh $(PRESETS)

packages: setup ## makes Debian packages of both word sizes in build/packages
	dev/setup.sh package
	dev/build.sh $(PRESETS)
	dev/package.sh $(PRESETS)

check-packages: packages ## installs them in a scratch root and does there what README.md says
	dev/check_packages.sh

pictures: ## draws the pictures of the documents anew
	dev/setup.sh pictures
	dev/pictures.sh

lint: ## checks format, includes, and what clang-tidy knows
	dev/setup.sh lint
	dev/lint.sh

clean:
	rm -rf build
