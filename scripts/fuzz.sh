#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for SECONDS seconds (default 60), one after
# the other, starting from the seeds in fuzz/corpus/<target> and the inputs in
# fuzz/regressions/<target>. New corpus entries go to a scratch directory, not into the repository.
# A finding is written to <build>/artifacts/<target>/ with the log, and makes the script fail.
# Usage: scripts/fuzz.sh [SECONDS] [TARGET...]   (LOWLEVEL_FUZZ_BUILD: build directory)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(btree_fuzz compressed_fuzz cmdline_fuzz)
build=${LOWLEVEL_FUZZ_BUILD:-build/fuzz}  # the build directory; may be set from outside

cmake -S . -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang \
  -DLOWLEVEL_BUILD_FUZZ=ON -DLOWLEVEL_BUILD_TESTS=OFF -DLOWLEVEL_BUILD_BENCH=OFF \
  -DLOWLEVEL_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target "${targets[@]}"

status=0
for target in "${targets[@]}"; do
  work=$(mktemp -d "/tmp/lowlevel-fuzz-$target-XXXXXX")
  artifacts="$(cd "$build" && pwd)/artifacts/$target"
  mkdir -p "$artifacts"
  for dir in fuzz/corpus/$target fuzz/regressions/$target; do
    [ -d "$dir" ] && cp "$dir"/* "$work"/ 2>/dev/null || true
  done
  echo "== $target for ${seconds}s"
  if "$build/fuzz/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
      -print_final_stats=1 -artifact_prefix="$artifacts/" "$work" >"$artifacts/log" 2>&1; then
    grep -E "^stat::(number_of_executed_units|average_exec_per_sec|peak_rss_mb)" "$artifacts/log" |
      sed "s/^/  /"
  else
    echo "$target found a fault; input and log in $artifacts"
    grep -A20 -E "ERROR|SUMMARY" "$artifacts/log" | head -40
    status=1
  fi
  rm -rf "$work"
done
exit $status
