#!/usr/bin/env bash
# The main job of velFS. From a fresh Debian 12 machine:
#   bash scripts/run-example.sh
# installs the missing system packages (scripts/install-deps.sh), configures build/
# (RelWithDebInfo, the same configuration as scripts/test.sh), builds the library and the
# example program in it (scripts/test.sh builds and runs the test suite), and runs
# examples/database_root.c in a new temporary directory, where it creates example.db, writes
# three files into it in one transaction, lists them and reads them back. The example's output
# is printed; the exit code is the example's.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"

echo "==> install missing Debian packages (scripts/install-deps.sh)"
bash "$ROOT/scripts/install-deps.sh"

echo
echo "==> configure build/ (Ninja, RelWithDebInfo) and build the library and the example"
cmake -S "$ROOT" -B "$ROOT/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELFS_BUILD_EXAMPLES=ON
cmake --build "$ROOT/build" -j"$(nproc)" --target velfs velfs_database_root

WORKDIR="$(mktemp -d)"
trap 'rm -rf "$WORKDIR"' EXIT

echo
echo "==> run build/examples/velfs_database_root in $WORKDIR"
cd "$WORKDIR"
"$ROOT/build/examples/velfs_database_root" example.db
echo
echo "run-example.sh: the example finished with exit code 0"
