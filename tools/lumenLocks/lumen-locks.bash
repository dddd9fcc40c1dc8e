# shellcheck shell=bash
# lumen-locks.bash -- what bash completes after lumen-locks.

# Stores the place of FILE, or of where it goes, in the variable `at`.
_lumen_locks_file() {
  for ((at = 2; at < COMP_CWORD; at++)); do
    case ${COMP_WORDS[at]} in
      -w | --wait | -E | --conflict-exit-code) ((at++)) ;;
      -*) ;;
      *) break ;;
    esac
  done
}

_lumen_locks() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} options at
  COMPREPLY=()
  if ((COMP_CWORD == 1)); then
    mapfile -t COMPREPLY < <(compgen -W 'show run clean --help --version' -- "$word")
    return
  fi
  case ${COMP_WORDS[1]} in
    show) options='--json --help' ;;
    run) options='--shared --wait --conflict-exit-code --verbose --help' ;;
    clean) options='--help' ;;
    *) return ;;
  esac
  _lumen_locks_file
  if ((COMP_CWORD > at)); then
    [ "${COMP_WORDS[1]}" = run ] || return
    if declare -F _command_offset >/dev/null; then
      _command_offset $((at + 1))
    elif ((COMP_CWORD == at + 1)); then
      mapfile -t COMPREPLY < <(compgen -c -- "$word" | sort -u)
    else
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
    fi
  elif [[ $before =~ ^(-w|--wait|-E|--conflict-exit-code)$ ]]; then
    return
  elif [[ $word == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
  else
    # A lock may be there without its file.
    mapfile -t COMPREPLY < <(compgen -f -- "$word" | sed 's/\.lck$//' | sort -u)
    compopt -o filenames 2>/dev/null
  fi
}
complete -F _lumen_locks lumen-locks
