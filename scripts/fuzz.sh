#!/usr/bin/env bash
# Runs the fuzz targets of fuzz/ (docs/reliability.md). From the repository root:
#   bash scripts/fuzz.sh [SECONDS]        (SECONDS per target, default 60; scripts/test.sh uses 60)
# 1. builds build-fuzz/ with clang (-DVELFS_BUILD_FUZZ=ON -DVELFS_SANITIZE=ON): libFuzzer with
#    AddressSanitizer (leak detection on) and UndefinedBehaviorSanitizer;
# 2. runs each target (archive_fuzzer, database_fuzzer, api_fuzzer) for SECONDS on a copy of its
#    seed corpus fuzz/corpus/<target>/ (the checked-in corpus is never written);
# 3. builds the replay drivers in build-rel/ (the default compiler, no sanitizer) and replays the
#    seeds and every input the run kept under valgrind memcheck, which sees into the
#    uninstrumented zziplib and SQLite.
# Fails on any crash, leak, timeout, sanitizer or valgrind report; the input that caused it is
# kept and its path printed. Prints one line per target: executions, seconds, corpus sizes.
# VELFS_FUZZ_KEEP=DIR keeps the grown corpora and any crash inputs in DIR after the run.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
SECONDS_PER_TARGET="${1:-60}"
if ! [[ "$SECONDS_PER_TARGET" =~ ^[0-9]+$ ]] || [[ "$SECONDS_PER_TARGET" -eq 0 ]]; then
  echo "usage: bash scripts/fuzz.sh [SECONDS]" >&2
  exit 2
fi
JOBS="$(nproc)"
TARGETS=(archive_fuzzer database_fuzzer api_fuzzer)
declare -A MAX_LEN=([archive_fuzzer]=65536 [database_fuzzer]=65536 [api_fuzzer]=16384)
declare -A CORPUS=([archive_fuzzer]=archive [database_fuzzer]=database [api_fuzzer]=api)

# Scratch space for the corpora and the targets' sandboxes (TMPDIR), on a memory file system
# when there is one: the database target syncs the file at every commit.
SCRATCH_BASE=/tmp
if [[ -d /dev/shm && -w /dev/shm ]]; then SCRATCH_BASE=/dev/shm; fi
SCRATCH="$(mktemp -d "$SCRATCH_BASE/velfs-fuzz.XXXXXX")"
KEEP="${VELFS_FUZZ_KEEP:-}"
cleanup() {
  local rc=$?
  if [[ $rc -ne 0 && -z "$KEEP" ]]; then
    KEEP="$(mktemp -d /tmp/velfs-fuzz-failure.XXXXXX)"
  fi
  if [[ -n "$KEEP" ]]; then
    mkdir -p "$KEEP"
    cp -r "$SCRATCH/corpus" "$SCRATCH/artifacts" "$KEEP/" 2>/dev/null || true
    echo "fuzz.sh: corpora and crash inputs kept in $KEEP"
  fi
  rm -rf "$SCRATCH"
  exit "$rc"
}
trap cleanup EXIT
mkdir -p "$SCRATCH/corpus" "$SCRATCH/artifacts" "$SCRATCH/tmp"

echo "==> build build-fuzz/ (clang, libFuzzer, ASan, UBSan)"
CC=clang CXX=clang++ cmake -S "$ROOT" -B "$ROOT/build-fuzz" -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELFS_BUILD_FUZZ=ON -DVELFS_SANITIZE=ON \
  -DVELFS_BUILD_TESTS=OFF -DVELFS_BUILD_EXAMPLES=OFF -DVELFS_BUILD_TOOLS=OFF >/dev/null
cmake --build "$ROOT/build-fuzz" -j"$JOBS" --target velfs_fuzz

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
SUMMARY=()
for target in "${TARGETS[@]}"; do
  corpus="$SCRATCH/corpus/$target"
  cp -r "$ROOT/fuzz/corpus/${CORPUS[$target]}" "$corpus"
  seeds="$(find "$corpus" -type f | wc -l)"
  log="$SCRATCH/$target.log"
  echo
  echo "==> $target: $SECONDS_PER_TARGET s on $seeds seeds"
  if ! TMPDIR="$SCRATCH/tmp" "$ROOT/build-fuzz/fuzz/$target" "$corpus" \
      -max_total_time="$SECONDS_PER_TARGET" -max_len="${MAX_LEN[$target]}" -timeout=60 \
      -rss_limit_mb=4096 -print_final_stats=1 -artifact_prefix="$SCRATCH/artifacts/$target-" \
      >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "fuzz.sh: $target failed; input(s): $(ls "$SCRATCH/artifacts" | tr '\n' ' ')"
    exit 1
  fi
  if grep -E "ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error:" "$log"; then
    echo "fuzz.sh: $target reported an error"
    exit 1
  fi
  runs="$(sed -n -E 's/^stat::number_of_executed_units: ([0-9]+)$/\1/p' "$log" | tail -n1)"
  time_s="$(sed -n -E 's/^Done [0-9]+ runs in ([0-9]+) second.*/\1/p' "$log" | tail -n1)"
  coverage="$(grep -E '^#[0-9]+' "$log" | tail -n1 | sed -n -E 's/.* cov: ([0-9]+) ft: ([0-9]+).*/cov \1, ft \2/p')"
  kept="$(find "$corpus" -type f | wc -l)"
  SUMMARY+=("$target: ${runs:-?} executions in ${time_s:-?} s, corpus $seeds -> $kept inputs, ${coverage:-?}")
  echo "${SUMMARY[-1]}"
done

echo
echo "==> build the replay drivers in build-rel/ and replay every corpus under valgrind"
cmake -S "$ROOT" -B "$ROOT/build-rel" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DVELFS_BUILD_FUZZ=ON >/dev/null
cmake --build "$ROOT/build-rel" -j"$JOBS" --target velfs_fuzz
for target in "${TARGETS[@]}"; do
  log="$SCRATCH/$target.valgrind.log"
  if ! TMPDIR="$SCRATCH/tmp" valgrind --error-exitcode=1 --leak-check=full \
      --errors-for-leak-kinds=definite,indirect,possible --show-leak-kinds=definite,indirect,possible \
      "$ROOT/build-rel/fuzz/${target}_replay" "$SCRATCH/corpus/$target" >"$log" 2>&1; then
    grep -v -E '^==[0-9]+== +(at|by) ' "$log" | tail -n 40
    echo "fuzz.sh: valgrind reported errors replaying the $target corpus (full log above)"
    exit 1
  fi
  SUMMARY+=("$target under valgrind: $(grep -E '^replayed' "$log"), $(grep -E 'ERROR SUMMARY' "$log" | sed -E 's/^==[0-9]+== //')")
  echo "${SUMMARY[-1]}"
done

echo
printf '%s\n' "${SUMMARY[@]}"
echo "fuzz.sh: every target ran $SECONDS_PER_TARGET s without a finding"
