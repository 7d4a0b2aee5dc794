"""Which pass changes what a graph computes, and at which op.

A pass can't be run by itself on a graph that the passes before it made without running the driver's own steps
in between. So for each pass that changed the graph in a whole run, a fresh graph goes through the pipeline up
to that pass, the later ones disabled: the states that this shows are states that a user can get. The
clean-up behind the rank reduction belongs to each of them in which the rank reduction changed something, as
the driver has it run whatever is disabled.
"""

from __future__ import annotations

from collections.abc import Callable, Sequence
from dataclasses import dataclass, field

import libPyGraphRefiner312 as refiner
import numpy as np

import netforge
from netforge.checking.checker import Checker
from netforge.checking.comparison import compare
from netforge.checking.report import CheckReport, Verdict
from netforge.checking.running import Session
from netforge.onnx_export.exporter import to_onnx_with

_EXECUTED = "PASS TRACE INFO: "
Capture = Callable[[], object]


@dataclass
class PassCheck:
    """The check of the graph behind one pass."""

    name: str
    report: CheckReport


@dataclass
class EachPassReport:
    """`passes` holds the passes that changed the graph, in running order, up to the first behind which an
    output is different. `first_op` names the first op, in running order, whose result that pass changed; it
    is empty when none is told by name."""

    passes: list[PassCheck] = field(default_factory=list)
    first_op: str = ""

    @property
    def first_different(self) -> PassCheck | None:
        return next((found for found in self.passes if found.report.worst is Verdict.DIFFERENT), None)

    @property
    def worst(self) -> Verdict:
        return max((found.report.worst for found in self.passes), default=Verdict.SAME_BITS)

    def __str__(self) -> str:
        width = max((len(found.name) for found in self.passes), default=0)
        lines = []
        for found in self.passes:
            relative = max((output.relative for output in found.report.outputs), default=0.0)
            lines.append(f"{found.name:<{width}}  {found.report.worst!s:<10}  max rel diff {relative:.3g}")
        bad = self.first_different
        if bad is None:
            lines.append("no pass makes an output different")
        else:
            where = f"; the first op that differs is {self.first_op}" if self.first_op else ""
            lines.append(f"the first pass behind which an output is different: {bad.name}{where}")
        return "\n".join(lines)


def check_each_pass(
    make_graph: Callable[[], netforge.IrGraph],
    optimize: Callable[[netforge.IrGraph, Sequence[str]], list[str]],
    pipeline: Sequence[str],
    checker: Checker,
) -> EachPassReport:
    """Checks the graph behind every pass that changes it.

    `make_graph` imports the model anew; `optimize(graph, disabled)` runs the stages with these passes
    disabled besides, and gives the names of those that changed the graph; `pipeline` lists the passes in
    running order.
    """
    changing = set(optimize(make_graph(), ()))
    report = EachPassReport()
    behind_last = make_graph()
    for place, name in enumerate(pipeline):
        if name not in changing or name in pipeline[:place]:
            continue
        graph = make_graph()
        optimize(graph, [other for other in pipeline if other not in pipeline[: place + 1]])
        report.passes.append(PassCheck(name, checker.check(graph)))
        if report.passes[-1].report.worst is Verdict.DIFFERENT:
            report.first_op = first_difference(behind_last, graph, checker)
            break
        behind_last = graph
    return report


def first_difference(before: netforge.IrGraph, after: netforge.IrGraph, checker: Checker) -> str:
    """Name and type of the first op of `after` whose result isn't that of the same name in `before`.

    A tensor that holds the same elements in another order is one whose layout changed under its name, and
    is passed over.
    """
    shared = [
        tensor.name
        for op in after.ops
        for tensor in op.outputs
        if before.hasTensor(tensor.name)
        and before.getTensor(tensor.name).producer is not None
        and before.getTensor(tensor.name).dataType == tensor.dataType
        and sorted(before.getTensor(tensor.name).dims) == sorted(tensor.dims)
    ]
    models = [to_onnx_with(graph, shared) for graph in (before, after)]
    sides = [Session(model) for model in models]
    runs = [checker.runs_for(model) for model in models]
    for regime in checker.feeds:
        # What the later model is fed with, in the form of each.
        old = sides[0].run(runs[1].others[regime] if runs[0] is runs[1] else runs[1].feeds[regime])
        new = sides[1].run(runs[1].others[regime])
        for op in after.ops:
            for tensor in op.outputs:
                if tensor.name in old and _differs(old[tensor.name], new[tensor.name]):
                    return f"'{op.name}' ({op.type})"
    return ""


def _differs(before: np.ndarray, after: np.ndarray) -> bool:
    if before.shape == after.shape and compare(before, after, None).verdict < Verdict.DIFFERENT:
        return False
    ordered = [np.sort(array.reshape(-1)) for array in (before, after)]
    return compare(*ordered, None).verdict is Verdict.DIFFERENT


def changed_passes(printed: Sequence[str]) -> list[str]:
    """Names of the passes that changed the graph, as the driver prints them when told to."""
    for line in reversed(printed):
        if line.startswith(_EXECUTED):
            return [name for name in line[len(_EXECUTED) :].split(", ") if name]
    return []


def optimizing(
    stages: Sequence[refiner.OptimizationStage],
    backend: netforge.BackendInfo | None,
    config: dict[str, list[str]],
    captured: Callable[[Callable[[], None]], Sequence[str]],
) -> Callable[[netforge.IrGraph, Sequence[str]], list[str]]:
    """The `optimize` of `check_each_pass`. `captured` runs a function and gives the lines that it prints."""

    def optimize(graph: netforge.IrGraph, disabled: Sequence[str]) -> list[str]:
        context = refiner.GraphRefinerContext()
        names = [*config.get("disabledPasses", []), *disabled]
        given = {"enabledPasses": config.get("enabledPasses", []), "disabledPasses": names}
        context.optimizer_config = {key: values for key, values in given.items() if values}
        context.dump_pass_trace_info = True
        return changed_passes(captured(refiner.GraphRefiner(graph, list(stages), backend, context).optimize))

    return optimize
