#!/usr/bin/env bash
# The benchmark command of velFS. From a fresh Debian 12 machine:
#   bash scripts/bench.sh
# 1. installs the missing system packages (scripts/install-deps.sh);
# 2. builds build-bench/ in Release with -DVELFS_BUILD_BENCH=ON (the benchmarks in bench/);
# 3. generates the data sets (bench/make_data_sets.py) in a new temporary directory (the large
#    databases of bench/large_file_bench.cc are made by the benchmark itself, at its first run);
# 4. runs every benchmark (build-bench/bench/velfs_bench) and the peak-memory runs
#    (build-bench/bench/velfs_stream_peak, one process per reader and 1 GiB member);
# 5. prints the tables of figures and puts them into docs/benchmarks.md (bench/report.py), in
#    place of the previous run's; the notes around them are written by hand from the figures;
# 6. removes the temporary directory.
# Takes about 9 minutes on 2 cores and needs about 6 GiB of free space in the temporary
# directory. Exits non-zero when a step fails; the last lines are the tables.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"
JOBS="$(nproc)"
if [[ "$JOBS" -gt 2 ]]; then JOBS=2; fi
BUILD="$ROOT/build-bench"
SCRATCH=""
# Half a second per benchmark and repetition, seven repetitions in random order: the shared
# cores make single runs noisy, and the median of seven interleaved ones is steadier.
BENCH_FLAGS=(--benchmark_min_time=0.5 --benchmark_repetitions=7
  --benchmark_enable_random_interleaving=true)

finish() {
  local rc=$?
  if [[ -n "$SCRATCH" ]]; then rm -rf "$SCRATCH"; fi
  if [[ $rc -ne 0 ]]; then echo "bench.sh: FAILED (exit code $rc)" >&2; fi
  exit "$rc"
}
trap finish EXIT

echo "==> install missing Debian packages (scripts/install-deps.sh)" >&2
bash "$ROOT/scripts/install-deps.sh" >&2

echo "==> configure and build $BUILD (Release)" >&2
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVELFS_BUILD_BENCH=ON \
  -DVELFS_BUILD_TESTS=OFF -DVELFS_BUILD_EXAMPLES=OFF -DVELFS_BUILD_TOOLS=OFF >&2
cmake --build "$BUILD" -j"$JOBS" --target velfs_bench velfs_stream_peak >&2

SCRATCH="$(mktemp -d)"
export VELFS_BENCH_DATA="$SCRATCH/data"
echo "==> generate the data sets in $VELFS_BENCH_DATA" >&2
python3 "$ROOT/bench/make_data_sets.py" "$VELFS_BENCH_DATA"

echo "==> run the benchmarks (${BENCH_FLAGS[*]})" >&2
"$BUILD/bench/velfs_bench" "${BENCH_FLAGS[@]}" --benchmark_out="$SCRATCH/results.json" \
  --benchmark_out_format=json >&2

echo "==> stream 1 GiB members for the peak memory" >&2
# Every reader finds big.zip in the page cache: the first would otherwise be timed reading it
# from the disk.
cat "$VELFS_BENCH_DATA/big.zip" >/dev/null
for member in deflated.bin stored.bin; do
  for reader in velfs zziplib libzip; do
    "$BUILD/bench/velfs_stream_peak" "$reader" "$member" | tee -a "$SCRATCH/memory.jsonl" >&2
  done
done

echo "==> the figures (docs/benchmarks.md)" >&2
python3 "$ROOT/bench/report.py" --results "$SCRATCH/results.json" --memory "$SCRATCH/memory.jsonl" \
  --command "bash scripts/bench.sh" --settings "${BENCH_FLAGS[*]}" --out "$ROOT/docs/benchmarks.md"
