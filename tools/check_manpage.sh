#!/usr/bin/env bash
# Checks that the manual page documents every command, option, argument, example and exit status
# that the tool's help shows, so that the two cannot drift apart; says exactly what is missing.
# Usage: check_manpage.sh TOOL PAGE
set -euo pipefail
tool=$1 page=$2
text=$(groff -man -Tascii -ww -rLL=300n -P-cbou "$page" 2>&1)
if grep -q 'warning' <<<"$text"; then grep 'warning' <<<"$text"; exit 1; fi
missing=0
lack() { echo "$(basename "$page"): $*"; missing=$((missing + 1)); }

# The text of the page's section on `lowlevel PATH` (GLOBAL OPTIONS for the empty path).
section() {
  if [ -z "$1" ]; then awk '/^GLOBAL OPTIONS/ {on = 1; next} on && /^[A-Z]/ {exit} on' <<<"$text"
  else awk -v h="   lowlevel $1" '$0 == h || index($0, h " ") == 1 {on = 1; print; next}
                                  on && /^(   lowlevel |[A-Z])/ {exit} on' <<<"$text"; fi
}
# The first words of the lines of one part (Options:, Positionals:, Subcommands:) of a help text.
part() { sed -n "/^$1:/,/^\$/p" <<<"$2" | awk 'NR > 1 && NF { print $1 }'; }

walk() {
  local path=$1 help body word name
  help=$("$tool" $path --help)
  body=$(section "$path")
  if [ -n "$path" ] && [ -z "$body" ]; then
    if [ -z "$(part Subcommands "$help")" ]; then
      lack "command 'lowlevel $path' has no section (.SS \"lowlevel $path ...\" under COMMANDS)"
      return
    fi
  fi
  for word in $(part Options "$help" | grep -e "^-"); do
    for name in ${word//,/ }; do
      [ -n "$path" ] && [ "$name" = --help -o "$name" = -h ] && continue
      grep -qE -- "(^|[ ,])$name( |,|$)" <<<"$body" ||
        lack "option $name of 'lowlevel${path:+ $path}' is not documented in its section"
    done
  done
  for word in $(part Positionals "$help"); do
    grep -qw -- "$word" <<<"$body" || lack "argument $word of 'lowlevel $path' is not documented"
  done
  local example
  example=$(sed -n 's/^Example: //p' <<<"$help")
  if [ -n "$example" ] && ! grep -qF -- "$example" <<<"$text"; then
    lack "example of 'lowlevel${path:+ $path}' is missing: $example"
  fi
  for word in $(part Subcommands "$help"); do walk "${path:+$path }$word"; done
}
walk ""

status=$(awk '/^EXIT STATUS/ {on = 1; next} on && /^[A-Z]/ {exit} on' <<<"$text")
for code in $("$tool" --help | sed -n 's/^Exit status: //p' | grep -oE '(^|, )[0-9]+' | tr -d ', '); do
  grep -qE "^       $code( |$)" <<<"$status" || lack "exit status $code is not under EXIT STATUS"
done
[ "$missing" -eq 0 ] || exit 1
echo "$(basename "$page"): documents every command, option and exit status"
