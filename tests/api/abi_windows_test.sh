#!/bin/sh
# The built DLL shows a loader exactly its seven functions, undecorated and each with its
# ordinal, and that it needs nothing beside it but libusb.
#
# usage: abi_windows_test.sh DLL
set -eu

expected='1 get_last_error
2 get_progress
3 get_resetted_modules
4 list_devices
5 stop_update
6 update_ftdi_device
7 update_usb_device'

table=$(objdump -p "$1")
base=$(printf '%s\n' "$table" | sed -n 's/^Ordinal Base[^0-9]*\([0-9]*\)$/\1/p')
found=$(printf '%s\n' "$table" | sed -n '/Ordinal\/Name Pointer/,/^$/p' |
  awk -v "base=$base" -F '[][ \t]+' '/^\t/ { print $2 + base, $3 }')
[ "$found" = "$expected" ] || {
  printf 'exported:\n%s\nexpected:\n%s\n' "$found" "$expected"
  exit 1
}
needed=$(printf '%s\n' "$table" | sed -n 's/^\tDLL Name: //p' | tr '[:upper:]' '[:lower:]' | sort -u)
unexpected=$(printf '%s\n' "$needed" | grep -vx -e kernel32.dll -e msvcrt.dll -e libusb-1.0.dll) || true
[ -z "$unexpected" ] || {
  printf 'it also needs:\n%s\n' "$unexpected"
  exit 1
}
