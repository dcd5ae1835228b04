# Completion of firmware-updater for bash. The tool itself lists the candidates, among them names that
# devices give themselves: quoted, nothing in them is run.
_firmware_updater() {
  local current=${COMP_WORDS[COMP_CWORD]} found
  [[ $current != = ]] || current=
  mapfile -t found < <("$1" complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null | cut -f 1)
  case ${found[0]} in
    :files) mapfile -t found < <(compgen -f -- "$current") ;;&
    :folders) mapfile -t found < <(compgen -d -- "$current") ;;&
    :files | :folders) compopt -o filenames 2>/dev/null ;;
    :commands) mapfile -t found < <(compgen -c -- "$current") ;;
    ?*) mapfile -t found < <(printf '%q\n' "${found[@]}") ;;
  esac
  COMPREPLY=("${found[@]}")
}
complete -F _firmware_updater firmware-updater
