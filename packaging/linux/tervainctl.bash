# bash completion for tervainctl.
_tervainctl() {
  local cur prev words cword
  if declare -F _init_completion >/dev/null; then
    _init_completion || return
  else
    cur="${COMP_WORDS[COMP_CWORD]}"
    prev="${COMP_WORDS[COMP_CWORD-1]}"
    words=("${COMP_WORDS[@]}")
    cword=$COMP_CWORD
  fi
  local subcommands="ping call exec cp screenshot tree at press set focus click move drag scroll mouse type key cursor launch events"
  case "$prev" in
    -c|--connect)
      local guests="${XDG_CONFIG_HOME:-$HOME/.config}/tervain/guests" names=""
      [[ -r "$guests" ]] && names="$(awk '!/^[[:space:]]*(#|$)/ {print $1}' "$guests")"
      mapfile -t COMPREPLY < <(compgen -W "$names unix: vsock: fd:" -- "$cur")
      return ;;
    --cwd|--env|--timeout)
      return ;;
    -o|--output|--dir)
      mapfile -t COMPREPLY < <(compgen -f -- "$cur")
      return ;;
  esac
  local i sub=""
  for ((i = 1; i < cword; i++)); do
    case "${words[i]}" in
      -c|--connect) ((i++)) ;;
      -*) ;;
      *) sub="${words[i]}"; break ;;
    esac
  done
  if [[ -z "$sub" ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$subcommands --connect --help --version" -- "$cur")
    return
  fi
  local options="--help --connect"
  case "$sub" in
    ping|cursor|at) options+=" --json" ;;
    tree) options+=" --json --pid --depth" ;;
    press) options+=" --json --at" ;;
    set|focus) options+=" --at" ;;
    click) options+=" --button --count --modifiers" ;;
    mouse) options+=" --button --modifiers down up" ;;
    key) options+=" down up" ;;
    drag) options+=" --from --modifiers" ;;
    scroll) options+=" --dx --dy --modifiers" ;;
    screenshot) options+=" --json --display -o --output" ;;
    events) options+=" --json --dir --max-bytes --truncate" ;;
    exec) options+=" --env --cwd --timeout" ;;
    cp) mapfile -t COMPREPLY < <(compgen -f -- "$cur"); return ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
}
complete -F _tervainctl tervainctl
