#!/usr/bin/env bash
# Cross-builds velFS for 64-bit Windows with MinGW-w64 into build-win/ and runs its tests under
# Wine: velfs.dll and its import library, velIOStub.dll, velfs.exe and the test programs.
#
#   bash scripts/test-windows.sh            # configure, build, run ctest under Wine
#
# SQLite and zziplib are taken from VELFS_THIRD_PARTY_DIR (default: ../shared/third_party beside
# the repository, where CI keeps them); set it to an empty string to download them instead.
# Wine keeps its prefix inside the build directory, so nothing outside build-win/ is touched.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD="${BUILD_DIR:-$ROOT/build-win}"
THIRD_PARTY="${VELFS_THIRD_PARTY_DIR-$ROOT/../shared/third_party}"
if [[ -n "$THIRD_PARTY" ]]; then
  THIRD_PARTY="$(cd "$THIRD_PARTY" && pwd)"
fi
JOBS="${JOBS:-2}"
WINE="${WINE:-/usr/lib/wine/wine64}"

export WINEPREFIX="$BUILD/wine-prefix"
export WINEDEBUG=-all
# No display: Wine must not try to open windows or ask for Mono and Gecko.
export WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY

launchers=()
if command -v ccache >/dev/null; then
  launchers=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

cmake -S "$ROOT" -B "$BUILD" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/mingw-w64-x86_64.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CROSSCOMPILING_EMULATOR="$WINE" \
  -DVELFS_THIRD_PARTY_DIR="$THIRD_PARTY" \
  "${launchers[@]}"

# One Wine server for the whole run, started (with the prefix's services) outside the build and
# ctest: a server started by a test program would hold that program's output pipe open after it
# exits, and a fresh server per program costs seconds. The first start creates the prefix.
WINESERVER="$(dirname "$WINE")/wineserver"
mkdir -p "$WINEPREFIX"
"$WINESERVER" -p </dev/null >/dev/null 2>&1 || true
trap '"$WINESERVER" -k >/dev/null 2>&1 || true' EXIT
"$WINE" wineboot --init </dev/null >/dev/null 2>&1

cmake --build "$BUILD" -j"$JOBS"
(cd "$BUILD" && ctest --output-on-failure -j"$JOBS")
