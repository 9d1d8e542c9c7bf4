#!/usr/bin/env bash
# The main job of velFS: the velfs command-line tool, installed, on a sample tree. From a fresh
# Debian 12 machine:
#   bash scripts/run-example.sh
# 1. installs the missing system packages (scripts/install-deps.sh);
# 2. configures build/ (RelWithDebInfo, the same configuration as scripts/test.sh) and builds the
#    library, the tool and the API example examples/database_root.c (scripts/test.sh builds and
#    runs the test suite);
# 3. installs build/ into a new temporary prefix (cmake --install);
# 4. with that prefix's bin/velfs, in a new temporary directory: imports the sample tree
#    examples/assets into a fresh database store.db, draws its tree, reads one file, exports the
#    database and compares the export with examples/assets (diff -r), then makes a ZIP archive of
#    the same tree with Python's zipfile and lists it with the tool.
# Every step and its output is printed; the exit code is 0 when every step succeeded.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"

echo "==> install missing Debian packages (scripts/install-deps.sh)"
bash "$ROOT/scripts/install-deps.sh"

echo
echo "==> configure build/ (Ninja, RelWithDebInfo) and build the library, the tool and the API example"
cmake -S "$ROOT" -B "$ROOT/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DVELFS_BUILD_TOOLS=ON -DVELFS_BUILD_EXAMPLES=ON
cmake --build "$ROOT/build" -j"$(nproc)" --target velfs velIOStub velfs_cli velfs_database_root

SCRATCH="$(mktemp -d)"
trap 'rm -rf "$SCRATCH"' EXIT
PREFIX="$SCRATCH/prefix"
WORKDIR="$SCRATCH/work"
mkdir "$WORKDIR"

echo
echo "==> install build/ into the temporary prefix $PREFIX"
cmake --install "$ROOT/build" --prefix "$PREFIX"
VELFS="$PREFIX/bin/velfs"
test -x "$VELFS"

# Each step: the command line as a user types it, then what it prints.
step() {
  echo
  echo "==> $1"
  shift
  echo "\$ $*"
  "$@"
}
velfs() { "$VELFS" "$@"; }

# The sample tree is reached as ./assets (a link to examples/assets), so that the commands and
# their output show short paths.
cd "$WORKDIR"
ln -s "$ROOT/examples/assets" assets
echo
echo "==> work in $WORKDIR with the installed $VELFS"

step "the installed tool" velfs --version
step "import the sample tree into a fresh database root (one transaction)" \
  velfs import assets store.db:
step "which back-end serves store.db" velfs stat store.db:
step "the database's tree" velfs tree store.db:
step "one directory level with kinds and sizes" velfs ls -l store.db:docs/
step "read one file" velfs cat "store.db:docs/résumé.txt"
step "export the database into a new directory" velfs export store.db: exported
step "compare the export with examples/assets" diff -r assets exported
echo "(no difference)"
echo
echo "==> make a ZIP archive of the same tree with Python's zipfile"
echo "\$ (cd assets && python3 -m zipfile -c $WORKDIR/pack.zip *)"
(cd assets && python3 -m zipfile -c "$WORKDIR/pack.zip" *)
step "which back-end serves pack.zip" velfs stat pack.zip:
step "the archive's tree" velfs tree pack.zip:
step "the whole archive with kinds and sizes" velfs ls -lR pack.zip:
step "read the same file from the archive" velfs cat "pack.zip:docs/résumé.txt"

echo
echo "run-example.sh: every step succeeded"
