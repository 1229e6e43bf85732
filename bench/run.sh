#!/usr/bin/env bash
# Whole-process benchmark: the churn workload run plain and under the agent,
# best of several runs each; prints the time ratio per architecture and
# thread count. Usage: bench/run.sh [operations] [repeats]
set -eu
ops=${1:-2000000}
reps=${2:-3}
cd "$(dirname "$0")/.."

best() {  # best wall time in seconds of "$@" over $reps runs
  local b=""
  for _ in $(seq "$reps"); do
    local s e t
    s=$(date +%s.%N)
    "$@" >/dev/null
    e=$(date +%s.%N)
    t=$(echo "$e - $s" | bc -l)
    if [ -z "$b" ] || [ "$(echo "$t < $b" | bc -l)" = 1 ]; then b=$t; fi
  done
  echo "$b"
}

for arch in x86_64 i386; do
  b=build/$arch
  lib=$(ls "$b"/libqmheap*.so | head -n 1)
  for threads in 1 4; do
    plain=$(best "$b/qm-run" "$b/bench/churn" "$ops" 4096 "$threads")
    under=$(best "$b/qm-run" --preload "$lib" "$b/bench/churn" "$ops" 4096 "$threads")
    printf 'churn %-6s threads=%d ops=%d  plain %.3fs  agent %.3fs  ratio %.2f\n' \
      "$arch" "$threads" "$ops" "$plain" "$under" "$(echo "$under / $plain" | bc -l)"
  done
done

if [ -x build/x86_64/bench/qmheap_micro ]; then
  build/x86_64/bench/qmheap_micro --benchmark_min_time=0.2
fi
