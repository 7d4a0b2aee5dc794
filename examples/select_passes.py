"""Chooses the passes of a run by name, and says which of them changed the graph."""

from __future__ import annotations

import libPyGraphRefiner312 as refiner
from build_graph import build


def run(config: dict[str, list[str]]) -> int:
    """Optimizes the example's graph and gives the number of Transposes that are left."""
    graph = build()
    context = refiner.GraphRefinerContext()
    context.optimizer_config = config
    context.dump_pass_trace_info = True  # prints the passes that changed the graph
    refiner.GraphRefiner(graph, [refiner.OptimizationStage.PostLayout], None, context).optimize()
    return graph.countOpsOfType("Transpose")


def main() -> None:
    # Three passes can remove an inverse pair: the pair stays only when all of them are off.
    off = ["OptimizeTransposes", "SquashMultiplePermute", "RemoveInverseTransposePair", "HoistTranspose"]
    print("as it is:", run({}))
    print("without the Transpose passes:", run({"disabledPasses": off}))
    print("registered:", ", ".join(refiner.get_registered_pass_names()))


if __name__ == "__main__":
    main()
