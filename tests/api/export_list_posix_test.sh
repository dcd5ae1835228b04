#!/bin/sh
# What the built library shows to a linker: its name and exactly its seven functions.
#
# usage: export_list_test.sh LIBRARY
set -eu

expected='get_last_error
get_progress
get_resetted_modules
list_devices
stop_update
update_ftdi_device
update_usb_device'

found=$(nm -D --defined-only "$1" | awk '{ print $NF }' | LC_ALL=C sort)
[ "$found" = "$expected" ] || {
  printf 'exported:\n%s\nexpected:\n%s\n' "$found" "$expected"
  exit 1
}
objdump -p "$1" | grep -Eq '^ *SONAME +libFirmwareUpdater\.so\.1$' || {
  objdump -p "$1" | grep SONAME
  exit 1
}
