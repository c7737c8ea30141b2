#!/usr/bin/env bash
# Developer entry point. On a fresh Debian 12 machine, as root:
#   bash dev.sh run    install what is missing, build, run the main job
#   bash dev.sh test   install what is missing, build, run the whole test
#                      suite, again under AddressSanitizer and
#                      UndefinedBehaviorSanitizer, and again cross-built for
#                      32-bit little-endian MIPS under qemu-mipsel; then
#                      compile every library source for big-endian MIPS;
#                      then run each fuzz target for FUZZ_SECONDS (20)
#   bash dev.sh bench  the benchmark (bench/RESULTS.md tells what it measures;
#                      about fifteen minutes, not part of the test suite)
#   bash dev.sh fuzz   only the fuzz targets (FUZZ_SECONDS=N for longer runs)
#   bash dev.sh size   the stripped size and the needed libraries of the
#                      mipsel libtevul.so, and the size of the tevu tool
set -euo pipefail
cd "$(dirname "$0")"

PACKAGES=(g++ cmake make pkg-config libsqlite3-dev libgtest-dev googletest mergerfs fuse3
          g++-mipsel-linux-gnu g++-mips-linux-gnu qemu-user-static clang libclang-rt-14-dev)
# The target's SQLite and GoogleTest, unpacked into a sysroot: installing
# them through multiarch fails on Debian 12 (versions skew between the
# architectures), so the packages are only downloaded.
MIPSEL_DEBS=(libsqlite3-0 libsqlite3-dev libgtest-dev)
MIPSEL_SYSROOT=$PWD/build-mipsel-sysroot
JOBS=$(nproc 2>/dev/null || echo 2)

install_missing() {
  local missing=()
  for p in "${PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  if ((${#missing[@]})); then
    echo "== installing: ${missing[*]}"
    if [ "$(id -u)" -ne 0 ]; then
      echo "dev.sh: missing packages (${missing[*]}) need root to install" >&2
      exit 1
    fi
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
  fi
}

# build DIR [cmake options...]
build() {
  local dir=$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j "$JOBS"
}

mipsel_sysroot() {
  [ -f "$MIPSEL_SYSROOT/.complete" ] && return
  if ! dpkg --print-foreign-architectures | grep -qx mipsel; then
    dpkg --add-architecture mipsel
    apt-get update -qq
  fi
  rm -rf "$MIPSEL_SYSROOT"
  mkdir -p "$MIPSEL_SYSROOT/debs"
  local names=("${MIPSEL_DEBS[@]/%/:mipsel}")
  (cd "$MIPSEL_SYSROOT/debs" && { apt-get download -qq "${names[@]}" 2>/dev/null ||
     { apt-get update -qq && apt-get download -qq "${names[@]}"; }; })
  for deb in "$MIPSEL_SYSROOT"/debs/*.deb; do
    dpkg-deb -x "$deb" "$MIPSEL_SYSROOT"
  done
  touch "$MIPSEL_SYSROOT/.complete"
}

# cross_build DIR TRIPLE [cmake options...]
cross_build() {
  local dir=$1 triple=$2; shift 2
  build "$dir" -DCMAKE_TOOLCHAIN_FILE=cmake/linux-cross.cmake \
    -DTEVUL_TARGET_TRIPLE="$triple" -DTEVUL_SYSROOT="$MIPSEL_SYSROOT" "$@"
}

# Every source of the library and the tool must compile for big-endian MIPS
# too; Debian has no big-endian SQLite to link against, so this stops at
# object files.
mips_big_endian_check() {
  local out=build-mips-be
  mkdir -p "$out"
  for src in sources/*.cpp tools/tevu/*.cpp; do
    mips-linux-gnu-g++ -std=c++14 -O2 -Wall -Wextra -Werror -fPIC \
      -fvisibility=hidden -fvisibility-inlines-hidden \
      -D_FILE_OFFSET_BITS=64 -D_GNU_SOURCE -Iinclude -Isources -Itools/tevu \
      -isystem "$MIPSEL_SYSROOT/usr/include" \
      -c "$src" -o "$out/$(basename "$src" .cpp).o"
  done
  echo "big-endian MIPS: $(ls "$out"/*.o | wc -l) objects compiled"
}

# The libFuzzer targets, each for FUZZ_SECONDS (default 20) on its seed
# corpus; what they find is written to build-fuzz/findings/.
FUZZ_SECONDS=${FUZZ_SECONDS:-20}
fuzz() {
  CC=clang CXX=clang++ build build-fuzz -DTEVUL_BUILD_FUZZERS=ON \
    -DTEVUL_BUILD_TESTS=OFF -DTEVUL_BUILD_EXAMPLES=OFF -DTEVUL_BUILD_TOOLS=OFF
  mkdir -p build-fuzz/findings
  for target in fuzz_limits fuzz_runtime_file fuzz_data_encoding fuzz_strings; do
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

case "${1:-}" in
  run)
    install_missing
    build build
    ./build/examples/bulk_tagging
    ;;
  test)
    install_missing
    echo "== build and test"
    build build
    run_suite build
    echo "== build and test with AddressSanitizer and UndefinedBehaviorSanitizer"
    build build-sanitize -DTEVUL_SANITIZE=ON -DTEVUL_BUILD_EXAMPLES=OFF
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
      run_suite build-sanitize
    echo "== cross-build for mipsel and test under qemu-mipsel"
    mipsel_sysroot
    cross_build build-mipsel mipsel-linux-gnu
    run_suite build-mipsel
    echo "== compile check for big-endian MIPS"
    mips_big_endian_check
    echo "== fuzzing (clang, libFuzzer)"
    fuzz
    ;;
  bench)
    install_missing
    command -v gnuplot >/dev/null || { apt-get install -y -qq --no-install-recommends gnuplot-nox >/dev/null; }
    build build-bench -DCMAKE_BUILD_TYPE=Release -DTEVUL_BUILD_BENCH=ON
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
    gnuplot -c bench/plot.gp bench/results.tsv bench/bulk_rate.png
    echo "table: build-bench/results.md, plot: bench/bulk_rate.png"
    ;;
  fuzz)
    install_missing
    fuzz
    ;;
  size)
    install_missing
    mipsel_sysroot
    cross_build build-mipsel-size mipsel-linux-gnu -DCMAKE_BUILD_TYPE=MinSizeRel \
      -DTEVUL_BUILD_TESTS=OFF -DTEVUL_BUILD_EXAMPLES=OFF >/dev/null
    mipsel-linux-gnu-strip -o build-mipsel-size/libtevul.stripped.so build-mipsel-size/libtevul.so
    echo "stripped: $(stat -c %s build-mipsel-size/libtevul.stripped.so) bytes"
    mipsel-linux-gnu-readelf -d build-mipsel-size/libtevul.stripped.so | grep NEEDED
    mipsel-linux-gnu-strip -o build-mipsel-size/tevu.stripped build-mipsel-size/tools/tevu
    echo "tevu tool, stripped: $(stat -c %s build-mipsel-size/tevu.stripped) bytes"
    ;;
  *)
    echo "usage: bash dev.sh run|test|fuzz|bench|size" >&2
    exit 2
    ;;
esac
