#!/usr/bin/env bash
# End-to-end tests of the `lowlevel` program: real files, real exit codes, real output.
set -u
tool=${LOWLEVEL_TOOL:?set LOWLEVEL_TOOL to the built program}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
passed=0
failed=0

# expect NAME CODE EXPECTED_OUTPUT -- COMMAND...: exit code and standard output must match exactly.
expect() {
  local name=$1 code=$2 want=$3
  shift 4
  local got rc
  got=$("$@" 2>"$work/stderr")
  rc=$?
  if [ "$rc" -eq "$code" ] && [ "$got" = "$want" ]; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    echo "FAIL: $name: exit $rc (wanted $code)"
    echo "  got:    $(printf '%s' "$got" | head -c 600)"
    echo "  wanted: $want"
    echo "  stderr: $(head -c 600 "$work/stderr")"
  fi
}

# expect_err NAME CODE PATTERN -- COMMAND...: exit code and a line of standard error matching.
expect_err() {
  local name=$1 code=$2 pattern=$3
  shift 4
  "$@" >/dev/null 2>"$work/stderr"
  local rc=$?
  if [ "$rc" -eq "$code" ] && grep -qE -- "$pattern" "$work/stderr"; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    echo "FAIL: $name: exit $rc (wanted $code), stderr: $(head -c 600 "$work/stderr")"
  fi
}

# --- btree: create, load, get, put, replace, del, scan, range ---
expect "create" 0 "created words.btr: order 5, key length 8" -- \
  "$tool" btree create words.btr --order 5 --key-length 8
printf 'pear\t3\napple\t1\nfig\t2\nkiwi\t4\nlime\t5\nplum\t6\nsloe\t7\n' > input.txt
expect "load" 0 "words.btr: 7 added, 0 refused (present already or failed), 7 keys" -- \
  "$tool" btree load words.btr input.txt
expect "load refuses present keys" 0 "words.btr: 0 added, 7 refused (present already or failed), 7 keys" -- \
  "$tool" btree load words.btr input.txt
# An empty tree is built in one pass from the sorted lines: in memory, or by runs on disk.
for i in $(seq 1 3000); do printf 'k%05d\t%d\n' $(( i * 7919 % 3001 )) "$i"; done > many.txt
sort many.txt > sorted.txt
for f in m1 m2 m3; do "$tool" btree create $f.btr --order 7 --key-length 8 >/dev/null; done
added="3000 added, 0 refused (present already or failed), 3000 keys"
expect "bulk load" 0 "m1.btr: $added" -- "$tool" btree load m1.btr many.txt
expect "bulk load by runs on disk" 0 "m2.btr: $added" -- "$tool" btree load m2.btr many.txt --sort-kib 16
expect_err "--sorted names the line out of order" 2 "many.txt:2: not in order" -- \
  "$tool" btree load m3.btr many.txt --sorted
expect "--sorted" 0 "m3.btr: $added" -- "$tool" btree load m3.btr sorted.txt --sorted
expect "one tree whichever way, no run left" 0 "0" -- sh -c "cmp m1.btr m2.btr && cmp m1.btr m3.btr && ls | grep load | wc -l"
expect "bulk-loaded tree" 0 "m1.btr: sound, 3000 keys in 503 pages, 0 free, 0 backward links" -- \
  "$tool" btree check m1.btr
expect "get" 0 "3" -- "$tool" btree get words.btr pear
expect "get absent" 1 "" -- "$tool" btree get words.btr grape
expect "put" 0 "" -- "$tool" btree put words.btr grape 9
expect "get after put" 0 "9" -- "$tool" btree get words.btr grape
expect "replace" 0 "" -- "$tool" btree replace words.btr grape 10
expect "get after replace" 0 "10" -- "$tool" btree get words.btr grape
expect "del" 0 "" -- "$tool" btree del words.btr fig
expect "del absent" 1 "" -- "$tool" btree del words.btr fig
expect "scan" 0 "$(printf 'apple\t1\ngrape\t10\nkiwi\t4\nlime\t5\npear\t3\nplum\t6\nsloe\t7')" -- \
  "$tool" btree scan words.btr
expect "scan reverse limit" 0 "$(printf 'sloe\t7\nplum\t6')" -- \
  "$tool" btree scan words.btr --reverse --limit 2
expect "range inclusive" 0 "$(printf 'grape\t10\nkiwi\t4\nlime\t5')" -- \
  "$tool" btree range words.btr g lime
expect "range reverse" 0 "$(printf 'lime\t5\nkiwi\t4\ngrape\t10')" -- \
  "$tool" btree range words.btr g lime --reverse
expect "range json" 0 '[
  {
    "key": "kiwi",
    "value": 4
  }
]' -- "$tool" --json btree range words.btr kiwi kiwi
expect "check" 0 "words.btr: sound, 7 keys in 3 pages, 0 free, 0 backward links" -- \
  "$tool" btree check words.btr

# --- long and hex keys ---
"$tool" btree create nums.btr --order 3 --key-length 4 >/dev/null
printf '5\t50\n-1\t10\n300\t3\n' > nums.txt
"$tool" btree load nums.btr nums.txt --long-keys >/dev/null
expect "long keys in unsigned order" 0 "$(printf '5\t50\n300\t3\n-1\t10')" -- \
  "$tool" btree scan nums.btr --long-keys
expect "hex get" 0 "3" -- "$tool" btree get nums.btr 0000012c --hex

# --- duplicates ---
"$tool" btree create dups.btr --order 4 --key-length 6 --duplicates >/dev/null
printf 'a\t2\na\t1\nb\t5\na\t3\n' | "$tool" btree load dups.btr >/dev/null
expect "duplicates get all values" 0 "$(printf '1\n2\n3')" -- "$tool" btree get dups.btr a
expect "duplicates del one entry" 0 "" -- "$tool" btree del dups.btr a --value 2
expect "duplicates after del" 0 "$(printf '1\n3')" -- "$tool" btree get dups.btr a
expect_err "duplicates replace refused" 1 "Duplicates are NOT supported" -- \
  "$tool" btree replace dups.btr a 7

# --- copies ---
expect "order" 0 "order: words.btr -> ordered.btr" -- "$tool" btree order words.btr ordered.btr
expect "repack" 0 "repack: words.btr -> packed.btr" -- "$tool" btree repack words.btr packed.btr --order 3
expect "repacked scan equal" 0 "$("$tool" btree scan words.btr)" -- "$tool" btree scan packed.btr
expect_err "compress refuses short keys" 3 "keylength less than 16" -- \
  "$tool" btree compress words.btr small.cbt
"$tool" btree create long.btr --order 7 --key-length 20 >/dev/null
"$tool" btree load long.btr input.txt >/dev/null
expect "compress" 0 "compress: long.btr -> long.cbt" -- "$tool" btree compress long.btr long.cbt
expect "compressed scan equal" 0 "$("$tool" btree scan long.btr)" -- "$tool" btree scan long.cbt
expect "compressed check" 0 "long.cbt: sound, 7 keys in 3 pages, 0 free, 0 backward links" -- \
  "$tool" btree check long.cbt

# --- pack, cat, unpack, logical paths ---
seq 1 20000 > numbers.txt
expect "pack" 0 "packed numbers.txt -> numbers.zst" -- "$tool" pack numbers.txt numbers.zst --chunk-size 4096
expect "cat expands" 0 "$(cat numbers.txt)" -- "$tool" cat numbers.zst
expect "unpack" 0 "" -- "$tool" unpack numbers.zst numbers.out
cmp -s numbers.txt numbers.out && passed=$((passed + 1)) || { failed=$((failed + 1)); echo "FAIL: unpack bytes"; }
if command -v zstd >/dev/null; then
  expect "zstd reads packed files" 0 "$(cat numbers.txt)" -- zstd -dc numbers.zst
fi
mkdir -p vol1
"$tool" pack long.cbt vol1/index.cbt >/dev/null
printf '; test host\n[volumes]\ncd = vol1/   ; the default volume\n[locations]\ndata = vol1/\n' > host.ini
expect "logical path through a host file" 0 "4" -- "$tool" --host host.ini btree get 'cd:\index.cbt' kiwi
expect "location" 0 "4" -- "$tool" --host host.ini --location data btree get index.cbt kiwi
expect_err "unconfigured location" 3 "No location given for files" -- \
  "$tool" --host host.ini --location nowhere btree get index.cbt kiwi
expect_err "unconfigured volume" 3 "cannot open B-tree" -- "$tool" btree get 'cd:\index.cbt' kiwi

# --- command lines ---
expect "cmdline parse json" 0 '[
  {
    "name": "file",
    "value": "my data.txt"
  },
  {
    "name": "level",
    "value": "3"
  }
]' -- "$tool" --json cmdline parse 'file={my data.txt} level=3'

# --- errors ---
expect_err "missing file" 3 "cannot open B-tree missing.btr" -- "$tool" btree get missing.btr x
expect_err "usage" 2 "required" -- "$tool" btree create x.btr
expect_err "bad order reported" 3 "cannot create B-tree bad.btr" -- \
  "$tool" btree create bad.btr --order 1 --key-length 4
printf 'garbage garbage garbage garbage garbage garbage garbage' > junk.btr
expect_err "junk file" 3 "not a BTree file" -- "$tool" btree info junk.btr
expect_err "bad host file" 2 "host" -- "$tool" --host missing.ini btree get words.btr x
expect_err "bad load line" 2 "expected KEY<TAB>VALUE" -- sh -c "echo nonsense | '$tool' btree load words.btr"

# --- damage is found by check ---
cp words.btr damaged.btr
printf '\x01' | dd of=damaged.btr bs=1 seek=$((46 + 0)) conv=notrunc 2>/dev/null
"$tool" btree check damaged.btr >/dev/null 2>&1
rc=$?
[ "$rc" -ne 0 ] && passed=$((passed + 1)) || { failed=$((failed + 1)); echo "FAIL: check of a damaged file exited $rc"; }

# --- salvage: every key of an undamaged record comes back ---
# keys_of FILE OFFSET...: the KEY<TAB>VALUE lines of the pages at those offsets, as dump shows them.
keys_of() {
  local file=$1
  shift
  for at in "$@"; do
    "$tool" btree dump "$file" --page "$at" | sed -n 's/^  \[[0-9]*\] \(.*\) = \(.*\)$/\1\t\2/p'
  done
}
"$tool" btree create big.btr --order 4 --key-length 8 >/dev/null
for i in $(seq 1 90); do printf 'k%03d\t%d\n' $(( i * 7 % 97 )) "$i"; done > big.txt
# One key first, so that the rest goes in by inserts: the damage below is placed by their layout.
head -n 1 big.txt | "$tool" btree load big.btr >/dev/null
tail -n +2 big.txt | "$tool" btree load big.btr >/dev/null
for k in k007 k014 k021; do "$tool" btree del big.btr "$k"; done  # records on the free chain
"$tool" btree scan big.btr > all.txt
expect "salvage of a sound file" 0 \
  "big.btr -> saved.btr: 87 keys from 43 pages; 46 records, 3 free, 0 unreadable, 0 keys seen twice" -- \
  "$tool" btree salvage big.btr saved.btr
expect "salvaged sound file holds every key" 0 "$(cat all.txt)" -- "$tool" btree scan saved.btr
# Record size 80: record k starts at 46 + 80k. Damage: record 5 zeroed, record 17 names another
# place, the root's child links and the header's root and free chain broken (so the three free
# records count as unreadable too), the last record torn.
rec() { echo $(( 46 + 80 * $1 )); }
cp big.btr broken.btr
lost=$(keys_of big.btr "$(rec 5)" "$(rec 17)" "$(rec 45)")
dd if=/dev/zero of=broken.btr bs=1 seek="$(rec 5)" count=80 conv=notrunc 2>/dev/null
printf '\x99\x99' | dd of=broken.btr bs=1 seek="$(rec 17)" conv=notrunc 2>/dev/null
root=$(od -An -tu4 -j28 -N4 big.btr | tr -d ' ')
printf '\x07\x00\x00\x00\x07\x00\x00\x00' | dd of=broken.btr bs=1 seek=$(( root + 28 + 24 + 12 )) conv=notrunc 2>/dev/null
printf '\x05\x00\x00\x00\x09\x00\x00\x00' | dd of=broken.btr bs=1 seek=28 conv=notrunc 2>/dev/null
truncate -s $(( $(rec 45) + 40 )) broken.btr
grep -v -x -F -f <(printf '%s\n' "$lost") all.txt > kept.txt
expect_err "broken file does not open" 3 "cannot open B-tree" -- "$tool" btree scan broken.btr
expect "salvage of a broken file" 0 \
  "broken.btr -> saved.btr: $(wc -l < kept.txt) keys from 40 pages; 46 records, 0 free, 6 unreadable, 0 keys seen twice" -- \
  "$tool" btree salvage broken.btr saved.btr
expect "salvaged broken file holds every key of its sound pages" 0 "$(cat kept.txt)" -- \
  "$tool" btree scan saved.btr
expect "salvaged tree is sound" 0 "yes" -- sh -c "'$tool' btree check saved.btr >/dev/null && echo yes"
# A page that an interrupted split left behind beside its new copy: its keys are seen twice.
cp big.btr twice.btr
dd if=big.btr of=twice.btr bs=1 skip="$(rec 3)" seek="$(rec 46)" count=80 conv=notrunc 2>/dev/null
printf "$(printf '\\x%02x\\x%02x' $(( $(rec 46) & 255 )) $(( $(rec 46) >> 8 )))" |
  dd of=twice.btr bs=1 seek="$(rec 46)" conv=notrunc 2>/dev/null
expect "salvage counts keys seen twice" 0 \
  "twice.btr -> saved.btr: 87 keys from 44 pages; 47 records, 3 free, 0 unreadable, $(keys_of big.btr "$(rec 3)" | wc -l) keys seen twice" -- \
  "$tool" btree salvage twice.btr saved.btr
# Converted keys and duplicates: the slots come over as stored, lookups still convert.
"$tool" btree create conv.btr --order 3 --key-length 6 --duplicates --lcid 0x0409 --map-flags lowercase >/dev/null
printf 'Pear\t1\nPEAR\t2\napple\t3\nFig\t4\nKiwi\t5\nLime\t6\n' | "$tool" btree load conv.btr >/dev/null
"$tool" btree salvage conv.btr saved.btr >/dev/null
expect "salvage keeps conversion and duplicates" 0 "$(printf '1\n2')" -- "$tool" btree get saved.btr pEaR
expect "salvage keeps the header's conversion" 0 "$("$tool" btree info conv.btr | grep -E '^(version|conversion|key width)')" -- \
  sh -c "'$tool' btree info saved.btr | grep -E '^(version|conversion|key width)'"
expect_err "salvage refuses to overwrite its source" 3 "must not be the damaged one" -- \
  "$tool" btree salvage big.btr big.btr

# --- repair: a lagging key count and free-list head come back; anything else is refused ---
u32() { od -An -td4 -j"$2" -N4 "$1" | tr -d ' '; }
put32() { printf "$(printf '\\x%02x' $(( $2 & 255 )) $(( $2 >> 8 & 255 )) $(( $2 >> 16 & 255 )) $(( $2 >> 24 & 255 )))" |
  dd of="$1" bs=1 seek="$3" conv=notrunc 2>/dev/null; }
first=$(u32 big.btr 32)
second=$(u32 big.btr "$first")
cp big.btr lag.btr
put32 lag.btr 80 24        # the key count of an earlier state
put32 lag.btr "$second" 32  # the head from before the last record was freed
expect "repair of a lagging header" 0 "lag.btr: key count 80 -> 87, free-list head $second -> $first; header written" -- \
  "$tool" btree repair lag.btr
expect "repaired header is the one before" 0 "yes" -- sh -c "cmp -s big.btr lag.btr && echo yes"
expect "repair of a sound file" 0 "lag.btr: sound, nothing to repair" -- "$tool" btree repair lag.btr
cp broken.btr broken2.btr
expect_err "repair refuses a damaged file" 1 "not repaired in place: .lowlevel btree salvage broken.btr NEW" -- \
  "$tool" btree repair broken.btr
expect "refused repair writes nothing" 0 "yes" -- sh -c "cmp -s broken.btr broken2.btr && echo yes"
cp twice.btr strand.btr  # a split's page that its parent never learnt of, with a key only it holds
"$tool" btree del strand.btr "$(keys_of big.btr "$(rec 3)" | head -n 1 | cut -f1)"
expect_err "repair refuses keys off the tree" 1 "strand.btr: page at $(rec 46) holds 1 key that the tree does not reach; not repaired" -- \
  "$tool" btree repair strand.btr

# --- the 2 GiB limit, on sparse files: refused before writing, no key lost ---
"$tool" btree create lim.btr --order 32 --key-length 250 >/dev/null
for i in $(seq 1 400); do printf 'key%04d\t%d\n' $(( i * 37 % 1000 )) "$i"; done > lim.txt
head -n 100 lim.txt | "$tool" btree load lim.btr >/dev/null
rec=8030  # 24 + 31 x 250 + 8 x 32
truncate -s $(( 46 + ((2147483647 - 46) / rec - 1) * rec )) lim.btr  # room for one more record
expect "load at the limit" 0 "lim.btr: 59 added, 241 refused (present already or failed), 159 keys" -- \
  sh -c "tail -n 300 lim.txt | '$tool' btree load lim.btr"
expect "the refusal names file and limit" 0 "241" -- \
  sh -c "tail -n 300 lim.txt | '$tool' btree load lim.btr 2>&1 >/dev/null | grep -c 'Write refused: it would reach offset 2147483647, the 2 GiB limit (lim.btr)'"
expect "every added key is there" 0 "159" -- sh -c "'$tool' btree scan lim.btr | wc -l"
expect "tree at the limit is sound" 0 "yes" -- sh -c "'$tool' btree check lim.btr >/dev/null && echo yes"
expect "deletions work at the limit" 0 "" -- "$tool" btree del lim.btr key0037
truncate -s 2147483648 lim.btr
for cmd in "btree info" "btree check" "btree dump" "btree scan" cat; do
  expect_err "$cmd refuses a file beyond the limit" 3 "^lowlevel: lim.btr is larger than 2147483647 bytes, the 2 GiB limit$" -- \
    "$tool" $cmd lim.btr
done
expect_err "unpack refuses a file beyond the limit" 3 "lim.btr is larger than 2147483647 bytes" -- "$tool" unpack lim.btr out.bin
expect "salvage reads below the limit" 0 "158" -- \
  sh -c "'$tool' btree salvage lim.btr limsaved.btr >/dev/null && '$tool' btree scan limsaved.btr | wc -l"

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
