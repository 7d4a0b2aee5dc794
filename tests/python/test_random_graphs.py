"""Passes on random graphs, and the tools of that test themselves."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path

import netforge
import netforge_testing
import numpy as np
import pytest
from netforge import DataType
from netforge.checking.running import Session
from onnxruntime.capi.onnxruntime_pybind11_state import InvalidArgument
from random_graphs import __main__ as command
from random_graphs.differential import Failure, Snapshot, compare, run_alone
from random_graphs.evaluator import Inconsistent, UnknownOp, evaluate, random_inputs
from random_graphs.generation import generate
from random_graphs.plants import all_plants
from random_graphs.reduction import reduce

NOTHING: frozenset[str] = frozenset()


def test_passes_keep_what_random_graphs_compute() -> None:
    for outcome in command.check_seeds(range(1, 301), (), os.cpu_count() or 1):
        for failure in outcome.failures[:1]:
            smaller = failure if failure.kind in ("crashes", "invalid") else reduce(failure)
            pytest.fail(f"{smaller.pass_name}, {smaller.kind}: {smaller.detail}\n{smaller.text}")


@pytest.mark.parametrize("name", all_plants())
def test_plants_make_their_pass_fire(name: str) -> None:
    fired = (run_alone(generate(seed, [name]), seed, [name]).alone[name] for seed in range(100))
    assert any(fired)


GRAPH = "in x[2,3]\nt[3,2] = Transpose(x) perm=[1,0]\ns[3,2] = ElementWiseNeuron(t) operation=8\n"
CHANGES = {
    "another order of elements": (GRAPH.replace("Transpose(x) perm=[1,0]", "Reshape(x)"), "value"),
    "other dims of an output": (GRAPH + "u[6] = Reshape(s)\nout u\n", "dims"),
    "dims inside that don't fit": (GRAPH.replace("perm=[1,0]", "perm=[0,1]"), "inconsistent"),
    "an output of another name": (GRAPH.replace("s[", "r["), "names"),
    "a further output": (GRAPH + "out t\n", "count"),
    "a renamed input": (GRAPH.replace("x", "z"), "inputs"),
}


@pytest.mark.parametrize("fault", CHANGES)
def test_the_comparison_finds(fault: str) -> None:
    text, kind = CHANGES[fault]
    last = "r" if "r[" in text else "s"
    if kind != "dims":
        text += f"out {last}\n"
    before = Snapshot(netforge_testing.read_graph(GRAPH + "out s\n"), seed=1)
    if kind == "inputs":
        before.inputs["z"] = before.inputs["x"]
    if kind == "dims":
        before.outputs = [("u", [3, 2])]
    found = compare(before, netforge_testing.read_graph(text), "FoldConcats", NOTHING)
    assert kind in [each for each, _ in found]


def test_values_agree_with_the_runtime() -> None:
    """The evaluator against the export, which was checked by itself, on single precision."""
    checked = set()
    for seed in range(150):
        graph = netforge_testing.read_graph(generate(seed))
        inputs = random_inputs(graph, seed)
        try:
            session = Session(netforge.to_onnx(graph))
        except netforge.OnnxExportError:
            continue
        # The evaluator knows no types: no encodings, no half floats, nor activations of whole numbers.
        if any(
            tensor.isQuantized() or tensor.dataType == DataType.ORLO_DATATYPE_FLOAT_16
            for tensor in graph.tensors.values()
        ) or any(
            op.type == "ElementWiseNeuron" and op.outputs[0].dataType != DataType.ORLO_DATATYPE_FLOAT_32
            for op in graph.ops
        ):
            continue
        kinds = {"float": np.float32, "int32": np.int32, "int64": np.int64, "bool": np.bool_}
        feeds = {info.name: inputs[info.name].astype(kinds[info.type[7:-1]]) for info in session.inputs}
        values = evaluate(graph, inputs)
        try:
            results = session.run(feeds)
        except InvalidArgument as refusal:  # a normalisation of one element
            assert "must be larger than 1" in str(refusal)
            continue
        for name, found in results.items():
            scale = max(1.0, float(np.abs(values[name]).max(initial=0.0)))
            np.testing.assert_allclose(
                found, values[name], rtol=0, atol=1e-4 * scale, err_msg=f"{seed}: {name}"
            )
        checked |= {op.type for op in graph.ops}
    assert len(checked) > 25


def test_the_evaluator_refuses_what_it_does_not_know() -> None:
    inputs = {"x": np.ones([2, 3])}
    with pytest.raises(UnknownOp):
        evaluate(netforge_testing.read_graph("in x[2,3]\ny = Custom(x)\nout y"), inputs)
    with pytest.raises(Inconsistent, match="gives 'y' dims"):
        evaluate(netforge_testing.read_graph("in x[2,3]\ny[2,3] = Transpose(x) perm=[1,0]\nout y"), inputs)


def test_graphs_depend_on_the_seed_alone() -> None:
    script = "from random_graphs.generation import generate; print(*map(generate, range(30)), sep='')"
    environment = {**os.environ, "PYTHONHASHSEED": "77"}
    folder = Path(__file__).parent
    elsewhere = subprocess.run(
        [sys.executable, "-c", script],
        cwd=folder,
        env=environment,
        capture_output=True,
        text=True,
        check=True,
    )
    texts = [generate(seed) for seed in range(30)]
    assert elsewhere.stdout.rstrip("\n") == "".join(texts).rstrip("\n")
    assert len(set(texts)) == 30
    for text in texts:
        graph = netforge_testing.read_graph(text)
        assert graph.checkInvariants() == []
        assert netforge_testing.print_graph(graph) == text


def test_outcomes_do_not_depend_on_the_workers() -> None:
    one, two = (list(command.check_seeds(range(25), (), workers)) for workers in (1, 2))
    assert one == two


def test_a_failure_is_reduced_and_replayed(monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> None:
    text = GRAPH + "a[2,3] = ElementWiseNeuron(x) operation=6\nb[6] = Reshape(s)\nout a\nout b\n"

    def rename_transpose(graph: netforge.IrGraph, name: str) -> bool:
        for op in graph.opsOfType("Reshape"):
            graph.updateTensorName(op.outputs[0].name, "elsewhere")
        return graph.countOpsOfType("Reshape") > 0

    with monkeypatch.context() as patched:
        patched.setattr(netforge_testing, "run_pass", rename_transpose)
        (failure,) = run_alone(text, 1, ["FoldConcats"]).failures
        assert failure.kind == "names"
        smaller = reduce(failure)
        lines = [line for line in smaller.text.splitlines() if line]
        assert lines == ["in s[3,2] f32", "b[6] = Reshape(s)", "out b"] or len(lines) == 3
        path = command.write_failure(smaller, tmp_path)
        assert isinstance(command.read_failure(path), Failure)
        assert command.replay(path) == 1
    assert command.replay(path) == 0
