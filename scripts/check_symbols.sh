#!/usr/bin/env bash
# Compares the symbols that the shared library exports with the list kept in the repository, so
# that every change of the binary interface is a deliberate one. Instantiations of the standard
# library (weak, the same in every program that uses them) and the typeinfo of function types that
# -fsanitize=function adds are left out.
# Usage: check_symbols.sh LIBRARY LIST        compare
#        check_symbols.sh LIBRARY LIST --update  rewrite LIST from LIBRARY
set -euo pipefail
lib=$1 list=$2
actual=$(nm -D --defined-only "$lib" | awk '{ print $3 }' |
         grep -Ev '^_Z(Z|T[ISV]|GV)?N?K?St|^_ZN9__gnu_cxx|^_ZT[IS]F|^_(init|fini|edata|end|_bss_start)$|^__' |
         c++filt | LC_ALL=C sort -u)
if [ "${3:-}" = --update ]; then
  printf '%s\n' "$actual" > "$list"
  exit 0
fi
if ! diff_out=$(diff -u "$list" <(printf '%s\n' "$actual")); then
  echo "The exported symbols of $lib differ from $list (- kept, + built):"
  printf '%s\n' "$diff_out" | tail -n +3 | grep '^[-+]'
  echo "If the change is meant, run: $0 $lib $list --update"
  exit 1
fi
echo "exported symbols: $(printf '%s\n' "$actual" | wc -l), as kept"
