#!/usr/bin/env bash
# Uses the library the ways its users do, from an already built tree (default build/gcc): the
# consumer project against a `cmake --install` prefix through find_package and through pkg-config,
# then the Debian packages, unpacked with dpkg -x into a throwaway root (never installed into this
# machine) and checked by lintian.
set -euo pipefail
cd "$(dirname "$0")/.."
tree=${1:-build/gcc}
out=build/install-test
rm -rf "$out"
mkdir -p "$out"
run() { echo "+ $*"; "$@"; }

# Builds and runs the consumer against the library under PREFIX (LIBDIR is where the library
# lies), once with find_package and once with pkg-config (given PKGFLAGS); the compile lines must
# not name the library's private dependencies.
consume() {
  local prefix=$1 libdir=$2 name=$3 pkgflags=${4:-}
  run cmake -S tests/consumer -B "$out/$name-cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null
  run cmake --build "$out/$name-cmake"
  if grep -Eq 'zstd|xxhash|icu' "$out/$name-cmake/compile_commands.json"; then
    echo "the private dependencies leak into the consumer's compile line:"
    cat "$out/$name-cmake/compile_commands.json"
    exit 1
  fi
  (cd "$out" && "$name-cmake/consumer")
  local flags
  flags=$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config $pkgflags --cflags --libs lowlevel)
  run g++ -std=c++17 tests/consumer/main.cpp $flags -Wl,-rpath,"$libdir" -o "$out/$name-pc"
  (cd "$out" && "./$name-pc")
}

echo "== the consumer against a cmake --install prefix"
prefix=$PWD/$out/prefix
run cmake --install "$tree" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name liblowlevel.so)")
test "$(readlink "$libdir/liblowlevel.so")" = liblowlevel.so.0
test "$(readlink "$libdir/liblowlevel.so.0")" = liblowlevel.so.0.1.0
"$prefix/bin/lowlevel" --version
consume "$prefix" "$libdir" installed

echo "== a static library: its private dependencies are resolved for the consumer's link"
run cmake -S . -B "$out/static-build" -G Ninja -DLOWLEVEL_STATIC=ON -DLOWLEVEL_BUILD_TESTS=OFF \
  -DLOWLEVEL_BUILD_BENCH=OFF -DLOWLEVEL_BUILD_TOOLS=OFF -DCMAKE_CXX_COMPILER_LAUNCHER=ccache >/dev/null
run cmake --build "$out/static-build" --target lowlevel >/dev/null
run cmake --install "$out/static-build" --prefix "$PWD/$out/static" >/dev/null
consume "$PWD/$out/static" "$PWD/$out/static/lib" static --static

echo "== the Debian packages"
(cd "$out" && run cpack --config "$PWD/../../$tree/CPackConfig.cmake" -G DEB >/dev/null)
root=$PWD/$out/root
for deb in "$out"/*.deb; do
  dpkg-deb --info "$deb" | sed -n 's/^ \(Package\|Depends\): /  /p'
  dpkg -x "$deb" "$root"
done
consume "$root/usr" "$(dirname "$(find "$root" -name liblowlevel.so)")" deb
run lintian --fail-on error "$out"/*.deb
