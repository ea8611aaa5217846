#!/usr/bin/env bash
# Builds cfmd twice (plain in build/, with AddressSanitizer and UBSan in
# build-asan/) and runs every test: unit and integration tests in build/, the
# unit tests again in build-asan/, then the router package check (build-pkg/).
# Integration tests need root; without it they are reported as skipped.
# Exits non-zero when anything fails.
set -u
cd "$(dirname "$0")/.."

JOBS="${JOBS:-2}"
status=0

step() { printf '\n==== %s\n' "$*"; }

build() {
  local dir="$1"; shift
  step "configure and build $dir"
  mkdir -p "$dir"
  cmake -S . -B "$dir" "$@" >"$dir/configure.log" 2>&1 || { cat "$dir/configure.log"; return 1; }
  cmake --build "$dir" -j "$JOBS"
}

if ! build build; then
  echo "build/ failed to build"
  exit 1
fi
if ! build build-asan -DCFMD_SANITIZE=ON; then
  echo "build-asan/ failed to build"
  exit 1
fi

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

step "all tests in build/"
ctest --test-dir build --output-on-failure --timeout 300 || status=1

step "unit tests in build-asan/"
ctest --test-dir build-asan -L unit --output-on-failure --timeout 300 || status=1

step "router package: build, install, run, remove (tests/package_check.sh)"
bash tests/package_check.sh || status=1

if [ "$status" -ne 0 ]; then
  step "FAILED"
else
  step "all tests passed"
fi
exit "$status"
