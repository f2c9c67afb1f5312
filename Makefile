# The front door. `make run` and `make test` install what is missing, configure, build and run.

JOBS ?= $(shell nproc)
export JOBS

.PHONY: run build test soak bench fuzz reference format tidy install clean

# Mirrors this machine's kernel. Where standard output is no terminal, ipstated ends after the
# table; so that only the table is there, the build speaks on standard error.
run: build
	@exec build/release/ipstated $(ARGS)

build:
	@scripts/install-packages build
	@cmake --preset release >&2
	@cmake --build --preset release -j $(JOBS) >&2

test:
	@scripts/install-packages build test tidy
	@scripts/run-tests

# Any number of simulated connections, on all processors, optimised and with assertions; then as
# many scripts against the kernel as SCRIPTS says: make soak SEEDS=1000000 FIRST=1
# With WRITABLE=0 only the seeds that mount nothing for writing, with WRITABLE=1 only the others.
SEEDS ?= 10000
FIRST ?= 1
SCRIPTS ?= 100
soak:
	@scripts/install-packages build test
	@cmake --preset release -B build/soak -D IPSTATE_TESTS=ON >&2
	@cmake --build build/soak --target stream_test agents_test -j $(JOBS) >&2
	@scripts/soak build/soak $(FIRST) $(SEEDS) $(SCRIPTS)

# One program: make bench BENCH=bench_HashMap
bench:
	@scripts/install-packages build bench
	@cmake --preset release -D IPSTATE_BENCH=ON >&2
	@cmake --build --preset release --target $(or $(BENCH),bench) -j $(JOBS) >&2
	@for program in build/release/bench/$(or $(BENCH),bench_*); do \
	   echo "== $$program"; $$program $(ARGS) || exit 1; done
ifndef BENCH
	@sh bench/instructions.sh build/release/bench/bench_Notify || [ $$? = 77 ]
endif

# docs/reference, from the schemas
reference:
	@scripts/install-packages build
	@cmake --preset release >&2
	@cmake --build --preset release --target reference >&2

# One fuzzer for a while, under the sanitizers: make fuzz FUZZ=fuzz_Stream SECONDS=60
FUZZ ?= fuzz_Text
SECONDS ?= 60
fuzz:
	@scripts/install-packages build fuzz
	@cmake --preset fuzz -D IPSTATE_PROGRAMS=OFF >&2
	@cmake --build --preset fuzz --target $(FUZZ) -j $(JOBS) >&2
	@scripts/fuzz build/fuzz $(FUZZ) $(SECONDS) $(ARGS)

format:
	@scripts/check-format --fix

tidy:
	@scripts/install-packages build tidy
	@cmake --preset asan >&2
	@cmake --build --preset asan --target ipstate -j $(JOBS) >&2
	@scripts/check-tidy

# PREFIX=/opt/ipstate, DESTDIR as usual
install: build
	@cmake --install build/release $(if $(PREFIX),--prefix $(PREFIX))

clean:
	@rm -rf build
