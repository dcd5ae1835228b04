# Completion of firmware-updater for bash. The tool itself lists the candidates, among them names that
# devices give themselves: quoted, nothing in them is run.
_firmware_updater() {
  local current=${COMP_WORDS[COMP_CWORD]} plain found
  case $current in
    =) current='' plain='' ;;
    [\'\"]*) plain=${current:1} ;;
    *)
      # shellcheck disable=SC2162 # it takes the backslashes away
      IFS= read plain <<<"$current" ;;
  esac
  mapfile -t found < <("$1" complete "${COMP_WORDS[@]:1:COMP_CWORD-1}" "$plain" 2>/dev/null | cut -f 1)
  case ${found[0]} in
    :files) mapfile -t found < <(compgen -f -- "$current") ;;&
    :folders) mapfile -t found < <(compgen -d -- "$current") ;;&
    :files | :folders) compopt -o filenames 2>/dev/null ;;
    :commands) mapfile -t found < <(compgen -c -- "$current") ;;
    ?*)
      case $current in # between quotes only what needs no others
        [\'\"]*) mapfile -t found < <(printf '%s\n' "${found[@]}" | grep -x '[[:alnum:] ._/:+-]*') ;;
        *) mapfile -t found < <(printf '%q\n' "${found[@]}") ;;
      esac ;;
  esac
  COMPREPLY=("${found[@]}")
}
complete -F _firmware_updater firmware-updater
