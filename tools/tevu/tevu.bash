# bash completion for tevu, the tag tool of the tagged volumes.
# Installed as <datadir>/bash-completion/completions/tevu.
#
# Files and directories are offered one per candidate, whatever their names
# hold (blanks, brackets); tag names come from 'tevu tags', which reads the
# databases without a write lock.

# Offers the files and directories that begin with the word being completed.
_tevu_files() {
  local IFS=$'\n'
  COMPREPLY+=($(compgen -f -- "$cur"))
  compopt -o filenames 2>/dev/null
}

# Offers the words of `$1` (lines) that begin with `$2`, each escaped for
# the shell as it is inserted (a name with a blank or a quote stays one
# word) and followed by `$3`.
_tevu_offer() {
  local prefix=$2 suffix=${3-} word quoted
  local -a list
  mapfile -t list <<<"$1"
  for word in "${list[@]}"; do
    [[ -n $word ]] || continue
    printf -v quoted '%q' "$word"
    [[ $word == "$prefix"* || $quoted == "$prefix"* ]] && COMPREPLY+=("$quoted$suffix")
  done
  [[ -n $suffix ]] && compopt -o nospace 2>/dev/null
}

# Offers the tag names that begin with `$1` (default: the word being
# completed), each followed by `$2`.
_tevu_tags() {
  _tevu_offer "$("${words[0]}" tags 2>/dev/null | cut -f1)" "${1-$cur}" "${2-}"
}

# Offers the names of the views.
_tevu_views() {
  _tevu_offer "$("${words[0]}" view list 2>/dev/null)" "$cur"
}

_tevu() {
  local cur prev words cword
  if declare -F _init_completion >/dev/null 2>&1; then
    _init_completion -n =: || return
  else
    cur=${COMP_WORDS[COMP_CWORD]}
    prev=${COMP_WORDS[COMP_CWORD-1]}
    words=("${COMP_WORDS[@]}")
    cword=$COMP_CWORD
  fi
  COMPREPLY=()

  local commands="set get list del find tags values rename import export deleted moved cleanup watch repair view limits"
  if ((cword == 1)); then
    COMPREPLY=($(compgen -W "$commands --help --version" -- "$cur"))
    return
  fi

  local command=${words[1]} options=""
  case $command in
    set) options="-t --tag -r --recursive -n --dry-run -0 --null -m --mount --strip-backslashes" ;;
    get | list) options="-m --mount -0 --null --json" ;;
    del) options="-t --tag -g --glob -m --mount --all -n --dry-run -0 --null" ;;
    find) options="-l --long --first --count --under -0 --null --json" ;;
    tags | values) options="--json -0 --null" ;;
    rename) options="--merge --value -n --dry-run -0 --null" ;;
    import) options="-0 --null -q --quiet -n --dry-run --json --strip-backslashes" ;;
    export) options="--json -0 --null" ;;
    deleted) options="-n --dry-run -0 --null" ;;
    moved) options="-n --dry-run -0 --null --before" ;;
    cleanup) options="-n --dry-run -0 --null --force" ;;
    watch) options="-v --verbose --grace" ;;
    repair) options="-n --dry-run -0 --null" ;;
    view)
      if ((cword == 2)); then
        COMPREPLY=($(compgen -W "create cond group events path show list delete --help" -- "$cur"))
        return
      fi
      case ${words[2]} in
        events) ((cword == 4)) && { COMPREPLY=($(compgen -W "on off" -- "$cur")); return; } ;;
        path | list) options="-0 --null" ;;
      esac
      # The view's name, for every subcommand that takes one.
      if ((cword == 3)) && [[ ${words[2]} != list && ${words[2]} != create && $cur != -* ]]; then
        _tevu_views
        return
      fi
      ;;
    help)
      COMPREPLY=($(compgen -W "$commands" -- "$cur"))
      return
      ;;
  esac

  case $prev in
    -t | --tag)
      # set -t NAME=VALUE: the name; del -t NAME: the name.
      if [[ $command == set ]]; then
        [[ $cur == *=* ]] || _tevu_tags "$cur" "="
      else
        _tevu_tags
      fi
      return
      ;;
    -g | --glob | --grace) return ;;  # a pattern, seconds: nothing to offer
    --under) _tevu_files; return ;;
  esac
  if [[ $cur == -* ]]; then
    COMPREPLY=($(compgen -W "$options --help" -- "$cur"))
    return
  fi

  # The operands before the one being completed, options left out.
  local i operand=0 seen_file=0 all=0
  for ((i = 2; i < cword; i++)); do
    case ${words[i]} in
      --all) all=1 ;;
      -t | --tag | -g | --glob | --under | --grace) ((i++)) ;;
      -*) ;;
      *)
        ((operand++))
        [[ ${words[i]} == */* || -e ${words[i]} ]] && seen_file=1
        ;;
    esac
  done
  case $command in
    find)
      # The operands are one condition: a name (or "not") first and after
      # each keyword, "and" or "or" after a term.
      local before=${words[cword - 1]}
      if ((operand == 0)) || [[ ${before,,} == and || ${before,,} == or || ${before,,} == not ]]; then
        _tevu_tags
        COMPREPLY+=($(compgen -W "not" -- "$cur"))
      else
        COMPREPLY+=($(compgen -W "and or" -- "$cur"))
      fi
      ;;
    rename) ((operand < 2)) && _tevu_tags ;;
    values) if ((operand == 0)); then _tevu_tags; else _tevu_files; fi ;;
    del) if ((all)); then _tevu_tags; else _tevu_files; fi ;;
    get)
      # The files come first, then the names.
      ((seen_file)) && _tevu_tags
      _tevu_files
      ;;
    set | list | deleted | moved | cleanup | export | tags) _tevu_files ;;
    watch | repair)
      local IFS=$'\n'
      COMPREPLY+=($(compgen -d -- "$cur"))
      compopt -o filenames 2>/dev/null
      ;;
  esac
}
complete -F _tevu tevu
