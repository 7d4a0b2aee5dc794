"""The numerical check of an optimize run."""

from __future__ import annotations

import argparse
import time
from collections.abc import Callable, Sequence
from pathlib import Path

import libPyGraphRefiner312 as refiner
import onnx

import netforge
from netforge.checking import Checker, CheckReport, EachPassReport, check_each_pass
from netforge.checking.each_pass import optimizing
from netforge.command_line.capture import captured_output
from netforge.command_line.models import load_model, prepared_model, settled_inputs
from netforge.onnx_import.specialization import specialize


def check_run(
    options: argparse.Namespace,
    graph: netforge.IrGraph,
    stages: Sequence[refiner.OptimizationStage],
    backend: netforge.BackendInfo | None,
) -> CheckReport | EachPassReport:
    """Compares the optimized graph with the model, or the graph behind each pass."""
    begin = time.perf_counter()
    with _original(options) as checker:
        if options.check == "whole":
            report = checker.check(graph)
            report.seconds = time.perf_counter() - begin
            return report
        config = {"enabledPasses": options.enable_pass, "disabledPasses": options.disable_pass}
        names = refiner.GraphRefiner(
            netforge.IrGraph("pipeline"), list(stages), backend, refiner.GraphRefinerContext()
        ).get_current_execution_pass_names()
        optimize = optimizing(stages, backend, config, _captured)
        return check_each_pass(lambda: prepared_model(options), optimize, list(dict.fromkeys(names)), checker)


def _original(options: argparse.Namespace) -> Checker:
    """The model's file, but where its weights or inputs were replaced by constants, or the runtime is older
    than the model: then the imported graph. Branches that a constant decides would keep the file from being
    run in double precision."""
    path: Path = options.model
    if options.random_weights is None and not options.input_value:
        try:
            return Checker(_settled(path, options))
        except Exception as error:
            reason = " ".join(str(error).split())[:200]
            checker = Checker(load_model(options))
            checker.notes.append(
                f"compared with the imported graph, as the model's file can't be run: {reason}"
            )
            return checker
    return Checker(load_model(options))


def _settled(path: Path, options: argparse.Namespace) -> Path | onnx.ModelProto:
    """The file, or its model with the shapes that the options settle."""
    if not options.input_shape:
        return path
    return specialize(onnx.load(path), **settled_inputs(options))


def _captured(run: Callable[[], None]) -> list[str]:
    with captured_output() as printed:
        run()
    return printed.lines()
