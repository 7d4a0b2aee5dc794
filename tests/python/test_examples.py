"""The short examples run as they stand."""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path

import pytest

EXAMPLES = Path(__file__).parents[2] / "examples"


@pytest.mark.parametrize(
    ("name", "last_words"),
    [
        ("build_graph", "2 Transposes are left of 4"),
        ("select_passes", "without the Transpose passes: 4"),
        ("read_dumps", "AfterSquashMultiplePermute1.json: 5 ops"),
    ],
)
def test_example(name: str, last_words: str) -> None:
    run = subprocess.run(
        [sys.executable, EXAMPLES / f"{name}.py"], capture_output=True, text=True, check=True, timeout=60
    )
    assert last_words in run.stdout
