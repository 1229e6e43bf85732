#!/usr/bin/env bash
# Shows the agent at work on the bundled example program: once correct, then
# once per kind of heap mistake, each with the agent's report.
set -u
build=${1:-build/x86_64}
lib=$(ls "$build"/libqmheap*.so | head -n 1)
demo="$build/examples/heapdemo"
say() { printf '\n== %s\n' "$*"; }
# Reports at verbosity 2; no configuration file from the current directory or $HOME.
export QMHEAP_CONFIG_FILE=
under() { QMHEAP_ARGS="verbosity=2 $1" LD_PRELOAD="$lib" "${@:2}"; echo "(exit status $?)"; }

say "the agent started as a program prints its banner: $lib"
"$lib"

say "heapdemo without the agent"
"$demo"

say "heapdemo under the agent (LD_PRELOAD=$lib QMHEAP_ARGS=verbosity=2): nothing to report"
under "" "$demo"

say "a double free: the agent reports it, then glibc ends the program as it would anyway"
under "" "$demo" double

say "a free of an address inside a block"
under "" "$demo" middle

say "a free of an address that was never allocated"
under "" "$demo" wild

say "one byte written past the end of a block, found at its release (enable_guard_blocks=true)"
under "enable_guard_blocks=true" "$demo" overrun

say "one byte written before the start of a block, found at its release"
under "enable_guard_blocks=true" "$demo" underrun

say "a write into a freed block that the hoard holds back, found when it leaves (paint_on_dealloc=true enable_hoarding=true)"
under "paint_on_dealloc=true enable_hoarding=true" "$demo" afterfree

say "one byte read past the end of a block, caught at the read (enable_red_zones=true rz_alignment=1)"
under "enable_red_zones=true rz_alignment=1" "$demo" overread

say "a read of a freed block, caught at the read (enable_red_zones=true rz_detect_use_after_free=true)"
under "enable_red_zones=true rz_detect_use_after_free=true" "$demo" readfreed

say "blocks left allocated at exit (display_allocations_on_exit=true)"
under "display_allocations_on_exit=true" "$demo" leak
