#!/bin/sh
# Installs the program, moves the folder, and checks that it still runs and that its libraries and links are found.
#
#   install_test.sh BUILD-FOLDER
set -eu
build=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
unset MIRADO_PLUGIN MIRADO_STORE LD_LIBRARY_PATH

cmake --install "$build" --prefix "$scratch/made" >/dev/null
mv "$scratch/made" "$scratch/moved"

find "$scratch/moved" -type f \( -name '*.so' -o -perm -100 \) | while read -r file; do
  if ldd "$file" | grep -e "$build" -e 'not found'; then
    echo "$file does not find its libraries in the installation"
    exit 1
  fi
done

lost=$(find "$scratch/moved" -xtype l)
lost=$lost$(find "$scratch/moved" -name '*.md' | while read -r file; do
  grep -o ']([^):#]*[)#]' "$file" | tr -d '](#)' | while read -r link; do
    [ -e "${file%/*}/$link" ] || echo "$link in $file"
  done
done)
[ -z "$lost" ] || { echo "leads nowhere: $lost"; exit 1; }

zcat "$scratch/moved/share/man/man1/mirado.1.gz" | grep -q '^.SS mirado desk '

answer=$(echo '{"send": {"command": "getVersion"}}' |
  "$scratch/moved/bin/mirado" host --store "$scratch/store" 2>"$scratch/log" | head -n 1 | tr -d ' ')
case $answer in
  '{"reply":{"code":0,'*) ;;
  *)
    echo "the installed program answered: $answer"
    cat "$scratch/log"
    exit 1
    ;;
esac
