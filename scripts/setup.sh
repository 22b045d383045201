#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking need, but only the ones that
# are missing; running it again on a ready machine does nothing. Works as root without a terminal.
# `setup.sh --target NAME` also fetches what the cross platform NAME needs (scripts/setup_target.sh).
set -euo pipefail

if [ "${1:-}" = --target ]; then
  bash "$0"
  exec bash "$(dirname "$0")/setup_target.sh" "${2:?usage: setup.sh --target NAME}"
fi

packages=(
  cmake ninja-build g++ clang pkg-config ccache
  libgtest-dev libgmock-dev libbenchmark-dev
  libzstd-dev libxxhash-dev libicu-dev zstd
  libcli11-dev nlohmann-json3-dev
  libclang-rt-14-dev
  libsqlite3-dev libdb-dev liblmdb-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
