#!/usr/bin/env bash
# The Windows packages under Wine: the tool updates a simulated device from the unpacked zip; the installer
# puts it on PATH, upgrades it, refuses an older version, and uninstalls it without a trace.
#
# usage: msi_test.sh ZIP     its MSI lies beside it
set -euo pipefail
source=$(cd "$(dirname "$0")/../.." && pwd)
zip=$(realpath "$1")
home=${TAVO_WINE_HOME:-${XDG_CACHE_HOME:-$HOME/.cache}/tavo-wine}
installed="$home/prefix64/drive_c/Program Files/FirmwareUpdater"
work=$(mktemp -d)
trap '{ uninstall old.msi; uninstall new.msi; } >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
cd "$work"

fail() {
  echo "FAILED: $1"
  exit 1
}
wine() { timeout 300 "$source/scripts/wine" 64 "$@"; }
install() { wine msiexec /i "$1" /qn; }
uninstall() { wine msiexec /x "$1" /qn; }
versions() { # of the installed programs, as Windows lists them
  wine reg query 'HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall' /s |
    tr -d '\r' | sed -n 's/^ *DisplayVersion *REG_SZ *//p'
}
environment='HKLM\System\CurrentControlSet\Control\Session Manager\Environment'
path() { wine reg query "$environment" /v PATH | tr -d '\r' | sed -n 's/^ *PATH *REG_EXPAND_SZ *//p'; }
in_path() { path | grep -qF 'C:\Program Files\FirmwareUpdater\'; }
update() ( # update FOLDER: with the tool in the folder, or else the one on PATH
  cd "$1"
  wine firmware-updater.exe pack --family plain --raw image.bin -o firmware.hex >/dev/null
  wine firmware-updater.exe simulate --state device -- firmware-updater update firmware.hex \
    >console.txt 2>&1 || fail "update: $(cat console.txt)"
  cmp image.bin device/flash.bin
  rm -r image.bin firmware.hex device console.txt
)

python3 -m zipfile -e "$zip" .
mv FirmwareUpdater-* unpacked
update unpacked
echo 'zip: runs where it is unpacked'

old=$(sed -n 's/^FirmwareUpdater \([0-9.]*\) .*/\1/p' unpacked/README.txt)
new=99.0.0
cp "${zip%.zip}.msi" old.msi
mv unpacked/docs/tour.md unpacked/docs/newer.md
SOURCE_DATE_EPOCH=1 "$source/packaging/make-msi" unpacked $new new.msi

path_before=$(path)
install old.msi
[ "$(versions)" = "$old" ] && in_path && [ -f "$installed/docs/tour.md" ] || fail 'it is not installed'
case $(wine firmware-updater.exe --version) in *"$old"*) ;; *) fail 'another version runs' ;; esac
update .
echo "msi: $old is installed, and updates a device from PATH"

install new.msi
[ "$(versions)" = $new ] && in_path && [ -f "$installed/docs/newer.md" ] && [ ! -e "$installed/docs/tour.md" ] ||
  fail 'it is not upgraded'
update .
! install old.msi || fail 'a newer version was replaced by an older one'
[ "$(versions)" = $new ] || fail 'the refused version has changed something'
echo "msi: $new has replaced it, and $old is refused"

uninstall new.msi
[ -z "$(versions)" ] && ! in_path && [ ! -e "$installed" ] || fail 'something is left'
wine reg add "$environment" /v PATH /t REG_EXPAND_SZ /d "$path_before" /f >/dev/null  # Wine leaves semicolons
echo 'msi: nothing is left'
