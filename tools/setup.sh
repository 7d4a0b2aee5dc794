#!/bin/sh
# Installs what the build, the tests and the demo need: Debian packages where missing (as root), and Python
# packages into .venv. A second run finds everything in place and costs a fraction of a second.
#
#   tools/setup.sh            what build, test, demo and bench need
#   tools/setup.sh lint       the linters besides
#   tools/setup.sh fuzz       the compiler that the fuzzers of file readers need besides
set -eu
cd "$(dirname "$0")/.."

packages="cmake ninja-build g++ ccache rapidjson-dev libgtest-dev libbenchmark-dev"
python_packages="tools/requirements.txt"
model_packages="tools/requirements-models.txt"
if [ "${1:-}" = lint ]; then
  packages="$packages clang-format clang-tidy"
fi

if [ "${1:-}" = fuzz ]; then
  packages="$packages clang"
fi

missing=""
for package in $packages; do
  case "$(dpkg-query -W -f '${Status}' "$package" 2>/dev/null)" in
    *" installed") ;;
    *) missing="$missing $package" ;;
  esac
done
if [ -n "$missing" ]; then
  if [ "$(id -u)" != 0 ]; then
    echo "missing Debian packages, install them as root:$missing" >&2
    exit 1
  fi
  echo "installing Debian packages:$missing"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  # shellcheck disable=SC2086 # a list of words
  apt-get install -y -qq --no-install-recommends $missing >/dev/null
fi

python=$(sh tools/python.sh)
stamp=.venv/.netforge-stamp
wanted="$("$python" -c 'import sys; print(sys.version)' | tr '\n' ' ')$(cksum "$python_packages" "$model_packages")"
if [ ! -f "$stamp" ] || [ "$(cat "$stamp")" != "$wanted" ]; then
  echo "installing Python packages into .venv"
  rm -rf .venv
  "$python" -m venv .venv
  .venv/bin/python -m pip install --quiet --disable-pip-version-check --upgrade pip
  .venv/bin/python -m pip install --quiet --disable-pip-version-check -r "$python_packages"
  .venv/bin/python -m pip install --quiet --disable-pip-version-check --no-deps -r "$model_packages"
  printf '%s' "$wanted" >"$stamp"
fi
