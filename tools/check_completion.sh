#!/usr/bin/env bash
# Checks the generated bash completion: the words it offers at points of a command line.
# Usage: check_completion.sh COMPLETION_SCRIPT
set -euo pipefail
source "$1"
failures=0
expect() {  # expect WANTED WORD... : completing the last WORD offers WANTED
  local want=$1
  shift
  COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMPREPLY=()
  _lowlevel
  if [ "${COMPREPLY[*]}" != "$want" ]; then
    echo "completing '$*': offered '${COMPREPLY[*]}', expected '$want'"
    failures=$((failures + 1))
  fi
}
expect "btree pack unpack cat cmdline demo" lowlevel ""
expect "-h --help --version --host --json --cache-mib --location" lowlevel -
expect "btree" lowlevel --host h.ini --json b
expect "replace repair repack" lowlevel btree re
expect "--limit --long-keys" lowlevel --json btree scan words.btr --l
expect "--separator" lowlevel cmdline parse --s
expect "$1" lowlevel btree get "${1%?}"
[ "$failures" -eq 0 ]
