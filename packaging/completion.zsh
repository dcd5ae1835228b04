#compdef firmware-updater
# Completion of firmware-updater for zsh. The tool itself lists the candidates, for a word without its quotes.
local -a found=("${(@f)$($words[1] complete "${(@)words[2,CURRENT-1]}" "${(Q)PREFIX}" 2>/dev/null)}")
compset -P '--*='
case $found[1] in
  '') ;;
  :files) _files ;;
  :folders) _files -/ ;;
  :commands) _command_names -e ;;
  *)
    found=("${(@)found//\\/\\\\}")
    found=("${(@)${(@)found//:/\\:}/$'\t'/:}") && _describe firmware-updater found ;;
esac
