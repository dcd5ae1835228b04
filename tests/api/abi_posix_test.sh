#!/bin/sh
# What hosts are linked against, compared with the record of it: the library's name, its exported
# functions, and their signatures as a C compiler reads them from the header.
#
# usage: abi_posix_test.sh LIBRARY HEADER RECORD
set -eu

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# With -aux-info the compiler writes every declaration in one form, after the place where it stands.
gcc -std=c99 -x c -fsyntax-only -aux-info "$scratch/declarations" "$2"
{
  objdump -p "$1" | awk '$1 == "SONAME" { print "soname  ", $2 }'
  nm -D --defined-only "$1" | awk '{ print "export  ", $NF }' | LC_ALL=C sort
  grep -F "/* $2:" "$scratch/declarations" | sed 's|^/\*.*\*/ extern |declares |' | LC_ALL=C sort
} >"$scratch/found"

diff -u "$3" "$scratch/found" || {
  echo
  echo "The binary interface differs from its record (-), $3."
  echo "Added functions make a new minor version, anything else a new major one. If that is meant,"
  echo "change src/api/exports.map and exports.def, the record, the version in CMakeLists.txt, CHANGELOG.md."
  exit 1
}
