# Front door: every target first installs what is missing.
#   make          build both architectures
#   make test     build and run every test of both (QEMU=1 runs i386 through qemu-i386)
#   make demo     run the bundled example under the 64-bit agent
#   make demo-mpi an MPI job under the agent, one rank in error, and the merged report
#   make install  install both agents, the launcher and its manual (PREFIX=/usr/local)
#   make bench    run the benchmarks (bench/run.py: real workloads plain, under the agent and its peers)
PRESETS := x86_64 i386
FORCE_QEMU := $(if $(QEMU),ON,OFF)

.PHONY: all deps configure build test demo demo-mpi bench install clean

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	@cmake --preset x86_64 >/dev/null
	@cmake --preset i386 -DQMHEAP_FORCE_QEMU=$(FORCE_QEMU) >/dev/null

build: configure
	@for p in $(PRESETS); do cmake --build --preset $$p || exit 1; done

test: build
	@status=0; for p in $(PRESETS); do ctest --preset $$p || status=1; done; exit $$status

demo: build
	@scripts/demo.sh build/x86_64

demo-mpi: build
	@scripts/demo-mpi.sh build/x86_64

bench: build
	@scripts/install-deps.sh bench
	@bench/run.sh

# make install PREFIX=/usr/local: both agents in PREFIX/lib/qmheap, the
# launcher and the reader in PREFIX/bin, the manual page.
PREFIX ?= /usr/local
install: build
	@for p in $(PRESETS); do cmake --install build/$$p --prefix "$(PREFIX)" >/dev/null || exit 1; done
	@echo "installed in $(PREFIX): bin/qmheap, bin/qmheap-inspect, lib/qmheap/, share/man/man1/qmheap.1"

clean:
	rm -rf build
