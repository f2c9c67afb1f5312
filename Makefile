# The front door. `make run` and `make test` install what is missing, configure, build and run.

JOBS ?= $(shell nproc)
SEEDS ?= 10000
FIRST ?= 1
SCRIPTS ?= 100
FUZZ ?= fuzz_Text
SECONDS ?= 60
export JOBS

.PHONY: help run build test examples docs soak bench fuzz reference format tidy abi install uninstall \
        packages clean

# What there is to make: the first line of each comment that stands before a target.
help:
	@awk '/^#/ { if( !said ) said = substr( $$0, 3 ); next } \
	      /^[a-z-]+:/ { if( said ) printf "make %-10s %s\n", substr( $$1, 1, index( $$1, ":" ) - 1 ), said } \
	      { said = "" }' Makefile

.DEFAULT_GOAL := run

# Mirrors this machine's kernel. Where standard output is no terminal, ipstated ends after the
# table; so that only the table is there, the build speaks on standard error.
run: build
	@exec build/release/ipstated $(ARGS)

# Builds the library, zekc and the programs into build/release
build:
	@scripts/install-packages build
	@cmake --preset release >&2
	@cmake --build --preset release -j $(JOBS) >&2

# Builds and runs all tests: g++, clang++ with sanitizers, formatting, lint
test:
	@scripts/install-packages build test tidy
	@scripts/run-tests

# Builds the examples into build/release/examples, without the tests
examples:
	@scripts/install-packages build loops
	@cmake --preset release -D IPSTATE_EXAMPLES=ON >&2
	@cmake --build --preset release -j $(JOBS) >&2

# Runs any number of simulated connections: make soak SEEDS=1000000 FIRST=1
# On all processors, optimised and with assertions; then as many scripts against the kernel as
# SCRIPTS says.
# With WRITABLE=0 only the seeds that mount nothing for writing, with WRITABLE=1 only the others.
soak:
	@scripts/install-packages build test
	@cmake --preset release -B build/soak -D IPSTATE_TESTS=ON >&2
	@cmake --build build/soak --target stream_test agents_test -j $(JOBS) >&2
	@scripts/soak build/soak $(FIRST) $(SEEDS) $(SCRIPTS)

# Runs the benchmarks, or one of them: make bench BENCH=bench_HashMap
bench:
	@scripts/install-packages build bench
	@cmake --preset release -D IPSTATE_BENCH=ON >&2
	@cmake --build --preset release --target $(or $(BENCH),bench) -j $(JOBS) >&2
	@for program in build/release/bench/$(or $(BENCH),bench_*); do \
	   echo "== $$program"; $$program $(ARGS) || exit 1; done
ifndef BENCH
	@sh bench/instructions.sh build/release/bench/bench_Notify || [ $$? = 77 ]
endif

# Writes docs/reference and docs/pictures from the schemas and sources
reference:
	@scripts/install-packages build docs
	@cmake --preset release >&2
	@cmake --build --preset release --target reference >&2

# Writes the pages of the public headers into build/doxygen
docs: build
	@scripts/install-packages docs
	@GENERATED=build/release/generated doxygen docs/Doxyfile

# Runs one fuzzer for a while, under the sanitizers: make fuzz FUZZ=fuzz_Stream SECONDS=60
fuzz:
	@scripts/install-packages build fuzz
	@cmake --preset fuzz -D IPSTATE_PROGRAMS=OFF >&2
	@cmake --build --preset fuzz --target $(FUZZ) -j $(JOBS) >&2
	@scripts/fuzz build/fuzz $(FUZZ) $(SECONDS) $(ARGS)

# Formats the C++ sources
format:
	@scripts/check-format --fix

# Checks all sources with clang-tidy
tidy:
	@scripts/install-packages build tidy
	@cmake --preset asan >&2
	@cmake --build --preset asan --target ipstate -j $(JOBS) >&2
	@scripts/check-tidy

# Compares the binary interface with the one that is stored; ARGS=--accept stores it
abi:
	@scripts/install-packages build test
	@cmake --preset debug >&2
	@cmake --build --preset debug --target ipstate -j $(JOBS) >&2
	@scripts/check-abi $(ARGS) build/debug

# Installs: make install PREFIX=/opt/ipstate, DESTDIR as usual
install: build
	@cmake --install build/release $(if $(PREFIX),--prefix $(PREFIX))

# Takes back what `make install` brought
uninstall:
	@scripts/uninstall build/release

# Builds the Debian packages into build/packages, and tries them in a clean root
packages:
	@scripts/install-packages build packages
	@scripts/check-packages build/packages

# Removes all that was built
clean:
	@rm -rf build
