#!/usr/bin/env bash
# Builds cfmd three times (plain in build/, with AddressSanitizer and UBSan in
# build-asan/, with ThreadSanitizer in build-tsan/) and runs every test: unit
# and integration tests in build/, the unit tests again in build-asan/, the
# concurrency tests and one lab test in build-tsan/, then the router package
# check (build-pkg/) and the check against Open vSwitch. Integration tests need root; without it they are
# reported as skipped. Exits non-zero when anything fails.
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

# ThreadSanitizer: only what the tests below run is built.
TSAN_TESTS='DbConcurrencyTest|CcmLab.CommandsAndTheFastTickNeverUndoEachOther'
step "configure and build build-tsan"
mkdir -p build-tsan
if ! cmake -S . -B build-tsan -DCFMD_TSAN=ON >build-tsan/configure.log 2>&1 ||
  ! cmake --build build-tsan -j "$JOBS" --target cfmd unit_db it_ccm; then
  echo "build-tsan/ failed to build"
  exit 1
fi

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

step "all tests in build/"
ctest --test-dir build --output-on-failure --timeout 300 || status=1

step "unit tests in build-asan/"
ctest --test-dir build-asan -L unit --output-on-failure --timeout 300 || status=1

step "concurrency tests in build-tsan/"
TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1}" \
  ctest --test-dir build-tsan -R "$TSAN_TESTS" --output-on-failure --timeout 300 || status=1

step "router package: build, install, run, remove (tests/package_check.sh)"
bash tests/package_check.sh || status=1

step "Open vSwitch as the far end (tests/ovs_check.sh)"
bash tests/ovs_check.sh || status=1

if [ "$status" -ne 0 ]; then
  step "FAILED"
else
  step "all tests passed"
fi
exit "$status"
