#!/bin/sh
# Checks the symbols and the size of the plug-in: one exported function, only imports that the set has, a small file.
#
#   exports_test.sh LIBRARY
set -eu
export LC_ALL=C
library=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failed=0

# expect WHAT IS EXPECTED
expect() {
  [ "$2" = "$3" ] && return
  printf 'wrong %s\n  is:       %s\n  expected: %s\n' "$1" "$2" "$3"
  failed=1
}

# symbols FILE NM-OPTION TYPES: the names of the dynamic symbols of these types, without their versions, sorted.
symbols() {
  nm -D "$2" --format=posix "$1" | awk -v types="$3" '$2 ~ types { sub(/@.*/, "", $1); print $1 }' | sort -u
}

expect "exports" "$(nm -DC --defined-only "$library" | cut -d ' ' -f 3-)" "pp::CreateModule()"

readelf -dW "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' >"$scratch/needed"
expect "libraries beside the platform's and the runtime's" "$(grep -vxE \
  'lib(dlog|vconf|ppapi|handler|system_info|prefdeck|panelbase)\.so|(lib(stdc\+\+|gcc_s|c|m)|ld-linux[-_a-z0-9]*)\.so\.[0-9]+' \
  "$scratch/needed" || true)" ""

# Each symbol must be defined by a library on that list, not by one that is loaded only indirectly.
ldd "$library" >"$scratch/loaded"
while read -r name; do
  # "libc.so.6 => /lib/libc.so.6 (0x…)", but the loader as "/lib64/ld-linux.so.2 (0x…)".
  file=$(awk -v name="$name" '$1 == name { print $3 } $1 ~ "/" name "$" { print $1 }' "$scratch/loaded")
  symbols "$file" --defined-only '.'
done <"$scratch/needed" | sort -u >"$scratch/provided"
symbols "$library" --undefined-only '^U$' >"$scratch/asked"
expect "symbols that are in none of its libraries" "$(comm -23 "$scratch/asked" "$scratch/provided")" ""

strip -o "$scratch/stripped" "$library"
size=$(wc -c <"$scratch/stripped")
[ "$size" -lt 98304 ] || expect "stripped size" "$size bytes" "less than 98304 bytes"

exit "$failed"
