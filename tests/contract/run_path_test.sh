#!/bin/sh
# Checks the run path of every built and installed file: each element is relative to the file, so the loader searches no
# folder that others can write to. (An empty element would mean the current folder.)
#
#   run_path_test.sh BUILD-FOLDER
set -eu
build=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

cmake --install "$build" --prefix "$scratch/installed" >/dev/null
find "$build" "$scratch/installed" -name CMakeFiles -prune -o -type f \( -name '*.so*' -o -perm -100 \) -print |
  while read -r file; do
    readelf -h "$file" >/dev/null 2>&1 || continue
    echo "${file##*/}" >>"$scratch/read"
    # A dependency with a slash in its name is a path, which the loader opens without a search.
    readelf -dW "$file" | sed -n -e 's/.*(NEEDED).*\[\(.*\/.*\)\]$/needs \1/p' -e 's/.*(RU\{0,1\}N\{0,1\}PATH).*\[\(.*\)\]$/\1/p' |
      tr ':' '\n' | grep -vE '^[$]ORIGIN(/|$)' | sed "s|^|$file: |" >>"$scratch/wrong" || true
  done

for name in mirado libmirado.so libvconf.so; do
  [ "$(grep -cx "$name" "$scratch/read")" -ge 2 ] || { echo "did not find $name both built and installed"; exit 1; }
done
[ ! -s "$scratch/wrong" ] || { echo "looks for libraries elsewhere than beside itself:"; cat "$scratch/wrong"; exit 1; }
