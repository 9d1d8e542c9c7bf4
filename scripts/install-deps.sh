#!/usr/bin/env bash
# Installs the Debian 12 packages that velFS needs to build, test and run its example.
# This is the one list of the project's system packages. Idempotent: only missing packages
# are installed, and the package index is refreshed only when something is missing.
set -euo pipefail

PACKAGES=(
  build-essential
  g++
  clang
  cmake
  ninja-build
  pkg-config
  libsqlite3-dev
  sqlite3
  libgtest-dev
  libgmock-dev
  googletest
  libbenchmark-dev
  libzzip-dev
  zlib1g-dev
  libisal-dev
  libzip-dev
  libcli11-dev
  libclang-rt-14-dev
  valgrind
  python3
  g++-mingw-w64-x86-64
  libz-mingw-w64-dev
  wine64
)

missing=()
for package in "${PACKAGES[@]}"; do
  status="$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)"
  if [[ "$status" != "install ok installed" ]]; then
    missing+=("$package")
  fi
done

if [[ ${#missing[@]} -eq 0 ]]; then
  echo "install-deps: all ${#PACKAGES[@]} packages are installed"
  exit 0
fi

if [[ "$(id -u)" -eq 0 ]]; then
  SUDO=()
else
  SUDO=(sudo)
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${SUDO[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update
"${SUDO[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
echo "install-deps: done"
