"""Runs passes over a graph and compares what it computes before and behind each."""

from __future__ import annotations

import zlib
from collections import Counter
from collections.abc import Iterable, Sequence
from dataclasses import dataclass, field

import libPyGraphRefiner312 as refiner
import netforge
import netforge_testing
import numpy as np

from random_graphs import exceptions
from random_graphs.evaluator import Inconsistent, Node, Values, evaluate, random_inputs

FOLLOW_UP = ("FoldReshapesInstance1", "SquashReshapeInstance1", "RemoveNoOps1")
PIPELINE = "pipeline"
# Passes that say of themselves that nothing changed, whatever they did: here the graph tells.
SILENT = frozenset({"AdjustNormOpFlattenLastDims", "HoistTranspose", "ProcessCustomIOQuantInfo"})


@dataclass(frozen=True)
class Failure:
    """`run` is the pass that was run on `text`, or "pipeline"; `kind` is one word of what is wrong."""

    run: str
    pass_name: str
    kind: str
    detail: str
    text: str
    seed: int

    @property
    def signature(self) -> tuple[str, str, str]:
        return self.run, self.pass_name, self.kind


@dataclass
class Outcome:
    """How often each pass reported a change, alone and in the pipeline, and what went wrong."""

    alone: Counter[str] = field(default_factory=Counter)
    in_pipeline: Counter[str] = field(default_factory=Counter)
    failures: list[Failure] = field(default_factory=list)

    def add(self, other: Outcome) -> None:
        self.alone += other.alone
        self.in_pipeline += other.in_pipeline
        self.failures += other.failures


class Snapshot:
    """What a graph computes and shows to the application."""

    def __init__(self, graph: netforge.IrGraph, seed: int, made_up_types: bool = False) -> None:
        self.graph = graph
        self.inputs = random_inputs(graph, seed)
        self.values = evaluate(graph, self.inputs, made_up_types=made_up_types)
        self.outputs = [(tensor.name, list(tensor.dims)) for tensor in graph.graphOutputs]
        self.graph_inputs = [(tensor.name, list(tensor.dims)) for tensor in graph.graphInputs]
        self.made_up_types = made_up_types


def pipeline() -> list[str]:
    optimizer = refiner.GraphRefiner(
        netforge.IrGraph("empty"), [refiner.PostLayout], None, refiner.GraphRefinerContext()
    )
    return optimizer.get_current_execution_pass_names()


def compare(
    before: Snapshot, graph: netforge.IrGraph, pass_name: str, allowed: frozenset[str]
) -> list[tuple[str, str]]:
    """What is wrong with the graph behind a pass, as pairs of kind and detail."""
    found = [("invariant", text) for text in graph.checkInvariants()]
    names_before, names = ([name for name, _ in before.outputs], [t.name for t in graph.graphOutputs])
    if len(names) != len(names_before):
        found.append(("count", f"graph outputs were {names_before} and are {names}"))
    elif names != names_before:
        found.append(("names", f"graph outputs were {names_before} and are {names}"))
    inputs = [(tensor.name, list(tensor.dims)) for tensor in graph.graphInputs]
    if inputs != before.graph_inputs:
        found.append(("inputs", f"graph inputs were {before.graph_inputs} and are {inputs}"))
    try:
        values = _values_behind(before, graph, pass_name)
    except Inconsistent as failure:
        found.append(("inconsistent", str(failure)))
        return [pair for pair in found if pair[0] not in allowed]
    for (name, dims), tensor in zip(before.outputs, graph.graphOutputs, strict=False):
        if list(tensor.dims) != dims:
            found.append(("dims", f"output {name} had dims {dims} and has {list(tensor.dims)}"))
        elif tensor.name not in values:
            found.append(("value", f"output {name} has no value"))
        else:
            text = difference(before.values[name], values[tensor.name], pass_name not in exceptions.ROUNDING)
            found += [("value", f"output {name}: {text}")] if text else []
    return [pair for pair in found if pair[0] not in allowed]


def _values_behind(before: Snapshot, graph: netforge.IrGraph, pass_name: str) -> Values:
    """A result that the pass may approximate is held against the old one and replaced by it, so that
    what follows shows no difference of its own."""
    tolerance = exceptions.APPROXIMATIONS.get(pass_name)

    def hook(node: Node, results: list[np.ndarray]) -> list[np.ndarray]:
        if tolerance is None or not tolerance.applies(node):
            return results
        name = node.op.outputs[0].name
        old = before.values.get(name)
        if old is None or old.shape != results[0].shape:
            return results
        near = np.abs(old - results[0]) <= tolerance.bound(old)
        return [old] if bool(np.all(near | ~np.isfinite(old))) else results

    return evaluate(graph, before.inputs, hook, before.made_up_types)


def difference(before: np.ndarray, after: np.ndarray, exact: bool) -> str:
    if before.shape != after.shape:
        return f"dims {before.shape} and {after.shape}"
    finite = before[np.isfinite(before)]
    scale = max(1.0, float(np.abs(finite).max())) if finite.size else 1.0
    tolerance = 0.0 if exact else 1e-5 * scale
    with np.errstate(all="ignore"):
        same = (
            (np.abs(before - after) <= tolerance) | (before == after) | (np.isnan(before) & np.isnan(after))
        )
    if bool(same.all()):
        return ""
    place = tuple(int(index) for index in np.argwhere(~same)[0])
    return f"{int((~same).sum())} of {same.size} differ, at {place} {before[place]!r} became {after[place]!r}"


def run_pass(graph: netforge.IrGraph, name: str, text: str) -> bool:
    """Whether the pass changed the graph, of which `text` is the text form."""
    if name == "ProcessCustomIOQuantInfo":
        graph.customIOEntries = _quantised_buffers(graph)
    changed = bool(netforge_testing.run_pass(graph, name))
    graph.customIOEntries = []
    return changed or (name in SILENT and netforge_testing.print_graph(graph) != text)


def _quantised_buffers(graph: netforge.IrGraph) -> list[netforge.CustomIOEntry]:
    """Entries for a third of the inputs and outputs, the same whatever else the graph holds. What is both has
    no one name afterwards, and stays; a Dequantize takes no axis of unknown size."""
    inputs, outputs = ({tensor.name for tensor in found} for found in (graph.graphInputs, graph.graphOutputs))
    params = netforge.CustomIOQuantParams(0.5, -3)
    return [
        netforge.CustomIOEntry(name, ("uint8", "int16")[zlib.crc32(name.encode()) % 2], params)
        for name in sorted(inputs ^ outputs)
        if zlib.crc32(name.encode()) % 3 == 0 and not graph.getTensor(name).dynamicAxes
    ]


def run_alone(text: str, seed: int, passes: Iterable[str]) -> Outcome:
    """Each pass on the graph of the text."""
    outcome = Outcome()
    graph = netforge_testing.read_graph(text)
    before = Snapshot(netforge_testing.read_graph(text), seed)
    idle = []
    for name in passes:
        try:
            changed = run_pass(graph, name, text)
        except Exception as failure:
            if "throws" not in exceptions.allowed(name, before.graph, before.values):
                outcome.failures.append(Failure(name, name, "throws", str(failure), text, seed))
            graph = netforge_testing.read_graph(text)
            continue
        if not changed:
            idle.append(name)
            continue
        outcome.alone[name] += 1
        allowed = exceptions.allowed(name, before.graph, before.values)
        for kind, detail in compare(before, graph, name, allowed)[:1]:
            outcome.failures.append(Failure(name, name, kind, detail, text, seed))
        graph = netforge_testing.read_graph(text)
    outcome.failures += _unreported(text, seed, idle)
    return outcome


def _unreported(text: str, seed: int, idle: Sequence[str]) -> list[Failure]:
    """Passes among those that reported no change which changed the graph all the same."""
    graph = netforge_testing.read_graph(text)
    for name in idle:
        netforge_testing.run_pass(graph, name)
    if netforge_testing.print_graph(graph) == text:
        return []
    failures = []
    for name in idle:
        graph = netforge_testing.read_graph(text)
        netforge_testing.run_pass(graph, name)
        if netforge_testing.print_graph(graph) != text:
            failures.append(Failure(name, name, "unreported", "changed without a word", text, seed))
    return failures


def run_pipeline(text: str, seed: int, passes: Sequence[str] | None = None) -> Outcome:
    """The passes in order on one graph, with a comparison behind each that changed something."""
    outcome = Outcome()
    names = list(passes) if passes is not None else pipeline()
    graph = netforge_testing.read_graph(text)
    before, text_before = Snapshot(netforge_testing.read_graph(text), seed), text
    while names:
        name = names.pop(0)
        try:
            changed = run_pass(graph, name, text_before)
        except Exception as failure:
            if "throws" not in exceptions.allowed(name, before.graph, before.values):
                outcome.failures.append(_reproduced(name, "throws", str(failure), text, text_before, seed))
            return outcome
        if not changed:
            continue
        outcome.in_pipeline[name] += 1
        if name == "Replace6dOps":
            names += FOLLOW_UP
        allowed = exceptions.allowed(name, before.graph, before.values)
        for kind, detail in compare(before, graph, name, allowed)[:1]:
            outcome.failures.append(_reproduced(name, kind, detail, text, text_before, seed))
            return outcome
        if allowed & {"value", "inconsistent"}:
            return outcome
        text_before = netforge_testing.print_graph(graph)
        before = Snapshot(netforge_testing.read_graph(text_before), seed)
    return outcome


def _reproduced(name: str, kind: str, detail: str, text: str, text_before: str, seed: int) -> Failure:
    """By the pass alone, if the graph in front of it fails by itself."""
    for failure in _attempt(text_before, seed, name):
        if failure.kind == kind:
            return failure
    return Failure(PIPELINE, name, kind, detail, text, seed)


def _attempt(text: str, seed: int, run: str) -> list[Failure]:
    """The failures of one run; none for a text that is no valid graph."""
    try:
        if netforge_testing.read_graph(text).checkInvariants():
            return []
        outcome = run_pipeline(text, seed) if run == PIPELINE else run_alone(text, seed, [run])
    except (ValueError, RuntimeError, Inconsistent):
        return []
    return outcome.failures


def fails_likewise(text: str, failure: Failure) -> Failure | None:
    """The failure of the same kind that another graph shows."""
    for found in _attempt(text, failure.seed, failure.run):
        if found.signature == failure.signature:
            return found
    return None
