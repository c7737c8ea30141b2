#!/usr/bin/env bash
# Installs the build tree as a user would and uses what was installed:
#   1. into the default system prefix (/usr/local): a program built with
#      pkg-config and the tevu tool start without any set-up, and a CMake
#      project finds the package;
#   2. into a fresh prefix of its own: tevu starts, and a program built with
#      pkg-config or CMake runs with that prefix's lib in LD_LIBRARY_PATH.
# It runs in a private mount namespace with /usr/local and /etc behind
# overlays, so nothing of the machine changes.
#   install_test.sh BUILD_DIR CONSUMER_DIR
set -euo pipefail
build=$1 consumer=$2
if [ "$(id -u)" -ne 0 ] || ! command -v unshare >/dev/null || ! command -v pkg-config >/dev/null; then
  echo "skipped: needs root, unshare and pkg-config"
  exit 77
fi
if [ -z "${TEVUL_INSTALL_TEST_INSIDE:-}" ]; then
  scratch=$(mktemp -d /var/tmp/tevul-install.XXXXXX)
  trap 'rmdir "$scratch"' EXIT
  TEVUL_INSTALL_TEST_INSIDE=$scratch unshare -m --propagation private bash "$0" "$@"
  exit
fi
scratch=$TEVUL_INSTALL_TEST_INSIDE
mount -t tmpfs tmpfs "$scratch"
for dir in /usr/local /etc; do
  name=${dir//\//_}
  mkdir -p "$scratch/$name.upper" "$scratch/$name.work"
  mount -t overlay overlay \
    -o "lowerdir=$dir,upperdir=$scratch/$name.upper,workdir=$scratch/$name.work" "$dir"
done
fail() { echo "FAIL: $*"; exit 1; }

# 1. The default prefix, as the README's install does it.
cmake --install "$build" >"$scratch/install.log" || fail "install: $(cat "$scratch/install.log")"
cc -o "$scratch/app-pc" "$consumer/app.c" $(pkg-config --cflags --libs tevul)
"$scratch/app-pc" | grep -q "libtevul linked" || fail "pkg-config program in /usr/local"
PATH=/usr/local/bin:$PATH tevu --version | grep -q '^tevu ' || fail "tevu in /usr/local"
cmake -S "$consumer" -B "$scratch/cmake-sys" >/dev/null && cmake --build "$scratch/cmake-sys" >/dev/null ||
  fail "CMake project against /usr/local"
"$scratch/cmake-sys/app" | grep -q "libtevul linked" || fail "CMake program in /usr/local"
man -w -M /usr/local/share/man tevu >/dev/null 2>&1 || [ -f /usr/local/share/man/man1/tevu.1 ] ||
  fail "manual page"
[ -f /usr/local/share/bash-completion/completions/tevu ] || fail "bash completion"

# 2. A prefix of its own.
prefix=$scratch/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
"$prefix/bin/tevu" --version | grep -q '^tevu ' || fail "tevu in its own prefix"
libdir=$(dirname "$(find "$prefix" -name libtevul.so)")
PKG_CONFIG_PATH=$libdir/pkgconfig cc -o "$scratch/app-own" "$consumer/app.c" \
  $(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs tevul)
LD_LIBRARY_PATH=$libdir "$scratch/app-own" | grep -q "libtevul linked" || fail "pkg-config program"
cmake -S "$consumer" -B "$scratch/cmake-own" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null &&
  cmake --build "$scratch/cmake-own" >/dev/null || fail "CMake project against its own prefix"
LD_LIBRARY_PATH=$libdir "$scratch/cmake-own/app" | grep -q "libtevul linked" ||
  fail "CMake program from its own prefix"
echo "installed and used: /usr/local and a prefix of its own"
