#!/usr/bin/env bash
# The main job: installs what is missing, builds the library and its command-line tool, and runs the
# tool's demo, which builds an index from a text, queries and changes it, makes its compressed and
# ordered copies, packs one into a compressed file on a simulated removable volume and reads it back
# through a logical path.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DLOWLEVEL_BUILD_TESTS=OFF \
  -DLOWLEVEL_BUILD_BENCH=OFF >/dev/null
cmake --build build/release -j "$(nproc)" --target lowlevel_tool
exec ./build/release/tools/lowlevel demo "$@"
