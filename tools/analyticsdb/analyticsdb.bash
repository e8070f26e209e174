# bash completion for analyticsdb: commands, options, and device MACs and host names from the
# database named by --db (read-only; nothing is completed when the database cannot be read).
_analyticsdb_devices() {
  local db=$1
  local -a args=(devices --json)
  [ -n "$db" ] && args+=(--db "$db")
  analyticsdb "${args[@]}" 2>/dev/null |
    sed -n 's/^ *"\(mac\|host\)": "\([^"]\+\)".*/\2/p'
}

_analyticsdb() {
  local cur prev words cword
  _init_completion || return
  local commands="init devices series top plot export simulate demo"
  local global="--db --wait --force --watch --count --verbose --help --version"
  local command="" db="" i
  for ((i = 1; i < cword; i++)); do
    case ${words[i]} in
    --db) db=${words[i + 1]} ;;
    init | devices | series | top | plot | export | simulate | demo)
      [ -z "$command" ] && command=${words[i]} ;;
    esac
  done
  case $prev in
  --db | --out)
    _filedir
    return ;;
  --stats-dir)
    _filedir -d
    return ;;
  --last)
    COMPREPLY=($(compgen -W "5m 15m 1h 6h 24h 2d 7d" -- "$cur"))
    return ;;
  --sort)
    COMPREPLY=($(compgen -W "total rx tx rssi name" -- "$cur"))
    return ;;
  --format)
    COMPREPLY=($(compgen -W "openmetrics json" -- "$cur"))
    return ;;
  --wait | --watch | --count | --width | --height | --from | --to | --devices | --days | --start)
    return ;;
  esac
  local span="--last --from --to"
  case $command in
  "") COMPREPLY=($(compgen -W "$commands $global" -- "$cur")) ;;
  devices) COMPREPLY=($(compgen -W "--json $global" -- "$cur")) ;;
  series | plot)
    if [[ $cur == -* ]]; then
      local options="--rssi --rx --tx --csv --json --width --ascii"
      [ "$command" = plot ] && options="--out --width --height"
      COMPREPLY=($(compgen -W "$options $span $global" -- "$cur"))
    else
      local IFS=$'\n'
      COMPREPLY=($(compgen -W "$(_analyticsdb_devices "$db")" -- "$cur"))
    fi ;;
  top) COMPREPLY=($(compgen -W "--sort --json $span $global" -- "$cur")) ;;
  export) COMPREPLY=($(compgen -W "--format --out --stats-dir $global" -- "$cur")) ;;
  simulate) COMPREPLY=($(compgen -W "--devices --days --contend --start $global" -- "$cur")) ;;
  *) COMPREPLY=($(compgen -W "$global" -- "$cur")) ;;
  esac
}
complete -F _analyticsdb analyticsdb
