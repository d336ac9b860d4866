#!/bin/sh
# Builds the plug-in as for a set, from only its own sources and the installed development files, and loads it in the
# installed program.
#
#   set_test.sh BUILD-FOLDER PLUG-IN-SOURCES CMAKE-CACHE-ARGUMENT...
set -eu
build=$1
sources=$2
shift 2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
unset MIRADO_PLUGIN MIRADO_STORE LD_LIBRARY_PATH

cmake --install "$build" --prefix "$scratch/run" --component runtime >/dev/null
cmake --install "$build" --prefix "$scratch/dev" --component development >/dev/null
cp -r "$sources" "$scratch/pepper"  # from here no path leads to the services' sources
set_folder=$(dirname "$(find "$scratch/dev" -path '*mirado-set/include')")
{
  cmake -S "$scratch/pepper" -B "$scratch/build" -G Ninja -DMIRADO_SET="$set_folder" "$@" &&
    cmake --build "$scratch/build"
} >"$scratch/log" 2>&1 || { cat "$scratch/log"; exit 1; }

plugin=$scratch/build/libmirado.so
path=$(readelf -dW "$plugin" | grep -E '\(R(UN)?PATH\)' || true)
[ -z "$path" ] || { echo "the plug-in for a set has a run path: $path"; exit 1; }
# As on a set, where the loader finds the libraries without a run path.
libraries=$(dirname "$(find "$scratch/run" -name libvconf.so)")
answer=$(echo '{"send": {"command": "getVersion"}}' | LD_LIBRARY_PATH=$libraries MIRADO_PLUGIN=$plugin \
  "$scratch/run/bin/mirado" host --store "$scratch/store" 2>"$scratch/log" | head -n 1 | tr -d ' ')
case $answer in
  '{"reply":{"code":0,'*) ;;
  *) echo "the plug-in for a set answered: $answer"; cat "$scratch/log"; exit 1 ;;
esac

# The other way to name the development files, and a folder without them.
cat >"$scratch/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.25)
project(user LANGUAGES CXX)
find_package(MiradoSet REQUIRED)
get_target_property(library vconf IMPORTED_LOCATION)
file(SHA256 ${library} sum)
END
cmake -S "$scratch" -B "$scratch/user" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/dev" "$@" \
  >"$scratch/log" 2>&1 || { cat "$scratch/log"; exit 1; }
if cmake -S "$scratch/pepper" -B "$scratch/none" -G Ninja -DMIRADO_SET="$scratch/none-such" >"$scratch/log" 2>&1; then
  echo "a set's folder that does not exist was accepted"
  exit 1
fi
