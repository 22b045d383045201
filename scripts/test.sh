#!/usr/bin/env bash
# Installs what is missing, then builds and runs every test: a g++ build, a clang build under
# AddressSanitizer and UndefinedBehaviorSanitizer, and a small project that uses the library
# through add_subdirectory, an install prefix and the Debian packages; then every cross platform
# through its presets, tests under its emulator.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

jobs=$(nproc)
run() { echo "+ $*"; "$@"; }

echo "== g++ build and tests"
run cmake -S . -B build/gcc -G Ninja -DCMAKE_CXX_COMPILER=g++ -DCMAKE_C_COMPILER=gcc \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
run cmake --build build/gcc -j "$jobs"
run ctest --test-dir build/gcc --output-on-failure -j "$jobs" --timeout 600 | tee build/gcc-ctest.log

echo "== clang build with AddressSanitizer and UndefinedBehaviorSanitizer, and tests"
run cmake -S . -B build/asan -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang \
  -DCMAKE_BUILD_TYPE=Debug -DLOWLEVEL_SANITIZE=ON -DLOWLEVEL_BUILD_BENCH=OFF >/dev/null
run cmake --build build/asan -j "$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run ctest --test-dir build/asan --output-on-failure -j "$jobs" --timeout 900 | tee build/asan-ctest.log

echo "== every fuzzer for a minute, from the seed corpora and the kept findings"
run ./scripts/fuzz.sh 60

echo "== a project that uses the library through add_subdirectory"
run cmake -S tests/consumer -B build/consumer -G Ninja -DLOWLEVEL_DIR="$PWD" >/dev/null
run cmake --build build/consumer -j "$jobs"
run ./build/consumer/consumer

echo "== the installed library (find_package, pkg-config) and the Debian packages (lintian)"
run bash scripts/test_install.sh build/gcc

# Each cross platform: its own set-up (which fails the run when it cannot fetch), every test through
# the presets, and the consumer project configured with the toolchain file alone.
# LOWLEVEL_PLATFORMS picks a subset (say, LOWLEVEL_PLATFORMS=linux-i686); every platform left out
# is named, so that none is skipped in silence.
all_platforms="linux-i686 linux-s390x windows-x64"
read -r -a cross_platforms <<<"${LOWLEVEL_PLATFORMS-$all_platforms}"
for platform in $all_platforms; do
  case " ${cross_platforms[*]} " in
    *" $platform "*) ;;
    *) echo "== $platform is left out of this run (LOWLEVEL_PLATFORMS=\"${LOWLEVEL_PLATFORMS-}\")" ;;
  esac
done
logs=(build/gcc-ctest.log build/asan-ctest.log)
for platform in "${cross_platforms[@]}"; do
  echo "== $platform: set-up, build and tests"
  start=$SECONDS
  run bash scripts/setup.sh --target "$platform"
  run cmake --preset "$platform" >/dev/null
  run cmake --build --preset "$platform"
  # Under Wine, one server for all the tests: left to itself, the server exits after each test
  # and boots again for the next, and a test that connects while it is going away dies without a
  # word. Kept running, the tests also take half the time.
  # The services it boots must not inherit a test's output, or ctest waits for them.
  if [ "$platform" = windows-x64 ]; then
    WINEPREFIX="$PWD/build/wine-prefix" WINEDEBUG=-all wineserver -p
    WINEPREFIX="$PWD/build/wine-prefix" WINEDEBUG=-all DISPLAY= wineboot </dev/null >/dev/null 2>&1
  fi
  run ctest --preset "$platform" | tee "build/$platform-ctest.log"
  run cmake -S tests/consumer -B "build/consumer-$platform" -G Ninja -DLOWLEVEL_DIR="$PWD" \
    --toolchain "$PWD/cmake/toolchains/$platform.cmake" -DCMAKE_CXX_COMPILER_LAUNCHER=ccache >/dev/null
  run cmake --build "build/consumer-$platform" -j "$jobs"
  run ctest --test-dir "build/consumer-$platform" --output-on-failure | tee "build/consumer-$platform-ctest.log"
  logs+=("build/$platform-ctest.log" "build/consumer-$platform-ctest.log")
  if [ "$platform" = windows-x64 ]; then
    WINEPREFIX="$PWD/build/wine-prefix" wineserver -k || true
  fi
  echo "== $platform: $((SECONDS - start)) s"
done

# One closing line over all test runs (each run above stops the script on a failure).
total=$(cat "${logs[@]}" | sed -n 's/.*tests passed, 0 tests failed out of \([0-9]*\).*/\1/p' |
        awk '{ n += $1 } END { print n + 0 }')
echo "tests: $total passed, 0 failed"
