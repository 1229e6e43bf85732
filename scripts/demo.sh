#!/usr/bin/env bash
# Shows the agent at work on the bundled example program: once correct, then
# once per kind of heap mistake, each with the agent's report.
set -u
build=${1:-build/x86_64}
lib=$(ls "$build"/libqmheap*.so | head -n 1)
demo="$build/examples/heapdemo"
say() { printf '\n== %s\n' "$*"; }
launcher="$build/qmheap"
# No configuration file from the current directory or $HOME. The launcher
# reports at verbosity 2 and passes the program's exit status through.
export QMHEAP_CONFIG_FILE=
under() {
  local shown=("$@")
  shown=("${shown[@]/#$build\//}")
  echo "\$ qmheap ${shown[*]}"
  "$launcher" "$@"
  echo "(exit status $?)"
}

say "the agent started as a program prints its banner: $lib"
"$lib"

say "heapdemo without the agent"
"$demo"

say "heapdemo under the agent, through the launcher: nothing to report"
under -- "$demo"

say "a double free: the agent reports it, then glibc ends the program as it would anyway"
under -- "$demo" double

say "a free of an address inside a block"
under -- "$demo" middle

say "a free of an address that was never allocated"
under -- "$demo" wild

say "one byte written past the end of a block, found at its release"
under --guards -- "$demo" overrun

say "one byte written before the start of a block, found at its release"
under --guards -- "$demo" underrun

say "a write into a freed block that the hoard holds back, found when it leaves"
under --paint --hoard -- "$demo" afterfree

say "one byte read past the end of a block, caught at the read"
under --red-zones --rz-alignment=1 -- "$demo" overread

say "a read of a freed block, caught at the read"
under --red-zones --rz-detect-use-after-free=true -- "$demo" readfreed

say "blocks left allocated at exit"
under --leaks -- "$demo" leak

say "the same run, its memory searched for pointers at exit: which of those blocks nothing reaches any more"
under --leak-check -- "$demo" leak

say "a snapshot written at the error, then read: the error's stacks and the blocks still allocated, every frame named"
snapdir=$(mktemp -d)
under --snapshot-on-error --lwmdbg-pathname="$snapdir/heapdemo-%6q.lwmdbg" -- "$demo" double 2>/dev/null
echo "\$ qmheap report $snapdir/heapdemo-000000.lwmdbg"
"$launcher" report "$snapdir"/heapdemo-000000.lwmdbg
rm -rf "$snapdir"
