#!/bin/sh
# Prints the interpreter that the modules are built for: $PYTHON if given; else a CPython 3.10 from the
# path or from ~/.pyenv/versions; else the newest of 3.11 to 3.13 that has headers, with one line on
# standard error that says so.
set -eu

has_headers() {
  "$1" -c 'import os, sys, sysconfig
sys.exit(not os.path.exists(os.path.join(sysconfig.get_paths()["include"], "Python.h")))' 2>/dev/null
}

is_version() {
  "$1" -c 'import sys; sys.exit("%d.%d" % sys.version_info[:2] != sys.argv[1])' "$2" 2>/dev/null
}

candidates() {
  command -v "python$1" 2>/dev/null || true
  for home in "${HOME:-/root}"/.pyenv/versions/"$1".*; do
    if [ -x "$home/bin/python$1" ]; then echo "$home/bin/python$1"; fi
  done
}

# The path first, then what lies under the home folder; each must run and must have headers.
first_usable() {
  for python in $(candidates "$1"); do
    if is_version "$python" "$1" && has_headers "$python"; then
      echo "$python"
      return 0
    fi
  done
  return 1
}

if [ -n "${PYTHON:-}" ]; then
  if ! command -v "$PYTHON" >/dev/null 2>&1; then
    echo "PYTHON=$PYTHON is no program" >&2
    exit 1
  fi
  echo "$PYTHON"
  exit 0
fi
if first_usable 3.10; then exit 0; fi
for version in 3.13 3.12 3.11; do
  if python=$(first_usable "$version"); then
    echo "note: no CPython 3.10 with headers here; building for $version instead" >&2
    echo "$python"
    exit 0
  fi
done
echo "no CPython 3.10 to 3.13 with headers found; give one with PYTHON=/path/to/python3.10" >&2
exit 1
