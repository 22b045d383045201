#!/usr/bin/env bash
# End-to-end tests of `--safe`: crash-safe loads in batches and what an interrupted one reports.
set -u
tool=${LOWLEVEL_TOOL:?set LOWLEVEL_TOOL to the built program}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
failed=0
check() {  # check NAME WANT GOT
  if [ "$2" != "$3" ]; then failed=$((failed + 1)); printf 'FAIL: %s\n  got:    %s\n  wanted: %s\n' "$1" "$3" "$2"; fi
}

printf 'k%d\t%d\n' $(seq 1 7 | awk '{print $1, $1}') > seven.txt
"$tool" btree create plain.btr --order 3 --key-length 4 >/dev/null
"$tool" btree create safe.btr --order 3 --key-length 4 --safe >/dev/null
# A key first, so that the plain load also goes one key at a time (an empty tree is bulk-built).
"$tool" btree put plain.btr k0 0 && "$tool" btree put safe.btr k0 0 --safe
"$tool" btree load plain.btr seven.txt >/dev/null
check "a safe load says what a plain one says" "safe.btr: 7 added, 0 refused (present already or failed), 8 keys" \
  "$("$tool" btree load safe.btr seven.txt --safe --batch 3)"
check "a safe load writes the same bytes" "same" "$(cmp -s plain.btr safe.btr && echo same)"
"$tool" btree put safe.btr k8 8 --safe && "$tool" btree replace safe.btr k8 9 --safe && "$tool" btree del safe.btr k1 --safe
check "put, replace and del in batches" "9 8 no journal" \
  "$("$tool" btree get safe.btr k8) $("$tool" --json btree info safe.btr | grep -o '"keyCount": *[0-9]*' | grep -o '[0-9]*$') $([ -e safe.btr-journal ] || echo no journal)"

# A bad line in the third batch: two batches stay, the third is rolled back.
"$tool" btree create cut.btr --order 3 --key-length 4 >/dev/null
{ head -5 seven.txt; echo broken; } > cut.txt
"$tool" btree load cut.btr cut.txt --safe --batch 2 >/dev/null 2>err.txt
check "an interrupted load says what it kept" "2 lowlevel: cut.txt:6: expected KEY<TAB>VALUE; 4 keys committed in 2 batches, the batch under way rolled back" "$? $(cat err.txt)"
check "and keeps exactly that" "$(printf 'k1\t1\nk2\t2\nk3\t3\nk4\t4')" "$("$tool" btree scan cut.btr)"
check "a batch of 0 keys is refused" "2" "$("$tool" btree load cut.btr seven.txt --safe --batch 0 2>/dev/null; echo $?)"

[ "$failed" -eq 0 ] && echo "safe: all passed"
[ "$failed" -eq 0 ]
