#!/usr/bin/env bash
# Fetches what a cross platform needs, from Debian only, and keeps it under build/ so that a second
# run fetches nothing: the cross compiler and the emulator as packages of this machine, and the
# target's libraries as Debian packages of the target architecture, unpacked with `dpkg -x` into a
# private sysroot (build/sysroot/NAME). Foreign packages are never installed into this machine, and
# apt's own configuration is left alone: the target's package lists live under build/ too.
# Usage: setup_target.sh NAME   (called as `scripts/setup.sh --target NAME`)
set -euo pipefail
cd "$(dirname "$0")/.."

name=${1:?usage: setup.sh --target NAME}
fail() { echo "setup --target $name: $*" >&2; exit 1; }

# Per platform: the Debian architecture, the packages of this machine it needs, and the target's
# packages to unpack into the sysroot (their library dependencies are added below).
case "$name" in
  linux-i686)
    arch=i386
    host_packages=(g++-i686-linux-gnu qemu-user)
    ;;
  linux-s390x)
    arch=s390x
    host_packages=(g++-s390x-linux-gnu qemu-user)
    ;;
  windows-x64)
    # Built from Debian's sources with the MinGW compiler rather than unpacked: its own script.
    exec bash scripts/setup_windows.sh
    ;;
  *) fail "unknown platform (known: linux-i686, linux-s390x, windows-x64)" ;;
esac
target_packages=(libzstd-dev libxxhash-dev libicu-dev libgtest-dev libcli11-dev nlohmann-json3-dev)
# Provided by the cross compiler's own packages, or not needed to build and run.
provided='^(libc6|libc6-dev|libgcc-s1|libstdc\+\+6|libstdc\+\+-[0-9]+-dev|gcc-[0-9]+-base|libcrypt1|libcrypt-dev|icu-devtools|libgmock-dev|googletest)$'

sysroot=$PWD/build/sysroot/$name
stamp=$sysroot/.packages
apt_dir=$PWD/build/apt/$name

# 1. This machine's packages.
missing=()
for p in "${host_packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup --target $name: installing ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -qq || fail "apt-get update failed"
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null ||
    fail "cannot install ${missing[*]}"
fi

# 2. The target's packages, once.
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "${target_packages[*]}" ]; then
  exit 0
fi
mkdir -p "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial" "$apt_dir/debs"
apt_opts=(-o "APT::Architectures::=$(dpkg --print-architecture)" -o "APT::Architectures::=$arch"
          -o "Dir::State::Lists=$apt_dir/lists" -o "Dir::Cache=$apt_dir/cache" -q)
echo "setup --target $name: fetching the $arch package lists"
# A mirror caught in the middle of an update answers with mismatched lists for a while: try again,
# then go on with the lists that did arrive (the download below fails if a package is missing).
for try in 1 2 3; do
  apt-get "${apt_opts[@]}" update >"$apt_dir/update.log" 2>&1 && ! grep -q '^[EW]: ' "$apt_dir/update.log" && break
  if [ $try -eq 3 ]; then
    ls "$apt_dir"/lists/*_binary-"${arch}"_Packages* >/dev/null 2>&1 ||
      fail "cannot fetch the $arch package lists (see $apt_dir/update.log)"
    echo "setup --target $name: some $arch lists did not arrive, going on without them:" >&2
    grep '^[EW]: ' "$apt_dir/update.log" | head -n 3 >&2
  else
    sleep 15
  fi
done

# Adds the library packages each wanted package depends on, until nothing new comes.
wanted=("${target_packages[@]}")
i=0
while [ $i -lt ${#wanted[@]} ]; do
  deps=$(apt-cache "${apt_opts[@]}" depends --no-recommends --no-suggests --no-conflicts --no-breaks \
           --no-replaces --no-enhances "${wanted[$i]}:$arch" 2>/dev/null |
         sed -n 's/^ *|\{0,1\}Depends: \([^<][^ ]*\).*/\1/p' | sed 's/:.*//' | sort -u) ||
    fail "no $arch package ${wanted[$i]}"
  for d in $deps; do
    [[ $d =~ $provided ]] && continue
    [[ " ${wanted[*]} " == *" $d "* ]] || wanted+=("$d")
  done
  i=$((i + 1))
done

echo "setup --target $name: downloading ${wanted[*]}"
(cd "$apt_dir/debs" && rm -f ./*.deb &&
 apt-get "${apt_opts[@]}" download $(for p in "${wanted[@]}"; do
   a=$(apt-cache "${apt_opts[@]}" show "$p:$arch" 2>/dev/null | sed -n 's/^Architecture: //p' | head -n 1)
   if [ -z "$a" ] || [ "$a" = all ]; then echo "$p"; else echo "$p:$arch"; fi
 done) >"$apt_dir/download.log" 2>&1) || fail "cannot download the $arch packages (see $apt_dir/download.log)"

rm -rf "$sysroot"
mkdir -p "$sysroot"
for deb in "$apt_dir"/debs/*.deb; do
  dpkg -x "$deb" "$sysroot"
done
echo "${target_packages[*]}" >"$stamp"
echo "setup --target $name: sysroot ready in $sysroot"
