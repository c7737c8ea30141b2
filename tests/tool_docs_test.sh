#!/usr/bin/env bash
# The manual page and the bash completion name every command and every
# option that the tool's own help lists.
#   tool_docs_test.sh MANPAGE COMPLETION TOOL [EMULATOR...]
set -u
man_page=$1 completion=$2
shift 2
tool=("$@")
failed=0
fail() { echo "FAIL: $*"; failed=1; }

# The manual page as plain text: "\-" is "-", font changes dropped.
man_text=$(sed -e 's/\\-/-/g' -e 's/\\f[BIRP]//g' "$man_page")
source "$completion"

# Completions offered for the words given, the last one being completed.
complete_words() {
  COMP_WORDS=(tevu "$@")
  COMP_CWORD=$#
  COMPREPLY=()
  _tevu
  printf '%s\n' "${COMPREPLY[@]}"
}

commands=$("${tool[@]}" --help | sed -n '/^Commands:/,/^$/s/^  \([a-z]*\) .*/\1/p')
[ -n "$commands" ] || fail "tevu --help lists no commands"
offered=$(complete_words "")
for command in $commands; do
  grep -qx "$command" <<<"$offered" || fail "completion lacks the command $command"
  grep -q "^\.B $command\b" <<<"$man_text" || fail "manual page lacks the command $command"
  options=$("${tool[@]}" "$command" --help | grep -oE '^ +(-[a-z0-9], )?--[a-z-]+' |
            grep -oE -- '-[a-z0-9]\b|--[a-z-]+')
  case $command in view) prefix=(view path) ;; *) prefix=("$command") ;; esac
  short=$(complete_words "${prefix[@]}" -)
  long=$(complete_words "${prefix[@]}" --)
  for option in $options; do
    grep -qx -- "$option" <<<"$short"$'\n'"$long" ||
      fail "completion of '$command' lacks $option"
    grep -q -- "$option\b" <<<"$man_text" || fail "manual page lacks $option of $command"
  done
done
((failed == 0)) && echo "manual page and completion: every command and option"
exit $failed
