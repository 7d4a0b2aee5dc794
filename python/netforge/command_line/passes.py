"""`netforge passes`: the registered passes and the pipeline."""

from __future__ import annotations

import argparse

import libPyGraphRefiner312 as refiner

import netforge


def add_command(commands: argparse._SubParsersAction) -> None:
    parser = commands.add_parser("passes", help="list the registered passes and the pipeline")
    parser.add_argument(
        "--backend-kind", type=int, metavar="KIND", help="0 to 255; adds the pipeline of that backend"
    )
    parser.set_defaults(run=run)


def backend_of(kind: int | None) -> netforge.BackendInfo | None:
    if kind is None:
        return None
    if not 0 <= kind <= 255:
        raise ValueError(f"--backend-kind takes 0 to 255, not {kind}")
    return netforge.BackendInfo(kind)


def pipeline_of(backend: netforge.BackendInfo | None) -> list[str]:
    """The names that the pipelines of the stage `PostLayout`, the only one that runs passes, list."""
    graph = netforge.IrGraph("pipeline")
    stages = [refiner.OptimizationStage.PostLayout]
    return refiner.GraphRefiner(
        graph, stages, backend, refiner.GraphRefinerContext()
    ).get_current_execution_pass_names()


def run(options: argparse.Namespace) -> int:
    names = refiner.get_registered_pass_names()
    pipeline = pipeline_of(backend_of(options.backend_kind))
    print(f"Registered passes ({len(names)}):")
    for number, name in enumerate(names):
        places = [str(place) for place, listed in enumerate(pipeline, 1) if listed == name]
        where = f"  runs at {', '.join(places)}" if places else ""
        print(f"  {number:2d}  {name}{where}".rstrip())
    print(f"Pipeline of PostLayout ({len(pipeline)}):")
    for place, name in enumerate(pipeline, 1):
        print(f"  {place:2d}  {name}")
    return 0
