# shellcheck shell=bash
# codeseal.bash -- what bash completes after codeseal.

_codeseal() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} options
  COMPREPLY=()
  if ((COMP_CWORD == 1)); then
    mapfile -t COMPREPLY < <(compgen -W 'sign verify show remove --help --version' -- "$word")
    return
  fi
  case ${COMP_WORDS[1]} in
    sign) options='--key --cert --chain --identifier --help' ;;
    verify) options='--anchors --identifier --json --help' ;;
    show) options='--json --help' ;;
    remove) options='--help' ;;
    *) return ;;
  esac
  if [ "$before" = --identifier ]; then
    return
  elif [[ $word == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
    compopt -o filenames 2>/dev/null
  fi
}
complete -F _codeseal codeseal
