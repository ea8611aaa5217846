#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang in build-fuzz/ and runs
# each for FUZZ_SECONDS (default 60) on a copy of its seed corpus
# fuzz/corpus/<target>/. Exits non-zero when the build fails or any run ends
# with a finding (crash, sanitizer report, leak, timeout); the input that
# caused it is left in build-fuzz/findings/<target>/.
# As root each run gets a private IPC namespace, so the semaphore sets of a
# run that dies cannot outlive it.
set -u
cd "$(dirname "$0")/.."

SECONDS_EACH="${FUZZ_SECONDS:-60}"
JOBS="${JOBS:-2}"
DIR=build-fuzz
TARGETS=(frame request mixed)
declare -A MAX_LEN=([frame]=1515 [request]=2048 [mixed]=4096)

mkdir -p "$DIR"
if ! CC=clang CXX=clang++ cmake -S . -B "$DIR" -DCFMD_FUZZ=ON -DCFMD_TESTS=OFF >"$DIR/configure.log" 2>&1; then
  cat "$DIR/configure.log"
  exit 1
fi
cmake --build "$DIR" -j "$JOBS" --target "${TARGETS[@]/#/fuzz_}" || exit 1

isolate=()
if [ "$(id -u)" -eq 0 ] && unshare --ipc true 2>/dev/null; then isolate=(unshare --ipc); fi

status=0
for t in "${TARGETS[@]}"; do
  corpus="$DIR/corpus/$t" findings="$DIR/findings/$t" log="$DIR/fuzz_$t.log"
  rm -rf "$corpus" "$findings"
  mkdir -p "$corpus" "$findings"
  cp fuzz/corpus/"$t"/* "$corpus"/
  printf '\n==== fuzz_%s for %s s\n' "$t" "$SECONDS_EACH"
  if "${isolate[@]}" "$DIR/fuzz/fuzz_$t" -max_total_time="$SECONDS_EACH" -max_len="${MAX_LEN[$t]}" -timeout=10 \
      -print_final_stats=1 -artifact_prefix="$findings/" "$corpus" >"$log" 2>&1 &&
      [ -z "$(ls -A "$findings")" ]; then
    grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -1
    grep -E 'stat::(number_of_executed_units|average_exec_per_sec)' "$log"
  else
    status=1
    tail -n 60 "$log"
    echo "fuzz_$t FAILED; reproducer(s): $(ls "$findings")"
  fi
done
exit "$status"
