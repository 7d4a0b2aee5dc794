"""Prints how the time of one operation grows with the size of the graph.

    bm_edits --benchmark_format=json > edits.json
    python bench/growth.py edits.json

Each line gives the time per operation at each size, and the factor from each size to the next: about 1 where
the cost does not depend on the size, about 10 where it is proportional to it. Runs with repetitions are shown
by their fastest repetition.
"""

from __future__ import annotations

import argparse
import itertools
import json
from collections import defaultdict
from pathlib import Path

UNITS = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}


def read_times(path: Path) -> dict[str, dict[int, float]]:
    """Seconds per operation, by benchmark and size."""
    times: dict[str, dict[int, float]] = defaultdict(dict)
    for run in json.loads(path.read_text())["benchmarks"]:
        if run.get("run_type") == "aggregate":
            continue
        name, size, *_ = run["name"].split("/")
        seconds = run.get("per_op", run["real_time"] * UNITS[run["time_unit"]])
        known = times[name].get(int(size), seconds)
        times[name][int(size)] = min(known, seconds)
    return times


def table(times: dict[str, dict[int, float]]) -> list[str]:
    sizes = sorted({size for row in times.values() for size in row})
    lines = [f"{'ns per operation':26}" + "".join(f"{size:>12,}" for size in sizes) + "   growth"]
    for name, row in times.items():
        cells = "".join(f"{row[size] * 1e9:>12.1f}" if size in row else " " * 12 for size in sizes)
        known = [row[size] for size in sizes if size in row]
        factors = ", ".join(f"x{after / before:.2f}" for before, after in itertools.pairwise(known))
        lines.append(f"{name:26}{cells}   {factors}")
    return lines


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("results", type=Path, help="JSON output of a benchmark program")
    print("\n".join(table(read_times(parser.parse_args().results))))


if __name__ == "__main__":
    main()
