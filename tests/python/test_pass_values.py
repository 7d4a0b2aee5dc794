"""What the graphs of the C++ tests of the passes compute, in front of and behind the pass."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

import netforge_testing
import pytest
from random_graphs import exceptions
from random_graphs.differential import Snapshot, compare
from random_graphs.evaluator import Inconsistent

ROOT = Path(__file__).parents[2]
PROGRAMS = sorted((ROOT / "build/release/tests/passes").glob("*/test_*"))
# The fixture itself looks after names, dims and roles; some tests change those on purpose.
OF_VALUES = ("value", "inconsistent")


@pytest.fixture(scope="module")
def cases(tmp_path_factory: pytest.TempPathFactory) -> list[Path]:
    programs = [path for path in PROGRAMS if path.is_file() and os.access(path, os.X_OK)]
    if not programs:
        pytest.skip("the C++ tests are not built")
    folder = tmp_path_factory.mktemp("cases")
    for program in programs:
        environment = {**os.environ, "NETFORGE_PASS_CASES": str(folder)}
        subprocess.run([program], env=environment, check=False, capture_output=True)
    return sorted(folder.glob("*.before"))


def complaints(before: Path) -> list[str]:
    """None for a graph that has no values: some tests build inconsistent ones on purpose."""
    text = before.read_text()
    head = dict(line[2:].split(": ", 1) for line in text.splitlines()[:3])
    if head["values"] == "may change":
        return []
    try:
        snapshot = Snapshot(netforge_testing.read_graph(text), seed=1, made_up_types=True)
    except (Inconsistent, ValueError):
        return []
    name = head["pass"]
    allowed = exceptions.allowed(name, snapshot.graph, snapshot.values)
    after = netforge_testing.read_graph(before.with_suffix(".after").read_text())
    found = compare(snapshot, after, name, allowed)
    return [f"{name}, '{head['fault']}': {detail}" for kind, detail in found if kind in OF_VALUES]


def test_the_passes_keep_what_their_test_graphs_compute(cases: list[Path]) -> None:
    assert len(cases) > 100
    assert [text for case in cases for text in complaints(case)] == []
