#!/bin/sh
# clang-format and ruff over everything, and clang-tidy over our own sources when TIDY is set.
set -eu
cd "$(dirname "$0")/.."
python=${1:-.venv/bin/python}

git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run -Werror
"$python" -m ruff check python tests/python examples bench tools
"$python" -m ruff format --check python tests/python examples bench tools

# clang-tidy takes minutes over everything: TIDY=1 asks for it.
if [ -n "${TIDY:-}" ]; then
  git ls-files 'ir/*.cpp' 'ops/*.cpp' 'output/*.cpp' 'metadata/*.cpp' 'GraphRefiner/*.cpp' 'Core/*.cpp' |
    xargs -P "$(nproc)" -n 4 clang-tidy --quiet --extra-arg=-Wno-unknown-warning-option --extra-arg=-Wno-ignored-optimization-argument -p build/release
fi
echo "lint: clean"
