#!/bin/sh
# Installs the project into a scratch folder, moves that, builds the example host against it with CMake
# and with pkg-config, and updates a simulated device with each, with the installed tool's help.
#
# usage: install_test.sh BUILD_FOLDER SOURCE_FOLDER VERSION
set -eu

build=$1
source=$2
version=$3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() {
  echo "FAILED: $1"
  exit 1
}

cmake --install "$build" --prefix "$scratch/first" >"$scratch/log" || fail "$(cat "$scratch/log")"
prefix=$scratch/moved
mv "$scratch/first" "$prefix"
# Other programs find these by name alone and report nothing when they are missing.
for file in share/man/man1/firmware-updater.1.gz share/bash-completion/completions/firmware-updater \
  share/zsh/site-functions/_firmware-updater lib/udev/rules.d/70-firmware-updater.rules; do
  [ -s "$prefix/$file" ] || fail "$file is missing or empty"
done
for page in "$prefix"/share/man/man1/*.gz; do
  zcat "$page" | groff -man -Tascii -ww >/dev/null 2>"$scratch/log"
  [ ! -s "$scratch/log" ] || fail "$page: $(cat "$scratch/log")"
done
zcat "$prefix/share/man/man1/firmware-updater.1.gz" | grep -q '^.SH EXIT STATUS' || fail 'no exit status'
zcat "$prefix/share/man/man1/firmware-updater-update.1.gz" | grep -qF 'dry\-run' || fail 'no options'
library_folder=$(dirname "$(find "$prefix" -name libFirmwareUpdater.so)")
export LD_LIBRARY_PATH="$library_folder" PKG_CONFIG_PATH="$library_folder/pkgconfig"

"$prefix/bin/firmware-updater" --version | grep -F "$version" || fail 'version of the tool'
[ "$(pkg-config --modversion firmware-updater)" = "$version" ] || fail 'version in the .pc file'

cmake -S "$source/tests/install/consumer" -B "$scratch/consumer" -DCMAKE_PREFIX_PATH="$prefix" \
  -DTAVO_EXPECTED_VERSION="$version" -DTAVO_EXAMPLE="$source/examples/update_host.c" \
  >"$scratch/log" || fail "$(cat "$scratch/log")"
cmake --build "$scratch/consumer" >"$scratch/log" || fail "$(cat "$scratch/log")"
# shellcheck disable=SC2046  # flags are words
cc -std=c99 -Werror $(pkg-config --cflags firmware-updater) -o "$scratch/plain_host" \
  "$source/examples/update_host.c" $(pkg-config --libs firmware-updater)

"$prefix/bin/firmware-updater" pack --family plain -o "$scratch/firmware.hex" >"$scratch/log"
for host in "$scratch/consumer/host" "$scratch/plain_host"; do
  objdump -p "$host" | grep -q "NEEDED *libFirmwareUpdater.so.${version%%.*}\$" || fail "$host is not linked with it"
  "$prefix/bin/firmware-updater" simulate -- "$host" usb '' "$scratch/firmware.hex" >"$scratch/log" ||
    fail "$(cat "$scratch/log")"
  echo "$host has updated a device"
done
