#!/usr/bin/env bash
# The release archive: `dev.sh dist` gives the same bytes twice for the
# same commit (so a published hash can be checked), and what it holds
# builds the library and the tool, which runs.
#   dist_test.sh SOURCE_DIR
set -euo pipefail
source_dir=$1
if ! git -C "$source_dir" rev-parse --verify -q HEAD >/dev/null || ! command -v xz >/dev/null; then
  echo "skipped: needs a git checkout and xz"
  exit 77
fi
scratch=$(mktemp -d /tmp/tevul-dist.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

mkdir "$scratch/one" "$scratch/two"
DIST_DIR=$scratch/one bash "$source_dir/dev.sh" dist >"$scratch/one.out"
DIST_DIR=$scratch/two bash "$source_dir/dev.sh" dist >"$scratch/two.out"
archive=$(head -n 1 "$scratch/one.out")
hash=$(sed -n 's/^PKG_HASH:=//p' "$scratch/one.out")
[ "$(sha256sum <"$archive" | cut -d' ' -f1)" = "$hash" ] || fail "PKG_HASH is not the archive's"
cmp -s "$archive" "$scratch/two/$(basename "$archive")" || fail "two archives of one commit differ"
grep -qx "PKG_SOURCE:=$(basename "$archive")" "$scratch/one.out" || fail "PKG_SOURCE"

tar -xJf "$archive" -C "$scratch"
top=$scratch/$(basename "$archive" .tar.xz)
[ -f "$top/CMakeLists.txt" ] || fail "the archive's top directory is not $(basename "$top")"
cmake -S "$top" -B "$scratch/build" -DTEVUL_BUILD_TESTS=OFF -DTEVUL_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$scratch/build" -j "$(nproc)" >/dev/null || fail "the archive does not build"
tevu=$(find "$scratch/build" -name tevu -type f -perm -u+x | head -n 1)
"$tevu" --version | grep -q "^tevu $(basename "$top" | sed 's/^libtevul-//')" || fail "tevu --version"
echo "release archive reproducible ($hash), builds and runs"
