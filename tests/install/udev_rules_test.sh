#!/bin/sh
# Runs udev on our rules with mock devices of a mock machine. A further rule stands in for the system's
# own, which turns the tag into access. Needs a mount namespace, so that the machine's own rules are
# neither read nor changed; without one it is skipped (77).
#
# usage: udev_rules_test.sh PACKAGING_FOLDER
set -eu

if [ "${2:-}" != inside ]; then
  become_root=
  [ "$(id -u)" = 0 ] || become_root=--map-root-user
  unshare $become_root --mount true 2>/dev/null || exit 77
  exec unshare $become_root --mount "$0" "$1" inside
fi

machine=$(mktemp)
trap 'rm -f "$machine"' EXIT
port=0
for ids in 03eb:2404 0403:6001 0403:6015 1234:5678; do
  port=$((port + 1))
  cat >>"$machine" <<END
P: /devices/pci0000:00/0000:00:14.0/usb1/1-$port
N: bus/usb/001/00$port
E: DEVTYPE=usb_device
E: DEVNAME=/dev/bus/usb/001/00$port
E: SUBSYSTEM=usb
A: idVendor=${ids%:*}\\n
A: idProduct=${ids#*:}\\n

END
done
module=1 old_adapter=2 new_adapter=3 stranger=4

# Hides the rules of this machine.
for folder in /etc/udev /usr/lib/udev /run; do
  [ ! -d "$folder" ] || mount -t tmpfs none "$folder"
done
rules=/run/udev/rules.d
mkdir -p "$rules"
echo 'TAG=="uaccess", ENV{TEST_ACCESS}="1"' >"$rules/73-seat-late.rules"

failed=0
properties() { # properties PORT: those that matter, and what udev complains of, on one line
  umockdev-run --device "$machine" -- \
    udevadm test "/sys/devices/pci0000:00/0000:00:14.0/usb1/1-$1" 2>&1 |
    sed -n -E '/^(TEST_ACCESS|ID_MM_DEVICE_IGNORE)=/p; /\.rules:[0-9]+.*([Ii]nvalid|[Uu]nknown|[Ii]gnoring)/p' |
    LC_ALL=C sort | tr '\n' ' '
}
expect() { # expect PROPERTIES PORT...
  wanted=$1
  shift
  for number in "$@"; do
    found=$(properties "$number")
    [ "$found" = "$wanted" ] && continue
    echo "FAILED: with $(ls "$rules"), port $number has '$found', not '$wanted'"
    failed=1
  done
}
usable='ID_MM_DEVICE_IGNORE=1 TEST_ACCESS=1 '

cp "$1/70-firmware-updater.rules" "$rules"
expect "$usable" $module
expect '' $old_adapter $new_adapter $stranger
cp "$1/70-firmware-updater-ftdi.rules" "$rules"
expect "$usable" $module $old_adapter $new_adapter
expect '' $stranger

# The advice to administrators in the rule file is a rule as well; here with a group that exists.
advice=$rules/71-firmware-updater-local.rules
sed -n 's/^#   \(SUBSYSTEM.*\)"firmware"$/\1"root"/p' "$1/70-firmware-updater.rules" >"$advice"
[ "$(wc -l <"$advice")" = 2 ] || failed=1
expect "$usable" $module $old_adapter
exit "$failed"
