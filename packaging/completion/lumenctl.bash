# bash completion for lumenctl(1)

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
  local word command='' option='' root='' current=${COMP_WORDS[COMP_CWORD]} previous='' name=''
  local candidates='' position
  for ((position = 1; position < COMP_CWORD; ++position)); do
    word=${COMP_WORDS[position]}
    # bash makes a word of each '='.
    if [ "$word" = = ]; then
      name=$previous
    elif [ "$previous" = --root ] || [ "$previous $name" = '= --root' ]; then
      root=$word
    elif [[ $word == -* ]]; then
      option=$word
    elif [[ " $(_lumenctl_commands "$command") " == *" $word "* ]]; then
      command=${command:+$command }$word option=''
    fi
    previous=$word
  done
  [ "$current" != = ] || { name=$previous current='' previous='='; }

  if [ "$previous" = = ]; then
    case "$command $name" in
      'upnp settings set '*) candidates='on off' ;;
      *' --root') compopt -o dirnames ;;
    esac
  elif [ "$previous" = --root ]; then
    compopt -o dirnames
  elif [ "$previous" = --role ]; then
    candidates='external internal'
  elif [ "$previous" = --internal ] || [ "$previous" = --external ]; then
    candidates=$(_lumenctl_interfaces)
  elif [[ $current == -* ]]; then
    candidates=$(_lumenctl_options "$command")
  else
    case "$command" in
      'upnp setup') [ "$option" != --internal ] || candidates=$(_lumenctl_interfaces) ;;
      'upnp interface add' | 'upnp interface set' | 'upnp interface remove' | 'interface forget')
        candidates=$(_lumenctl_interfaces)
        ;;
      'nat close') candidates=$(_lumenctl_ports "$root") ;;
      'upnp settings set' | 'nat policy set')
        candidates=$(_lumenctl_settings "$command")
        candidates=${candidates// /= }=
        compopt -o nospace
        ;;
      *) candidates=$(_lumenctl_commands "$command") ;;
    esac
    [ -n "$candidates" ] || candidates=$(_lumenctl_options "$command")
  fi
  mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$current")
}

complete -F _lumenctl lumenctl
