#!/usr/bin/env bash
# make bench: the whole-process benchmark (bench/run.py; its docstring lists
# the knobs: QMHEAP_BENCH_PAIRS, QMHEAP_BENCH_QUICK, QMHEAP_BENCH_ONLY,
# QMHEAP_BENCH_PEERS, QMHEAP_BENCH_MICRO).
set -eu
exec python3 "$(dirname "$0")/run.py" "$@"
