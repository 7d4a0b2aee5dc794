"""Writes the graph before and after every pass that changed it, and compares the dumps."""

from __future__ import annotations

import json
import os
import tempfile
from pathlib import Path

import libPyGraphRefiner312 as refiner
from build_graph import build


def ops_of(dump: Path) -> dict[str, str]:
    """Type by name of the ops of a dump."""
    nodes = json.loads(dump.read_text())["graph"]["nodes"]
    return {name: node["type"] for name, node in nodes.items()}


def main() -> None:
    graph = build()
    context = refiner.GraphRefinerContext()
    context.dump_ir = True
    context.dump_ir_level = refiner.IrDumpLevel.PostPassChange
    with tempfile.TemporaryDirectory() as folder:
        here = Path.cwd()
        os.chdir(folder)  # dumps land in the current folder
        try:
            refiner.GraphRefiner(graph, [refiner.OptimizationStage.PostLayout], None, context).optimize()
        finally:
            os.chdir(here)
        for dump in sorted(Path(folder).glob("*.json")):
            print(f"{dump.name}: {len(ops_of(dump))} ops")


if __name__ == "__main__":
    main()
