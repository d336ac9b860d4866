# shellcheck shell=bash
# Functions for the other scripts, which source this file.

# The number of parallel jobs of cmake and ctest.
export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}
export CTEST_PARALLEL_LEVEL=${CTEST_PARALLEL_LEVEL:-$CMAKE_BUILD_PARALLEL_LEVEL}

# help_if_asked [ARGUMENT]: if the argument is --help or -h, prints the comment at the head of the script and exits.
help_if_asked() {
  [[ ${1-} == --help || ${1-} == -h ]] || return 0
  sed -n -e 1d -e '/^#/!q' -e 's/^# \{0,1\}//p' "$0"
  exit 0
}

# logged LOG COMMAND...: writes the command's output to the file LOG. While it runs, a terminal shows the last line.
logged() {
  local log=$1 line status=0
  shift
  mkdir -p "$(dirname "$log")"
  if [[ -t 2 && ${TERM-dumb} != dumb ]]; then
    "$@" 2>&1 | tee "$log" | while IFS= read -r line; do
      printf '\r\033[K%.*s' "$((${COLUMNS:-80} - 1))" "${line//[[:cntrl:]]/}" >&2
    done || status=$?
    printf '\r\033[K' >&2
  else
    "$@" >"$log" 2>&1 || status=$?
  fi
  return "$status"
}

# quietly LOG COMMAND...: the same; if the command fails, its output is printed.
quietly() {
  logged "$@" || {
    cat "$1" >&2
    return 1
  }
}
