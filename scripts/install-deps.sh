#!/usr/bin/env bash
# Installs, with apt-get, only the packages that are missing. Idempotent.
# Usage: install-deps.sh [bench]   (bench: also GNU time). Always installed
# besides the tool chain: sqlite3, git, make and the python3 standard
# library's test package, which the tests run under the agent; valgrind, a
# benchmark peer and the tests' second opinion on leaks; libdw and zlib for
# the report; heaptrack, whose reader checks the report's heaptrack files
# and is a benchmark peer; chromium, which opens its flame graphs in a test;
# and Open MPI, whose jobs a test runs.
set -eu
pkgs="g++ g++-multilib cmake ninja-build qemu-user libgtest-dev googletest libbenchmark-dev python3 gdb perl binutils file bc sqlite3 git libdw-dev zlib1g-dev heaptrack chromium openmpi-bin libopenmpi-dev valgrind make"
# Debian names the test package by the version of the system's python3.
py=$(/usr/bin/python3 -c 'import sys; print("%d.%d" % sys.version_info[:2])' 2>/dev/null || echo 3.11)
pkgs="$pkgs libpython$py-testsuite"
if [ "${1:-}" = bench ]; then
  pkgs="$pkgs time"
fi
missing=""
for p in $pkgs; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
echo "install-deps: installing$missing"
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq $missing >/dev/null
