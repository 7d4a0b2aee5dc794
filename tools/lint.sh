#!/bin/sh
# clang-format and ruff over everything; clang-tidy over the sources of our own that changed against
# BASE (default: all of them with ALL=1, else those of the last commit and the working tree).
set -eu
cd "$(dirname "$0")/.."
python=${1:-.venv/bin/python}

git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run -Werror
"$python" -m ruff check python tests/python examples bench tools
"$python" -m ruff format --check python tests/python examples bench tools

if [ -f build/release/compile_commands.json ]; then
  if [ -n "${ALL:-}" ]; then
    sources=$(git ls-files 'ir/*.cpp' 'ops/*.cpp' 'output/*.cpp' 'metadata/*.cpp' 'GraphRefiner/*.cpp' 'Core/*.cpp')
  else
    sources=$( { git diff --name-only --diff-filter=d "${BASE:-HEAD~1}" -- '*.cpp' 2>/dev/null || true; } |
      grep -v -e '^tests/' -e '^bench/' || true)
  fi
  if [ -n "$sources" ]; then
    echo "$sources" | xargs -P "$(nproc)" -n 4 clang-tidy --quiet -p build/release 2>/dev/null
  fi
fi
echo "lint: clean"
