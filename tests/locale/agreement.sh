#!/usr/bin/env bash
# The locale mappings that ICU and Windows' LCMapStringA agree on (tests/data/lcmap_agreed.txt.gz,
# the lines that both systems' lcmap_corpus printed alike) must come out of this platform's mapping
# unchanged. Usage: agreement.sh [EMULATOR...] LCMAP_CORPUS
set -u
agreed=$(dirname "$0")/../data/lcmap_agreed.txt.gz
missing=$(comm -23 <(gzip -dc "$agreed" | sort -u) <("$@" | tr -d '\r' | sort -u))
if [ -n "$missing" ]; then
  echo "$(printf '%s\n' "$missing" | wc -l) agreed mappings differ here, the first:"
  printf '%s\n' "$missing" | head -n 10
  exit 1
fi
echo "all $(gzip -dc "$agreed" | wc -l) agreed mappings hold"
