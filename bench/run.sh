#!/bin/sh
# Runs every benchmark of a build folder and prints how the time per operation grows with the graph.
#   bench/run.sh BUILD_FOLDER [PYTHON]
set -eu
build=$1
python=${2:-python3}
for program in "$build"/bench/bm_*; do
  [ -x "$program" ] && [ -f "$program" ] || continue
  echo "== $(basename "$program")"
  "$program" --benchmark_format=json --benchmark_repetitions=3 >"$program.json"
  "$python" "$(dirname "$0")/growth.py" "$program.json"
done
echo "== peak_memory"
"$build"/bench/peak_memory
