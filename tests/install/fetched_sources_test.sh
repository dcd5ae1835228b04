#!/bin/sh
# The scripts that fetch sources and systems: a folder with other files is left as it is, a changed
# source is noticed, and nothing unsigned becomes a system.
#
# usage: fetched_sources_test.sh SOURCE_FOLDER
set -eu

scripts=$1/scripts
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() {
  echo "FAILED: $1"
  exit 1
}

mkdir -p "$scratch/home/libusb"
echo precious >"$scratch/home/letter"
mkfifo "$scratch/home/pipe"
: >"$scratch/home/libusb/libusb.h" # the mark by which a source was once recognised
ln -s home "$scratch/link"
: >"$scratch/file"
for folder in home link file; do
  ! "$scripts/get-source" libusb "$scratch/$folder" >"$scratch/log" 2>&1 || fail "$folder was accepted"
  grep -q 'holds other files\|is not a folder' "$scratch/log" || fail "$(cat "$scratch/log")"
done
[ "$(cat "$scratch/home/letter")" = precious ] || fail 'files of somebody else are gone'

if [ -d "$1/build/libusb" ]; then
  cp -R "$1/build/libusb" "$scratch/source"
  "$scripts/get-source" libusb "$scratch/source" >"$scratch/log" 2>&1 || fail "$(cat "$scratch/log")"
  echo changed >>"$scratch/source/libusb/core.c"
  ! "$scripts/get-source" libusb "$scratch/source" >"$scratch/log" 2>&1 || fail 'a changed source was accepted'
fi

. "$scripts/debian-archive.sh"
# shellcheck disable=SC2034  # make_system reads them
find_mirror() { mirror=http://mirror.invalid codename=stable keyring=; }
debootstrap() { echo "$*" >"$scratch/words"; }
chroot() { :; }
make_system amd64 "$scratch/system" apt || fail 'the stand-ins do not work'
grep -q -- '--force-check-gpg' "$scratch/words" || fail "unsigned systems are accepted: $(cat "$scratch/words")"
