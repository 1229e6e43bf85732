# Front door: every target first installs what is missing.
#   make          build both architectures
#   make test     build and run every test of both (QEMU=1 runs i386 through qemu-i386)
#   make demo     run the bundled example under the 64-bit agent
#   make bench    run the benchmarks (bench/run.py: real workloads plain, under the agent and its peers)
PRESETS := x86_64 i386
FORCE_QEMU := $(if $(QEMU),ON,OFF)

.PHONY: all deps configure build test demo bench clean

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

bench: build
	@scripts/install-deps.sh bench
	@bench/run.sh

clean:
	rm -rf build
