#compdef lumenctl
# zsh completion for lumenctl(1)

# The commands below the command "$*".
_lumenctl_commands() {
  case "${*#help }" in
    '' | help) echo status upnp interface address nat history undo monitor service identity help ;;
    upnp) echo setup check settings interface ;;
    'upnp settings') echo show set ;;
    'upnp interface') echo list add set remove ;;
    interface) echo list forget ;;
    address | service) echo list ;;
    nat) echo list close policy ;;
    'nat policy') echo show set reset reload ;;
  esac
}

# The options of the command "$*".
_lumenctl_options() {
  case "$*" in
    '') echo --version ;;
    status) echo --watch ;;
    'upnp setup') echo --internal --external --yes --allow-missing ;;
    'upnp interface add') echo --role --disable ;;
    'upnp interface set') echo --role --enable --disable ;;
  esac
  echo --help --json --root
}

# The settings that the command "$*" takes.
_lumenctl_settings() {
  case "$*" in
    'upnp settings set') echo enabled allow-disable-external show-dummy-rule ;;
    'nat policy set') echo external-ports internal-clients max-rules max-rules-per-client ;;
  esac
}

_lumenctl_interfaces() {
  local link
  for link in /sys/class/net/*/ifindex; do
    link=${link%/ifindex}
    link=${link##*/}
    [ "$link" = lo ] || [ "$link" = '*' ] || echo "$link"
  done
}

# The open ports, if the platform of --root "$1" tells them at once.
_lumenctl_ports() {
  local port rest
  timeout 1 lumenctl ${1:+--root} ${1:+"$1"} nat list 2>/dev/null | while read -r port rest; do
    case "$port" in
      */*) echo "$port" ;;
    esac
  done
}

_lumenctl() {
  local word command='' option='' root='' current=$words[CURRENT] previous=''
  local -a candidates
  local -i position
  for ((position = 2; position < CURRENT; ++position)); do
    word=$words[position]
    if [[ $previous == --root ]]; then
      root=$word
    elif [[ $word == --root=* ]]; then
      root=${word#--root=}
    elif [[ $word == -* ]]; then
      option=$word
    elif [[ " $(_lumenctl_commands "$command") " == *" $word "* ]]; then
      command=${command:+$command }$word option=''
    fi
    previous=$word
  done

  case "$previous $current" in
    --root\ *) _directories; return ;;
    *\ --root=*) compset -P '*='; _directories; return ;;
    --role\ *) candidates=(external internal) ;;
    --internal\ * | --external\ *) candidates=($(_lumenctl_interfaces)) ;;
    *\ -*) candidates=($(_lumenctl_options "$command")) ;;
    *)
      case "$command" in
        'upnp setup') [[ $option != --internal ]] || candidates=($(_lumenctl_interfaces)) ;;
        'upnp interface add' | 'upnp interface set' | 'upnp interface remove' | 'interface forget')
          candidates=($(_lumenctl_interfaces))
          ;;
        'nat close') candidates=($(_lumenctl_ports "$root")) ;;
        'upnp settings set')
          if [[ $current == *=* ]]; then
            compset -P '*='
            candidates=(on off)
          else
            compadd -S = -- $(_lumenctl_settings "$command")
            return
          fi
          ;;
        'nat policy set')
          compadd -S = -- $(_lumenctl_settings "$command")
          return
          ;;
        *) candidates=($(_lumenctl_commands "$command")) ;;
      esac
      (( $#candidates )) || candidates=($(_lumenctl_options "$command"))
      ;;
  esac
  compadd -- $candidates
}

_lumenctl "$@"
