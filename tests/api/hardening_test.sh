#!/bin/sh
# Reads the hardening of a release build off its files; see cmake/hardening.cmake.
#
# usage: hardening_test.sh FILE...     ELF files, or DLLs and programs for Windows
set -eu

failed=0
expect() { # expect PROPERTY PATTERN: the pattern occurs in `facts`, which were read off `file`
  printf '%s\n' "$facts" | grep -Eq "$2" || {
    echo "$file: no $1"
    failed=1
  }
}

expect_windows() {
  facts=$(objdump -p "$file")
  expect 'random address' DYNAMIC_BASE
  expect 'data that cannot be executed' NX_COMPAT
  ! printf '%s\n' "$facts" | grep -q pei-x86-64 || expect 'random high address' HIGH_ENTROPY_VA
  facts=$(grep -ao 'stack smashing detected' "$file") || true
  expect 'stack protector' .
}

expect_elf() {
  facts=$(readelf -W --dynamic --segments --dyn-syms "$file")
  expect 'random address' '^Elf file type is DYN'
  expect 'read-only relocations' GNU_RELRO
  expect 'immediate binding' '\(FLAGS(_1)?\).*NOW'
  expect 'stack that cannot be executed' 'GNU_STACK .* RW +0x'
  expect 'stack protector' 'UND __stack_chk_fail'
  expect 'fortified functions' 'UND __[a-z_]+_chk@'
  [ "$(uname -m)" = x86_64 ] || return 0
  # The C library's own start-up code has two such targets in every file.
  facts=$(objdump -d --no-show-raw-insn "$file" | grep -c endbr64) || true
  expect 'control-flow protection' '[0-9]{2}'
}

for file in "$@"; do
  if [ "$(head -c 2 "$file")" = MZ ]; then expect_windows; else expect_elf; fi
done
exit "$failed"
