#!/usr/bin/env bash
# Mutation testing: applies a fixed, seeded sample of small faults to the library's sources one at
# a time and reports which ones the unit tests catch. Results go to BUILD_DIR/results.txt
# (default build/mutate). Examples:
#   scripts/mutate.sh                                   # the whole sample
#   scripts/mutate.sh --dirs lowlevel/files compression # only the mutants in these directories
#   scripts/mutate.sh --list                            # print the sample
#   scripts/mutate.sh --build-dir build/mut2 --resume   # go on after an interruption
set -euo pipefail
cd "$(dirname "$0")/.."
chmod +x scripts/mutate_cc.sh 2>/dev/null || true
exec nice python3 scripts/mutate.py "$@"
