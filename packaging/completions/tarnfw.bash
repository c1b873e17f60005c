# Completion of tarnfw(1) verbs, options and names for bash.

_tarnfw_names() {
  # Names come one to a line; without the rights to read them there are none to offer.
  tarnfw "$@" 2>/dev/null
}

_tarnfw() {
  local current previous word index position
  local -a words=()
  current=${COMP_WORDS[COMP_CWORD]}
  previous=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()

  for ((index = 1; index < COMP_CWORD; index++)); do
    word=${COMP_WORDS[index]}
    [[ $word == -* ]] || words+=("$word")
  done
  [[ $previous == --exempt ]] && return
  position=${#words[@]}

  local verbs="setup enable disable reload clear recover status compile profile update adapter service
    country modules"
  local changing="--dry-run"
  local common="--json --quiet --verbose --help"
  local options=$common candidates=""

  case "${words[0]-}" in
    "") candidates=$verbs options="$common --version" ;;
    setup | enable | disable | reload | clear | recover | update) options="$common $changing" ;;
    status) options="$common --verify" ;;
    compile)
      options="$common --no-state --exempt"
      ((position == 1)) && candidates=$(_tarnfw_names profile list)
      ;;
    profile)
      case "${words[1]-}" in
        "") candidates="list show create delete rename use" ;;
        show) ((position == 2)) && candidates=$(_tarnfw_names profile list) ;;
        create) options="$common $changing" ;;
        delete | rename)
          options="$common $changing"
          ((position == 2)) && candidates=$(_tarnfw_names profile list)
          ;;
        use)
          options="$common $changing --no-reload"
          ((position == 2)) && candidates=$(_tarnfw_names profile list)
          ;;
      esac
      ;;
    adapter | service) ((position == 1)) && candidates="list" ;;
    country)
      case "${words[1]-}" in
        "") candidates="list ranges" ;;
        ranges)
          options="$common --ipv6"
          ((position == 2)) && candidates=$(_tarnfw_names country list)
          ;;
      esac
      ;;
    modules)
      case "$position" in
        1) candidates="load unload" ;;
        2) candidates="core nat" ;;
      esac
      options="$common $changing"
      ;;
  esac

  [[ $current == -* ]] && candidates=$options
  local IFS=$'\n'
  [[ $candidates == *$'\n'* ]] || IFS=$' \t\n'
  mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$current")
} && complete -F _tarnfw tarnfw
