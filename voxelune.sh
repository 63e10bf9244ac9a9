#!/usr/bin/env bash
# Voxelune's commands.  Each one installs what is missing, configures and
# builds before it does its job, so it works on a fresh Debian machine.
#
#   ./voxelune.sh render [options]  render the built-in phantom (or a volume) to voxelune.png
#   ./voxelune.sh test              build and run every test: optimised (with CUDA when nvcc
#                                   is there), ASan+UBSan, ThreadSanitizer for the threaded
#                                   tests, a host project against the installed package, and
#                                   the Windows DLLs (MinGW-w64) with their tests under Wine
#   ./voxelune.sh windows           only the Windows build and its tests under Wine
#   ./voxelune.sh bench             build and run the benchmarks (optimised)
set -euo pipefail
cd "$(dirname "$0")"
root=$(pwd)
jobs=$(nproc)

need_packages() {
    local pkgs=(cmake ninja-build g++ pkg-config libgtest-dev libbenchmark-dev
                libpng-dev zlib1g-dev libnifti-dev libteem-dev)
    local missing=()
    for p in "${pkgs[@]}"; do
        dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
    done
    if [ ${#missing[@]} -gt 0 ]; then
        echo "== installing: ${missing[*]}"
        local sudo=""
        [ "$(id -u)" -eq 0 ] || sudo=sudo
        $sudo apt-get update -qq
        DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
    fi
}

# configure DIR [cmake options...]
configure() {
    local dir=$1
    shift
    cmake -S "$root" -B "$dir" -G Ninja "$@" >"$dir.configure.log" 2>&1 ||
        { cat "$dir.configure.log"; return 1; }
    grep -E "Voxelune: CUDA" "$dir.configure.log" || true
}

# build_release [cmake options...]: every command names the parts it needs,
# so that one command never inherits another's choice from the cache.
build_release() {
    mkdir -p build
    configure build/release -DCMAKE_BUILD_TYPE=Release "$@"
    cmake --build build/release -j "$jobs"
}

cmd_render() {
    need_packages
    build_release -DVOXELUNE_TESTS=OFF -DVOXELUNE_BENCH=OFF
    # The tool is a host program: build it against the installed package.
    rm -rf build/prefix
    cmake --install build/release --prefix build/prefix >/dev/null
    mkdir -p build/tool
    cmake -S tools -B build/tool -G Ninja -DCMAKE_BUILD_TYPE=Release \
          -DCMAKE_PREFIX_PATH="$root/build/prefix" >build/tool.configure.log 2>&1 ||
        { cat build/tool.configure.log; return 1; }
    cmake --build build/tool -j "$jobs"
    build/tool/voxelune-render "$@"
}

run_ctest() {
    local dir=$1
    shift
    ctest --test-dir "$dir" -j "$jobs" --output-on-failure --no-tests=error --timeout 600 "$@"
}

cmd_test() {
    need_packages
    mkdir -p build

    echo "== optimised build"
    build_release -DVOXELUNE_TESTS=ON -DVOXELUNE_BENCH=OFF
    run_ctest build/release

    echo "== host project against the installed package"
    rm -rf build/prefix build/consumer
    cmake --install build/release --prefix build/prefix >/dev/null
    cmake -S tests/consumer -B build/consumer -G Ninja -DCMAKE_PREFIX_PATH="$root/build/prefix" \
          >build/consumer.configure.log 2>&1 || { cat build/consumer.configure.log; return 1; }
    cmake --build build/consumer
    build/consumer/voxelune-consumer

    echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
    configure build/asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVOXELUNE_CUDA=OFF \
              -DVOXELUNE_SANITIZE=address,undefined -DVOXELUNE_TESTS=ON
    cmake --build build/asan -j "$jobs"
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 run_ctest build/asan

    echo "== ThreadSanitizer build (threaded tests)"
    configure build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVOXELUNE_CUDA=OFF \
              -DVOXELUNE_SANITIZE=thread -DVOXELUNE_TOOLS=OFF -DVOXELUNE_TESTS=ON
    cmake --build build/tsan -j "$jobs"
    # ThreadSanitizer needs a fixed memory layout on kernels with large mmap randomisation.
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 setarch "$(uname -m)" -R \
        ctest --test-dir build/tsan -j "$jobs" --output-on-failure --no-tests=error --timeout 900 -L threaded

    cmd_windows
}

# The Windows build: MinGW-w64 cross-compiles the DLLs, the tool and the
# tests, and Wine runs them.  Returns 2 (and says why) when the two
# packages cannot be installed.
win_packages=(g++-mingw-w64-x86-64-posix wine wine64 googletest libstb-dev)

need_windows_packages() {
    local missing=()
    for p in "${win_packages[@]}"; do
        dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "== installing for the Windows build: ${missing[*]}"
    local sudo=""
    if [ "$(id -u)" -ne 0 ]; then
        sudo -n true 2>/dev/null || return 2
        sudo="sudo -n"
    fi
    $sudo apt-get update -qq >/dev/null 2>&1 || true
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends \
        "${missing[@]}" >build/windows.install.log 2>&1 || return 2
}

cmd_windows() {
    mkdir -p build
    if ! need_windows_packages; then
        echo "== Windows build SKIPPED: could not install ${win_packages[*]}"
        echo "   (needs root or password-less sudo and Debian's package archive; see build/windows.install.log)"
        return 0
    fi
    # One Wine prefix for the project, made once, quietly, without a display.
    export WINEPREFIX="${WINEPREFIX:-$root/build/wine}" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
    export WINEARCH=win64 DISPLAY=
    if [ ! -f "$WINEPREFIX/system.reg" ]; then
        echo "== initialising the Wine prefix $WINEPREFIX"
        wineboot -i </dev/null >build/wineboot.log 2>&1 || { cat build/wineboot.log; return 1; }
    fi

    # One Wine server for every test: without it each test's Wine starts its
    # own, and one that starts while the last is shutting down loses its
    # connection.  It leaves 30 s after its last client, or at wineserver -k.
    wineserver -k 2>/dev/null || true
    wineserver -p30

    echo "== Windows build (MinGW-w64), tests under Wine"
    local linux_tool=""
    [ -x build/release/tools/voxelune-render ] && linux_tool="$root/build/release/tools/voxelune-render"
    configure build/windows -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
              -DCMAKE_BUILD_TYPE=Release -DVOXELUNE_LINUX_RENDER="$linux_tool"
    cmake --build build/windows -j "$jobs"
    # Wine itself now and then fails before a test's program starts (a lost
    # server connection, no output at all): the failed tests run once more,
    # and only a second failure fails the step.  The Linux builds above run
    # every test once, with no second chance.
    if ! run_ctest build/windows; then
        echo "== Windows: the failed tests once more"
        run_ctest build/windows --rerun-failed
    fi

    echo "== Windows host program against the installed DLLs"
    rm -rf build/windows-prefix build/windows-consumer
    cmake --install build/windows --prefix build/windows-prefix >/dev/null
    cmake -S tests/consumer -B build/windows-consumer -G Ninja \
          -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
          -DCMAKE_PREFIX_PATH="$root/build/windows-prefix" -DCMAKE_EXE_LINKER_FLAGS=-static \
          >build/windows-consumer.configure.log 2>&1 || { cat build/windows-consumer.configure.log; return 1; }
    cmake --build build/windows-consumer
    WINEPATH="$root/build/windows-prefix/bin" wine build/windows-consumer/voxelune-consumer.exe |
        tee build/windows-consumer.log
    grep -q "^consumer: voxelune.dll 1.0 (rev-a)" build/windows-consumer.log
    wineserver -k 2>/dev/null || true
}

cmd_bench() {
    need_packages
    build_release -DVOXELUNE_BENCH=ON -DVOXELUNE_TESTS=OFF
    for b in build/release/bench/bench_*; do
        [ -x "$b" ] || continue
        echo "== $b"
        "$b" --benchmark_counters_tabular=true
    done
}

case "${1:-}" in
    render) shift; cmd_render "$@" ;;
    test) cmd_test ;;
    windows) cmd_windows ;;
    bench) cmd_bench ;;
    *) sed -n '2,12p' "$0"; exit 1 ;;
esac
