#!/usr/bin/env bash
# Prepares the windows-x64 platform (called as `scripts/setup.sh --target windows-x64`): the
# MinGW-w64 compiler and Wine from this machine's Debian packages, and a private sysroot under
# build/sysroot/windows-x64 with zstd and its program (built from Debian's source package), the xxhash header, GoogleTest (built from libgtest-dev's sources) and the
# header-only libraries of the tool. Everything fetched is kept under build/, so a second run
# fetches and builds nothing. The machine's apt configuration is not changed.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
cache=$top/build/cache/windows-x64
sysroot=$top/build/sysroot/windows-x64
toolchain=$top/cmake/toolchains/windows-x64.cmake
mkdir -p "$cache" "$sysroot"
die() { echo "setup windows-x64: $*" >&2; exit 1; }

as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
missing=()
for p in g++-mingw-w64-x86-64-posix wine wine64 libgtest-dev libcli11-dev nlohmann-json3-dev dpkg-dev; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup windows-x64: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  "${as_root[@]}" apt-get update -qq || die "apt-get update failed"
  "${as_root[@]}" apt-get install -y -qq --no-install-recommends -o DPkg::Lock::Timeout=900 \
    "${missing[@]}" >/dev/null || die "cannot install ${missing[*]}"
fi

# Headers of arch-independent packages, unpacked into the sysroot.
unpack() {  # PACKAGE
  local stamp=$cache/$1.unpacked
  [ -e "$stamp" ] && return 0
  (cd "$cache" && apt-get download -qq -o APT::Sandbox::User=root "$1") || die "cannot download $1"
  dpkg -x "$cache"/"$1"_*.deb "$cache/$1"
  mkdir -p "$sysroot/usr"
  cp -r "$cache/$1/usr/include" "$sysroot/usr/"
  [ -d "$cache/$1/usr/share/cmake" ] && mkdir -p "$sysroot/usr/share" && cp -r "$cache/$1/usr/share/cmake" "$sysroot/usr/share/"
  [ -d "$cache/$1/usr/share/pkgconfig" ] && mkdir -p "$sysroot/usr/share" && cp -r "$cache/$1/usr/share/pkgconfig" "$sysroot/usr/share/"
  [ -d "$cache/$1/usr/lib/cmake" ] && mkdir -p "$sysroot/usr/lib" && cp -r "$cache/$1/usr/lib/cmake" "$sysroot/usr/lib/"
  touch "$stamp"
}
unpack libcli11-dev
unpack nlohmann-json3-dev
unpack libxxhash-dev
mkdir -p "$sysroot/usr/lib/pkgconfig"
# Only the header is used: its functions are compiled inline into the library.
cat > "$sysroot/usr/lib/pkgconfig/libxxhash.pc" <<PC
prefix=/usr
includedir=\${prefix}/include
Name: libxxhash
Description: xxhash as an inline header
Version: $(sed -n 's/^#define XXH_VERSION_\(MAJOR\|MINOR\|RELEASE\) *\([0-9]*\).*/\2/p' "$sysroot/usr/include/xxhash.h" | paste -sd.)
Cflags: -I\${includedir} -DXXH_INLINE_ALL
PC

export LOWLEVEL_SETUP=1  # the toolchain file then does not ask for the sysroot it helps to build
cross=(-G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr)
command -v ccache >/dev/null && cross+=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)

# zstd from Debian's source package, through a private source list that repeats the machine's
# Debian archive as deb-src.
# Its command-line program too: a test checks that the zstd program reads the library's files.
if [ ! -e "$cache/zstd.installed" ] || [ ! -e "$sysroot/usr/bin/zstd.exe" ]; then
  apt=$cache/apt
  mkdir -p "$apt/lists/partial" "$apt/parts"
  uri=$(sed -n 's/^URIs: *//p' /etc/apt/sources.list.d/*.sources 2>/dev/null | grep -v security | head -1)
  [ -n "$uri" ] || uri=$(sed -n 's/^deb \(\[[^]]*\] \)\?\(http[^ ]*\) .*/\2/p' /etc/apt/sources.list 2>/dev/null | grep -v security | head -1)
  [ -n "$uri" ] || die "no Debian archive found in the machine's apt sources"
  suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
  echo "deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $uri $suite main" > "$apt/sources.list"
  aptopts=(-o Dir::Etc::SourceList="$apt/sources.list" -o Dir::Etc::SourceParts="$apt/parts"
           -o Dir::State::Lists="$apt/lists" -o APT::Sandbox::User=root)
  apt-get "${aptopts[@]}" update -qq || die "cannot read Debian's source index"
  rm -rf "$cache/zstd-src" && mkdir -p "$cache/zstd-src"
  (cd "$cache/zstd-src" && apt-get "${aptopts[@]}" source -qq zstd >/dev/null) || die "cannot fetch zstd's source package"
  src=$(find "$cache/zstd-src" -maxdepth 1 -mindepth 1 -type d -name '*zstd-*' | head -1)
  cmake -S "$src/build/cmake" -B "$cache/zstd-build" "${cross[@]}" -DZSTD_BUILD_PROGRAMS=ON \
    -DZSTD_BUILD_SHARED=OFF -DZSTD_BUILD_STATIC=ON -DZSTD_BUILD_TESTS=OFF -DZSTD_MULTITHREAD_SUPPORT=OFF >/dev/null
  cmake --build "$cache/zstd-build" -j2 >/dev/null
  DESTDIR=$sysroot cmake --install "$cache/zstd-build" >/dev/null
  touch "$cache/zstd.installed"
fi

# GoogleTest from the sources that libgtest-dev installs.
if [ ! -e "$cache/gtest.installed" ]; then
  cmake -S /usr/src/googletest -B "$cache/gtest-build" "${cross[@]}" -Dgtest_disable_pthreads=OFF >/dev/null
  cmake --build "$cache/gtest-build" -j2 >/dev/null
  DESTDIR=$sysroot cmake --install "$cache/gtest-build" >/dev/null
  touch "$cache/gtest.installed"
fi

# A Wine prefix of our own, made once, so that test runs start fast and never touch ~/.wine.
export WINEPREFIX=$top/build/wine-prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
if [ ! -e "$WINEPREFIX/system.reg" ]; then
  DISPLAY= wineboot --init </dev/null >/dev/null 2>&1 || die "wineboot failed"
  wineserver -w
fi
exit 0
