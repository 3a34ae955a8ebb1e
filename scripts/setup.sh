# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# What the scripts share: the Debian packages each purpose needs, installing
# what is missing of them, and building and testing a preset. Sourced from
# bash; leaves the shell in the top folder of the project.
#
#   source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"
#   need_packages build demo
#   build_preset release

set -euo pipefail
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$ROOT"
JOBS=$(nproc)

# Every package anything here needs, by purpose. Nothing else is assumed to be
# on the machine beyond what a minimal Debian 12 holds.
declare -A PACKAGES=(
  [build]="cmake g++ ninja-build"
  [test]="bison gdb libedit-dev libgtest-dev libleveldb-dev libsqlite3-dev python3"
  [bench]="libapr1-dev libaprutil1-dev libbenchmark-dev libfmt-dev libglib2.0-dev libicu-dev libleveldb-dev \
    liblmdb-dev libsqlite3-dev libstb-dev libtbb-dev libtirpc-dev libuv1-dev pkg-config"
  [counts]="valgrind"
  [report]="gnuplot-nox"
  [demo]="unicode-data"
  [clang]="clang libclang-rt-dev"
  [docs]="doxygen groff-base python3"
  [aarch64]="bison g++-aarch64-linux-gnu googletest libc6-dev-arm64-cross python3 qemu-user"
  [package]="debhelper dpkg-dev doxygen file libedit-dev lintian pkg-config python3"
  [adoption]="mmdebstrap"
  [coverage]="gcovr locales"
  [tidy]="clang-tidy"
  [header]="python3"
  [abi]="abigail-tools"
  [lint]="clang-format pyflakes3 shellcheck"
  [ci]="ccache git"
)

say() {
  printf '\n== %s\n' "$*"
}

die() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# apt_get COMMAND...: apt-get without questions, as root or by sudo.
apt_get() {
  local as_root=()
  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get -q -o DPkg::Lock::Timeout=300 "$@" </dev/null
}

missing_packages() {
  local package
  for package in "$@"; do
    # shellcheck disable=SC2016 # dpkg-query's own substitution
    if [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" != installed ]; then
      echo "$package"
    fi
  done
}

# need_packages PURPOSE...: installs what is missing of their packages. The
# package lists are fetched only when the ones at hand do not do.
need_packages() {
  local purpose missing=() wanted=()
  for purpose in "$@"; do
    read -ra missing <<<"${PACKAGES[$purpose]}"
    wanted+=("${missing[@]}")
  done
  mapfile -t missing < <(missing_packages "${wanted[@]}")
  [ ${#missing[@]} -gt 0 ] || return 0
  command -v apt-get >/dev/null || die "missing, and no apt-get to install them: ${missing[*]}"
  [ "$(id -u)" -eq 0 ] || command -v sudo >/dev/null || die "packages are missing, and neither root nor \
sudo is there to install them. An administrator runs
  apt-get install --no-install-recommends ${missing[*]}"
  say "Installing ${missing[*]}"
  compgen -G '/var/lib/apt/lists/*_Packages*' >/dev/null || apt_get update || true
  if ! apt_get install -y --no-install-recommends "${missing[@]}"; then
    apt_get update || true
    apt_get install -y --no-install-recommends "${missing[@]}" ||
      die "could not install: ${missing[*]}"
  fi
}

# Compiles through ccache where it is installed. Paths below the project count
# as relative, so that another clone finds what this one compiled.
use_ccache() {
  if command -v ccache >/dev/null; then
    export CCACHE_BASEDIR=$ROOT CCACHE_NOHASHDIR=1
    export CCACHE_SLOPPINESS=pch_defines,time_macros  # for precompiled headers
    export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
  fi
}

# build_preset PRESET [CMAKE-OPTION...]
build_preset() {
  local preset=$1
  shift
  use_ccache
  say "Building $preset"
  cmake --preset "$preset" "$@"
  cmake --build --preset "$preset" -j "$JOBS"
}

test_preset() {
  say "Testing $1"
  ctest --preset "$1" -j "$JOBS"
}

# purposes_of PRESET: what its build and its tests need beyond plain building.
purposes_of() {
  case $1 in
    release) echo test bench ;;
    clang) echo test clang ;;
    aarch64) echo aarch64 ;;
    fuzz) echo clang ;;
    *) echo test ;;
  esac
}

# readme_example README: its first C example, as a program.
readme_example() {
  awk '/^```c$/ { inside = 1; next } /^```$/ { if (inside) exit } inside' "$1"
}
