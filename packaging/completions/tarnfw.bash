# Completion of tarnfw(1) verbs, options and names for bash.

# Offers the names that a verb lists, one to a line; without the rights to read them there are none.
_tarnfw_names() {
  local name
  while IFS= read -r name; do
    [[ $name == "$current"* ]] && COMPREPLY+=("$(printf '%q' "$name")")
  done < <(tarnfw "$@" 2>/dev/null)
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
  if [[ $previous == --adapter ]]; then
    _tarnfw_names adapter list
    return
  fi
  position=${#words[@]}

  local verbs="setup enable disable reload clear recover status compile query profile update"
  verbs+=" adapter service country modules"
  local changing="--dry-run"
  local common="--json --quiet --verbose --help"
  local options=$common candidates=""

  case "${words[0]-}" in
    "") candidates=$verbs options="$common --version" ;;
    setup | enable | disable | reload | clear | recover | update) options="$common $changing" ;;
    status) options="$common --verify" ;;
    compile)
      options="$common --no-state --exempt"
      ((position == 1)) && _tarnfw_names profile list
      ;;
    profile)
      case "${words[1]-}" in
        "") candidates="list show create delete rename use" ;;
        show) ((position == 2)) && _tarnfw_names profile list ;;
        create) options="$common $changing" ;;
        delete | rename)
          options="$common $changing"
          ((position == 2)) && _tarnfw_names profile list
          ;;
        use)
          options="$common $changing --no-reload"
          ((position == 2)) && _tarnfw_names profile list
          ;;
      esac
      ;;
    query)
      case "${words[1]-}" in
        "") candidates="port service" ;;
        port)
          options="$common --protocol --direction --adapter"
          [[ $previous == --protocol ]] && candidates="tcp udp both"
          [[ $previous == --direction ]] && candidates="dst src"
          ;;
        service) options="$common --adapter" ;;
      esac
      ;;
    adapter)
      case "${words[1]-}" in
        "") candidates="list rename" ;;
        rename)
          options="$common $changing --reload"
          ((position == 2)) && _tarnfw_names adapter list
          ;;
      esac
      ;;
    service)
      case "${words[1]-}" in
        "") candidates="list reserve remove" ;;
        reserve) options="$common $changing --adapter --allow --deny --reload" ;;
        remove) options="$common $changing" ;;
      esac
      ;;
    country)
      case "${words[1]-}" in
        "") candidates="list ranges" ;;
        ranges)
          options="$common --ipv6"
          ((position == 2)) && _tarnfw_names country list
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

  if [[ $current == -* ]]; then
    candidates=$options
    COMPREPLY=()
  fi
  local candidate
  for candidate in $candidates; do
    [[ $candidate == "$current"* ]] && COMPREPLY+=("$candidate")
  done
} && complete -F _tarnfw tarnfw
