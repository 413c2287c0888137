#!/usr/bin/env bash
# Developer entry point: installs what is missing, builds, and runs.
#
#   ./dev.sh demo    install missing Debian packages, build, run the zul tool's self-check and
#                    zul hls on the shipped sample playlists
#   ./dev.sh test    install, build with warnings as errors, run every test (also under
#                    ThreadSanitizer), and build the example against the installed package
#   ./dev.sh asan    the whole suite under AddressSanitizer and UndefinedBehaviorSanitizer
#   ./dev.sh tsan    the whole suite under ThreadSanitizer
#   ./dev.sh bench   build the benchmarks in Release and run them
set -euo pipefail
cd "$(dirname "$0")"

PACKAGES=(cmake ninja-build g++ pkg-config libasio-dev libcurl4-openssl-dev libsimdjson-dev libpcre2-dev libhowardhinnant-date-dev nlohmann-json3-dev libspdlog-dev libgtest-dev libgmock-dev googletest libbenchmark-dev libcpp-httplib-dev nginx-light)
JOBS=$(nproc 2>/dev/null || echo 2)

log() { printf '\n== %s\n' "$*"; }

install_missing() {
    local missing=()
    for package in "${PACKAGES[@]}"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    log "installing ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    $sudo apt-get update -q
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
}

# configure_and_build DIR [cmake options...]
configure_and_build() {
    local dir=$1
    shift
    cmake -S . -B "$dir" -G Ninja -DZUL_WARNINGS_AS_ERRORS=ON "$@" >/dev/null
    cmake --build "$dir" -j "$JOBS"
}

run_tests() {
    local dir=$1
    shift
    ctest --test-dir "$dir" --output-on-failure -j "$JOBS" "$@"
}

# Builds the examples against the library installed from build DIR, as an application would, and
# runs them.
check_example() {
    local dir=$1 prefix="$PWD/$1/install"
    log "installing into $prefix and building the examples against it"
    rm -rf "$prefix" "$dir/examples"
    cmake --install "$dir" --prefix "$prefix" >/dev/null
    cmake -S examples -B "$dir/examples" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
    cmake --build "$dir/examples"
    "$dir/examples/futures_on_queues"
    "$dir/examples/console_logger"
    "$dir/examples/rotating_file_logger"
    PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --exists --print-errors zulfoundation
}

command=${1:-demo}
case "$command" in
demo)
    install_missing
    log "building"
    configure_and_build build -DZUL_BUILD_TESTS=OFF -DZUL_BUILD_BENCHMARKS=OFF
    log "zul"
    ./build/tools/zul/zul
    log "zul hls (the shipped sample playlists)"
    ./build/tools/zul/zul hls
    ;;
test)
    install_missing
    log "building and testing"
    # Benchmarks are built (so that they keep compiling) but not run: figures need a quiet machine.
    configure_and_build build -DZUL_BUILD_TESTS=ON -DZUL_BUILD_BENCHMARKS=ON
    run_tests build
    log "the concurrency tests under ThreadSanitizer"
    configure_and_build build-tsan -DZUL_SANITIZE=thread -DZUL_BUILD_BENCHMARKS=OFF -DZUL_BUILD_TOOLS=OFF
    # Death tests re-run the binary in a child process; under ThreadSanitizer that only slows the run.
    TSAN_OPTIONS="atexit_sleep_ms=50 ${TSAN_OPTIONS:-}" run_tests build-tsan -E 'DeathTest'
    check_example build
    ;;
asan)
    install_missing
    configure_and_build build-asan "-DZUL_SANITIZE=address;undefined" -DZUL_BUILD_BENCHMARKS=OFF
    run_tests build-asan
    ;;
tsan)
    install_missing
    configure_and_build build-tsan -DZUL_SANITIZE=thread -DZUL_BUILD_BENCHMARKS=OFF -DZUL_BUILD_TOOLS=OFF
    TSAN_OPTIONS="atexit_sleep_ms=50 ${TSAN_OPTIONS:-}" run_tests build-tsan -E 'DeathTest'
    ;;
bench)
    install_missing
    configure_and_build build-bench -DCMAKE_BUILD_TYPE=Release -DZUL_BUILD_TESTS=OFF -DZUL_BUILD_BENCHMARKS=ON
    for program in build-bench/bench/zul_*_bench; do
        log "$program"
        "$program" "${@:2}"
    done
    ;;
*)
    sed -n '2,11p' "$0"
    exit 2
    ;;
esac
