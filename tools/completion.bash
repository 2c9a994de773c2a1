# bash completion for the installer tools: one table of options, and what follows them.
_installer_tools() {
  local tool=${1##*/} word=$2 before=$3 number
  local -A options=(
    [installer-check]='-strict -list'
    [installer-new]='--help'
    [installer-pack]='--help'
    [installer-preview]='-manifest -round-trip -keep --'
  )
  compopt -o filenames
  case $tool:$before in
  installer-preview:-manifest) mapfile -t COMPREPLY < <(compgen -f -- "$word"); return ;;
  installer-preview:-keep) mapfile -t COMPREPLY < <(compgen -d -- "$word"); return ;;
  esac
  if [[ $tool == installer-preview ]]; then
    # The first word that is neither an option nor its value begins the command.
    for ((number = 1; number < COMP_CWORD; ++number)); do
      case ${COMP_WORDS[number]} in
      -manifest | -keep) ((++number)) ;;
      -round-trip) ;;
      --) ((++number)); break ;;
      *) break ;;
      esac
    done
    if ((number < COMP_CWORD)); then
      _command_offset "$number"
      return
    fi
  fi
  if [[ $word == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "${options[$tool]}" -- "$word")
  elif [[ $tool == installer-preview ]]; then
    mapfile -t COMPREPLY < <(compgen -c -- "$word"; compgen -f -- "$word")
  elif [[ $tool == installer-pack ]] && ((COMP_CWORD > 1)); then
    mapfile -t COMPREPLY < <(compgen -f -X '!*.run' -- "$word"; compgen -d -- "$word")
  else
    mapfile -t COMPREPLY < <(compgen -d -- "$word")
  fi
}
complete -F _installer_tools installer-check installer-new installer-pack installer-preview
