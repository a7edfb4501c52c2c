# bash completion for korvan: subcommands and options, and the names on the bus (nodes,
# topics, types, services, parameters, applications), which the tool itself is asked for.
# Installed as share/bash-completion/completions/korvan.

# Runs the tool being completed with "$@"; its standard output, nothing on failure.
_korvan_ask() {
  command "${_korvan_tool:-korvan}" "$@" --timeout 1 2>/dev/null
}

# First column of a table the tool prints (node list, app list, param list), without the header.
_korvan_first_column() {
  _korvan_ask "$@" | awk 'NR > 1 { print $1 }'
}

_korvan() {
  local cur=${COMP_WORDS[COMP_CWORD]}
  local _korvan_tool=${COMP_WORDS[0]}
  local group="" command="" i word
  local -a positional=()
  # Options that take a value: the word after them is not a positional argument.
  local valued=" --timeout -n --count --field -r --rate -w --window -d --duration -o --output --compression --split-size --split-duration --topics -s --start --remap --wait --port --bind "
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    if [[ $valued == *" $word "* ]]; then
      ((i++))
      continue
    fi
    [[ $word == -* ]] && continue
    if [[ -z $group ]]; then
      group=$word
    elif [[ -z $command && $group != topo && $group != doctor && $group != info && $group != web ]]; then
      command=$word
    else
      positional+=("$word")
    fi
  done

  # The value of an option: nothing sensible to offer but files for none of them.
  if [[ $valued == *" ${COMP_WORDS[COMP_CWORD - 1]} "* ]]; then
    COMPREPLY=()
    return
  fi

  local options="-h --help"
  local words=""
  case "$group" in
    "")
      words="node topic service param app topo doctor info bag web"
      ;;
    node)
      case "$command" in
        "") words="list info" ;;
        list) options="$options --timeout --json" ;;
        info)
          options="$options --timeout --json"
          ((${#positional[@]} == 0)) && words=$(_korvan_first_column node list)
          ;;
      esac
      ;;
    topic)
      case "$command" in
        "") words="list info echo hz bw delay pub" ;;
        list) options="$options -t --types --timeout --json" ;;
        info | echo | hz | bw | delay)
          case "$command" in
            info) options="$options --timeout --json" ;;
            echo) options="$options -n --count --field --timeout --json" ;;
            *) options="$options -w --window -d --duration --timeout --json" ;;
          esac
          ((${#positional[@]} == 0)) && words=$(_korvan_ask topic list)
          ;;
        pub)
          options="$options -r --rate -n --count --timeout"
          if ((${#positional[@]} == 0)); then
            words=$(_korvan_ask topic list)
          elif ((${#positional[@]} == 1)); then
            # The types already on that topic.
            words=$(_korvan_ask topic list -t | awk -v topic="${positional[0]}" \
              '$1 == topic { sub(/^[^[]*\[/, ""); sub(/\]$/, ""); gsub(/, /, " "); print }')
          fi
          ;;
      esac
      ;;
    service)
      case "$command" in
        "") words="list call" ;;
        list) options="$options -t --types --timeout --json" ;;
        call)
          options="$options --timeout --json"
          ((${#positional[@]} == 0)) && words=$(_korvan_ask service list)
          ;;
      esac
      ;;
    param)
      case "$command" in
        "") words="list get set" ;;
        list | get | set)
          options="$options --timeout"
          [[ $command != set ]] && options="$options --json"
          if ((${#positional[@]} == 0)); then
            words=$(_korvan_first_column node list)
          elif ((${#positional[@]} == 1)) && [[ $command != list ]]; then
            words=$(_korvan_first_column param list "${positional[0]}")
          fi
          ;;
      esac
      ;;
    app)
      case "$command" in
        "") words="list watch" ;;
        list) options="$options --timeout --json" ;;
        watch)
          options="$options -n --count --timeout --json"
          ((${#positional[@]} == 0)) && words=$(_korvan_first_column app list)
          ;;
      esac
      ;;
    bag)
      case "$command" in
        "") words="record play info recover" ;;
        record)
          options="$options -a --all -o --output --compression --split-size --split-duration -d --duration"
          words=$(_korvan_ask topic list)
          ;;
        play)
          options="$options -r --rate -l --loop --topics -s --start --remap --wait"
          ((${#positional[@]} == 0)) && words=$(compgen -f -X '!*.mcap' -- "$cur"; compgen -d -- "$cur")
          ;;
        info | recover)
          [[ $command == info ]] && options="$options --json --summary-only"
          [[ $command == recover ]] && options="$options --compression"
          words=$(compgen -f -- "$cur")
          ;;
      esac
      ;;
    web) options="$options --port --bind -q --quiet" ;;
    topo) options="$options --dot --timeout --json" ;;
    doctor) options="$options --timeout --json" ;;
    info) options="$options --json" ;;
  esac

  if [[ $cur == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
  else
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$cur")
  fi
}

complete -F _korvan korvan
