# bash completion for tevu, the tag tool of the tagged volumes.
# Installed as <datadir>/bash-completion/completions/tevu.

_tevu() {
  local cur prev words cword
  if declare -F _init_completion >/dev/null 2>&1; then
    _init_completion || return
  else
    cur=${COMP_WORDS[COMP_CWORD]}
    prev=${COMP_WORDS[COMP_CWORD-1]}
    words=("${COMP_WORDS[@]}")
    cword=$COMP_CWORD
  fi

  local commands="set get list del find rename import export deleted moved cleanup view limits"
  if ((cword == 1)); then
    COMPREPLY=($(compgen -W "$commands --help --version" -- "$cur"))
    return
  fi

  local command=${words[1]} options=""
  case $command in
    set) options="-t --tag -r --recursive -n --dry-run -0 --null -m --mount --strip-backslashes" ;;
    get | list) options="-m --mount -0 --null" ;;
    del) options="-t --tag -g --glob -m --mount --all" ;;
    find) options="-l --long --first -0 --null" ;;
    rename) options="--strip-backslashes" ;;
    import) options="-0 --null -q --quiet --strip-backslashes" ;;
    export) options="--json -0 --null" ;;
    cleanup) options="-n --dry-run -0 --null" ;;
    view)
      if ((cword == 2)); then
        COMPREPLY=($(compgen -W "create cond group events path delete --help" -- "$cur"))
        return
      fi
      case ${words[2]} in
        events) ((cword == 4)) && { COMPREPLY=($(compgen -W "on off" -- "$cur")); return; } ;;
        path) options="-0 --null" ;;
      esac
      ;;
    help)
      COMPREPLY=($(compgen -W "$commands" -- "$cur"))
      return
      ;;
  esac

  case $prev in
    -t | --tag | -g | --glob) return ;;  # a tag or a pattern: nothing to offer
  esac
  if [[ $cur == -* ]]; then
    COMPREPLY=($(compgen -W "$options --help" -- "$cur"))
    return
  fi
  case $command in
    set | get | list | del | deleted | moved | cleanup | export)
      COMPREPLY=($(compgen -f -- "$cur"))
      compopt -o filenames 2>/dev/null
      ;;
  esac
}
complete -F _tevu tevu
