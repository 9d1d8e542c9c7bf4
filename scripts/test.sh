#!/usr/bin/env bash
# The test command of velFS. From a fresh Debian 12 machine:
#   bash scripts/test.sh
# 1. installs the missing system packages (scripts/install-deps.sh);
# 2. builds build/ (RelWithDebInfo) and runs the GoogleTest suite with ctest;
# 3. builds build-asan/ (-DVELFS_SANITIZE=ON: AddressSanitizer + UndefinedBehaviorSanitizer)
#    and runs the suite again;
#    builds the thread stress test in build-tsan/ (-DVELFS_TSAN=ON: ThreadSanitizer) and runs it;
#    runs the allocation-failure test of build/ (the n-th allocation fails, for every n);
# 4. checks the ABI of build/libvelfs.so: the exported functions are exactly those declared
#    VELFS_API in include/velfs.h, and the SONAME is libvelfs.so.1;
# 5. installs build/ into a temporary prefix and builds and runs tests/consumer/consumer.c
#    against it twice: with pkg-config (velfs.pc) and with CMake (find_package(velfs));
# 6. builds the C host program tests/host/host_program.c against the installed prefix
#    (pkg-config velfs velIOStub) and runs it from there: load-time registration, mounts, stubs;
# 7. runs the fuzz targets for 60 s each and replays their corpora under valgrind
#    (scripts/fuzz.sh 60, docs/reliability.md).
# Exits non-zero at the first failure; the last line is the summary.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"
JOBS="$(nproc)"
STEP="start"
SCRATCH=""
PASSED=0

step() {
  STEP="$1"
  echo
  echo "==> $STEP"
}

finish() {
  local rc=$?
  if [[ -n "$SCRATCH" ]]; then rm -rf "$SCRATCH"; fi
  if [[ $rc -ne 0 ]]; then
    echo
    echo "test.sh: FAILED during: $STEP (exit code $rc)"
  fi
  exit "$rc"
}
trap finish EXIT

# Runs ctest in build directory $1 and adds its number of tests to PASSED.
run_ctest() {
  local dir="$1" log
  log="$(mktemp)"
  if ! (cd "$dir" && ctest --output-on-failure -j"$JOBS" 2>&1) | tee "$log"; then
    rm -f "$log"
    return 1
  fi
  local total
  total="$(sed -n -E 's/.*tests passed, 0 tests failed out of ([0-9]+).*/\1/p' "$log" | tail -n1)"
  rm -f "$log"
  if [[ -z "$total" || "$total" -eq 0 ]]; then
    echo "ctest in $dir ran no test"
    return 1
  fi
  PASSED=$((PASSED + total))
  CTEST_COUNTS+=("${dir#"$ROOT"/} $total tests")
}
CTEST_COUNTS=()

step "install missing Debian packages (scripts/install-deps.sh)"
bash "$ROOT/scripts/install-deps.sh"

step "configure and build build/ (Ninja, RelWithDebInfo)"
cmake -S "$ROOT" -B "$ROOT/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$ROOT/build" -j"$JOBS"

step "run the test suite in build/"
run_ctest "$ROOT/build"

step "configure and build build-asan/ (-DVELFS_SANITIZE=ON)"
cmake -S "$ROOT" -B "$ROOT/build-asan" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELFS_SANITIZE=ON
cmake --build "$ROOT/build-asan" -j"$JOBS"

step "run the test suite in build-asan/ under AddressSanitizer and UndefinedBehaviorSanitizer"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
run_ctest "$ROOT/build-asan"
unset ASAN_OPTIONS UBSAN_OPTIONS

step "configure build-tsan/ (-DVELFS_TSAN=ON: ThreadSanitizer) and build the thread stress test"
cmake -S "$ROOT" -B "$ROOT/build-tsan" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELFS_TSAN=ON
cmake --build "$ROOT/build-tsan" -j"$JOBS" --target velfs_thread_stress_tests

step "run the thread stress test in build-tsan/ under ThreadSanitizer (any report fails it)"
TSAN_OPTIONS=second_deadlock_stack=1 "$ROOT/build-tsan/tests/stress/velfs_thread_stress_tests"
PASSED=$((PASSED + 1))

step "run the allocation-failure test in build/: every allocation of its sequence fails, in both modes"
"$ROOT/build/tests/stress/velfs_allocation_failure_tests"
PASSED=$((PASSED + 1))

SCRATCH="$(mktemp -d)"

step "check the exported symbols of build/libvelfs.so against include/velfs.h"
grep -E '^VELFS_API' "$ROOT/include/velfs.h" \
  | sed -E 's/^VELFS_API[^(]*[[:space:]*]([A-Za-z_][A-Za-z0-9_]*)[[:space:]]*\(.*/\1/' \
  | LC_ALL=C sort -u >"$SCRATCH/expected-symbols"
nm -D --defined-only "$ROOT/build/libvelfs.so" \
  | awk 'NF >= 3 { sub(/@.*/, "", $3); print $3 }' \
  | LC_ALL=C sort -u >"$SCRATCH/exported-symbols"
if ! diff -u "$SCRATCH/expected-symbols" "$SCRATCH/exported-symbols"; then
  echo "the dynamic symbols of libvelfs.so (+) differ from the VELFS_API functions of include/velfs.h (-)"
  exit 1
fi
echo "libvelfs.so exports exactly the $(wc -l <"$SCRATCH/expected-symbols") functions declared VELFS_API"
PASSED=$((PASSED + 1))

step "check the SONAME of build/libvelfs.so"
soname="$(readelf -d "$ROOT/build/libvelfs.so" | sed -n -E 's/.*\(SONAME\).*\[(.*)\].*/\1/p')"
if [[ "$soname" != "libvelfs.so.1" ]]; then
  echo "SONAME is '$soname', expected libvelfs.so.1"
  exit 1
fi
echo "SONAME: $soname"
PASSED=$((PASSED + 1))

step "install build/ into a temporary prefix"
PREFIX="$SCRATCH/prefix"
cmake --install "$ROOT/build" --prefix "$PREFIX"
pc_file="$(find "$PREFIX" -name velfs.pc -print -quit)"
if [[ -z "$pc_file" ]]; then
  echo "velfs.pc was not installed under $PREFIX"
  exit 1
fi
PC_DIR="$(dirname "$pc_file")"
LIB_DIR="$(dirname "$PC_DIR")"
echo "installed: libdir ${LIB_DIR#"$PREFIX"/}, pkg-config file ${pc_file#"$PREFIX"/}"
test -f "$PREFIX/include/velfs.h"
test -e "$LIB_DIR/libvelfs.so"
test -e "$LIB_DIR/libvelfs.so.1"
# The velfs tool and its manual page; the tool runs from the prefix as installed.
test -f "$PREFIX/share/man/man1/velfs.1"
"$PREFIX/bin/velfs" --version

# Compiles the C program SOURCE into SCRATCH/OUTPUT with the flags of the installed .pc files of
# MODULE..., then runs it. No LD_LIBRARY_PATH while linking: the .pc files alone must be enough.
build_with_pkg_config_and_run() {
  local source="$1" output="$SCRATCH/$2"
  shift 2
  local flags
  flags="$(PKG_CONFIG_PATH="$PC_DIR" pkg-config --cflags --libs "$@")"
  echo "pkg-config --cflags --libs $*: $flags"
  # shellcheck disable=SC2086 # the flags are words
  cc -std=c11 -Wall -Wextra -Werror "$source" $flags -o "$output"
  LD_LIBRARY_PATH="$LIB_DIR" "$output"
  PASSED=$((PASSED + 1))
}

step "build and run tests/consumer/consumer.c with pkg-config velfs"
build_with_pkg_config_and_run "$ROOT/tests/consumer/consumer.c" consumer-pkg-config velfs

step "build and run tests/consumer/ with CMake find_package(velfs)"
cmake -S "$ROOT/tests/consumer" -B "$SCRATCH/consumer-cmake" -G Ninja \
  -DCMAKE_PREFIX_PATH="$PREFIX" -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$SCRATCH/consumer-cmake" -j"$JOBS"
LD_LIBRARY_PATH="$LIB_DIR" "$SCRATCH/consumer-cmake/velfs_consumer"
PASSED=$((PASSED + 1))

step "build tests/host/host_program.c against the prefix (pkg-config velfs velIOStub) and run it"
build_with_pkg_config_and_run "$ROOT/tests/host/host_program.c" host-program \
  velfs velIOStub sqlite3

step "fuzz targets: build-fuzz/ (clang, libFuzzer, ASan, UBSan), 60 s each on a copy of its seeds, replay under valgrind"
# scripts/fuzz.sh fails on any crash, leak, timeout, sanitizer or valgrind report.
bash "$ROOT/scripts/fuzz.sh" 60
PASSED=$((PASSED + 1))

STEP="summary"
echo
echo "passed: ctest in ${CTEST_COUNTS[0]}, ctest in ${CTEST_COUNTS[1]}, exported symbols, SONAME,"
echo "        pkg-config consumer, CMake consumer, host program from the prefix, fuzz targets"
echo "        thread stress test under ThreadSanitizer, allocation-failure test in both modes"
echo "test.sh: $PASSED passed, 0 failed"
