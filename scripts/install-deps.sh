#!/usr/bin/env bash
# Installs, with apt-get, only the packages that are missing. Idempotent.
# Usage: install-deps.sh [bench]   (bench: also GNU time, and valgrind, a
# peer column of the benchmark; sqlite3 and git, which the tests run under
# the agent, libdw and zlib for the report, heaptrack, whose reader checks
# the report's heaptrack files and is a benchmark peer, and chromium, which
# opens its flame graphs in a test, and Open MPI, whose jobs a test runs,
# are always installed, and so are make and the python3 standard library's
# test package, which run under the agent in the heavy programs' test and
# the benchmark)
set -eu
pkgs="g++ g++-multilib cmake ninja-build qemu-user libgtest-dev googletest libbenchmark-dev python3 gdb perl binutils file bc sqlite3 git libdw-dev zlib1g-dev heaptrack chromium openmpi-bin libopenmpi-dev make"
# Debian names the test package by the version of the system's python3.
py=$(/usr/bin/python3 -c 'import sys; print("%d.%d" % sys.version_info[:2])' 2>/dev/null || echo 3.11)
pkgs="$pkgs libpython$py-testsuite"
if [ "${1:-}" = bench ]; then
  pkgs="$pkgs time valgrind"
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
