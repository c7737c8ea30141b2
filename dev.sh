#!/usr/bin/env bash
# Developer entry point. On a fresh Debian 12 machine, as root:
#   bash dev.sh run    install what is missing, build, run the main job
#   bash dev.sh test   install what is missing, build, run the whole test
#                      suite, then again under AddressSanitizer and
#                      UndefinedBehaviorSanitizer
set -euo pipefail
cd "$(dirname "$0")"

PACKAGES=(g++ cmake make pkg-config libsqlite3-dev libgtest-dev googletest mergerfs fuse3)
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
    ;;
  *)
    echo "usage: bash dev.sh run|test" >&2
    exit 2
    ;;
esac
