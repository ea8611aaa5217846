#!/bin/sh
# Builds cfmd and cfmd_bench in BUILD_DIR (default build/) and runs the
# benchmark as root: cfmd against a bare reflector on a private veth pair,
# one table of figures (see README "Benchmark"). Extra arguments go to
# cfmd_bench, e.g. --quick for a short smoke run, --only ordinary,loopback
# for some scenarios only (cfmd_bench --help lists them).
#   usage: scripts/bench.sh [--quick] [--only NAME,...] [-b PATH_TO_CFMD]
set -eu
cd "$(dirname "$0")/.."
BUILD=${BUILD_DIR:-build}
[ -f "$BUILD/CMakeCache.txt" ] || cmake -S . -B "$BUILD" >/dev/null
cmake --build "$BUILD" --target cfmd cfmd_bench -j2 >/dev/null
exec "$BUILD/bench/cfmd_bench" "$@"
