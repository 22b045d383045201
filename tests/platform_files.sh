#!/usr/bin/env bash
# The same files on every platform. Part 1 writes a fixed set of files through the `lowlevel` tool
# (trees of each file version, several orders and key widths, with duplicates, number keys and long
# keys, after inserts, deletes and replacements; their compressed, ordered and repacked copies;
# seekable zstd files) and compares their SHA-256 with tests/data/files.sha256. Part 2 asks questions
# of the files kept in tests/data/ and compares the answers with tests/data/answers.txt.
# LOWLEVEL_UPDATE_DATA=1 rewrites both lists (and the kept files) from this platform instead.
set -u
tool=${LOWLEVEL_TOOL:?set LOWLEVEL_TOOL to the built program}
data=$(cd "$(dirname "$0")/data" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
failed=0
ll() { "$tool" "$@" >/dev/null 2>log || { echo "FAIL: lowlevel $*: $(tr "\n" " " <log)"; failed=1; }; }
# keys N STEP [PREFIX]: N lines "PREFIX<number><TAB><value>" in a scattered order.
keys() { awk -v n="$1" -v s="$2" -v p="${3-k}" 'BEGIN { for (i = 0; i < n; i++) printf "%s%05d\t%d\n", p, (i * s) % n, i }'; }
# version FILE V: sets the version field of an empty tree (little-endian, as on disk).
version() { printf "\\x$(printf %02x $(($2 & 255)))\\x$(printf %02x $(($2 >> 8 & 255)))\\x01\\x00" |
            dd of="$1" bs=1 seek=0 conv=notrunc status=none; }

# NAME ORDER WIDTH CREATE-OPTIONS KEYS N STEP PREFIX VERSION: a tree is made, N keys are loaded in a
# scattered order (twice, with other values, into a tree with duplicates), 12 entries are deleted
# and 4 replaced (where keys are unique); then its compressed (keys of 16 bytes or more), ordered and repacked copies are made.
while read -r name order width create kind n step prefix ver; do
  [ "$create" = - ] && create=
  ll btree create "$name.btr" --order "$order" --key-length "$width" ${create//,/ }
  [ "$ver" = - ] || version "$name.btr" "$ver"
  opt=()
  if [ "$kind" = number ]; then
    opt=(--long-keys)
    keys "$n" "$step" "" | awk -F'\t' '{ printf "%d\t%d\n", ($2 % 2 ? -1 : 1) * $1, $2 }' >"$name.in"
  else
    keys "$n" "$step" "$prefix" >"$name.in"
  fi
  ll btree load "$name.btr" "$name.in" "${opt[@]}"
  dup=
  if [[ $create == *--duplicates* ]]; then
    dup=1
    awk -F'\t' '{ printf "%s\t%d\n", $1, $2 + 1000 }' "$name.in" >"$name.in2"
    ll btree load "$name.btr" "$name.in2" "${opt[@]}"
  fi
  while IFS=$'\t' read -r k v; do ll btree del "$name.btr" "${opt[@]}" ${dup:+--value "$v"} -- "$k"
  done < <(awk 'NR % 3 == 0' "$name.in" | head -n 12)
  [ -z "$dup" ] && while IFS=$'\t' read -r k v; do ll btree replace "$name.btr" "${opt[@]}" -- "$k" $((v + 500))
  done < <(awk 'NR % 3 == 1' "$name.in" | head -n 4)
  [ "$width" -ge 16 ] && ll btree compress "$name.btr" "$name.cbt"
  ll btree order "$name.btr" "$name.obt"
  ll btree repack "$name.btr" "$name.rbt" --order $((order + 2))
done <<'TABLE'
o3-w8        3  8  -                  string 120 7  k     -
o5-w20-dup   5  20 --duplicates       string 150 11 apple -
o16-w4-num   16 4  -                  number 300 13 -     -
o4-w64-long  4  64 -                  string 90  17 a-rather-long-key-that-fills-much-of-its-slot- -
o7-w24-upper 7  24 --lcid,0x0409,--map-flags,uppercase string 100 3 MiXeD -
v11-num      6  4  -                  number 80  9  -     0x0100
v12-num      6  4  -                  number 80  9  -     0x0200
v13-dup      5  20 --duplicates       string 60  7  w     0x0300
TABLE
ll pack o5-w20-dup.btr o5-w20-dup.btr.zst --chunk-size 512
ll pack o16-w4-num.obt o16-w4-num.obt.zst --chunk-size 4096 --level 9
ll pack o4-w64-long.obt o4-w64-long.obt.zst --chunk-size 300 --no-checksums
rm -f ./*.in ./*.in2 log
sha256sum -- * >files.sha256

# Questions to the kept files: one command a line, its output follows it in answers.txt.
ask() { for f in "$@"; do printf '$ %s\n' "$f"; eval "\"\$tool\" $f" 2>&1; echo "exit $?"; done; }
if [ "${LOWLEVEL_UPDATE_DATA-}" = 1 ]; then
  cp o5-w20-dup.btr o16-w4-num.obt o4-w64-long.cbt v11-num.btr o7-w24-upper.rbt o4-w64-long.obt.zst "$data/"
  cp files.sha256 "$data/files.sha256"
fi
cd "$data"
ask "btree info o5-w20-dup.btr" "btree check o5-w20-dup.btr" "btree range o5-w20-dup.btr apple00010 apple00030" \
    "btree scan o16-w4-num.obt --long-keys --limit 12" "btree get o16-w4-num.obt --long-keys -- -3" "btree scan v11-num.btr --long-keys --reverse --limit 8" \
    "btree check v11-num.btr" "btree info o7-w24-upper.rbt" "btree range o7-w24-upper.rbt mixed00010 mixed00020" \
    "btree scan o4-w64-long.obt.zst --limit 3" "btree range o4-w64-long.cbt a-rather-long-key-that-fills-much-of-its-slot-00040 --limit 4" \
    "btree check o4-w64-long.cbt" >"$work/answers.txt"
[ "${LOWLEVEL_UPDATE_DATA-}" = 1 ] && cp "$work/answers.txt" answers.txt

diff -u files.sha256 "$work/files.sha256" || { echo "FAIL: written files differ from tests/data/files.sha256"; failed=1; }
diff -u answers.txt "$work/answers.txt" || { echo "FAIL: answers differ from tests/data/answers.txt"; failed=1; }
[ $failed = 0 ] && echo "platform files: $(wc -l <files.sha256) files and $(grep -c '^\$ ' answers.txt) answers agree"
exit $failed
