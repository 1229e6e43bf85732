#!/usr/bin/env bash
# Shows the agent at work on the bundled example program.
set -u
build=${1:-build/x86_64}
lib=$(ls "$build"/libqmheap*.so | head -n 1)
demo="$build/examples/heapdemo"
say() { printf '\n== %s\n' "$*"; }

say "the agent started as a program prints its banner: $lib"
"$lib"

say "heapdemo without the agent"
"$demo"

say "heapdemo under the agent (LD_PRELOAD=$lib)"
LD_PRELOAD="$lib" "$demo"
echo "exit status $?"
