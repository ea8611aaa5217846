#!/usr/bin/env bash
# Cross-builds cfmd and its unit tests for a router CPU and runs every unit
# test under qemu-user with the cross sysroot:
#   scripts/cross_check.sh mips    big-endian MIPS (mips-linux-gnu)
#   scripts/cross_check.sh arm     ARM hard-float (arm-linux-gnueabihf)
# Needs g++-<triple> and qemu-user; the build goes to build-<ARCH>/. The
# integration tests stay native: qemu-user does not implement the packet
# socket's auxiliary data, so the receive path cannot run under it.
set -u
cd "$(dirname "$0")/.." || exit 1
case "${1:-}" in
  mips) triple=mips-linux-gnu ;;
  arm) triple=arm-linux-gnueabihf ;;
  *) echo "usage: $0 mips|arm" >&2; exit 2 ;;
esac
dir="build-$1"
JOBS="${JOBS:-2}"

mkdir -p "$dir"
cmake -S . -B "$dir" -DCMAKE_TOOLCHAIN_FILE="cmake/$triple.cmake" >"$dir/configure.log" 2>&1 ||
  { cat "$dir/configure.log"; exit 1; }
cmake --build "$dir" -j "$JOBS" || exit 1
# Death tests fork without re-executing the binary: qemu-user cannot start
# a foreign binary again without binfmt_misc.
export GTEST_DEATH_TEST_STYLE=fast
ctest --test-dir "$dir" -L unit -j "$JOBS" --output-on-failure --timeout 300
