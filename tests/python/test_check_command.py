"""Check and output of `netforge optimize`, and the search for the pass at fault."""

from __future__ import annotations

import subprocess
import sys
from collections.abc import Sequence
from pathlib import Path

import netforge
import netforge.command_line
import numpy as np
import onnx
import pytest
from export_graphs import ORDERS, data_type, make_op
from netforge import IrStaticTensor, IrTensor, TensorType, Verdict
from onnx import TensorProto, helper, numpy_helper

LIGHT = Path(onnx.__file__).parent / "backend/test/data/light"


def command(*arguments: object, cwd: Path) -> subprocess.CompletedProcess[str]:
    line = [sys.executable, "-m", "netforge", "optimize", *map(str, arguments)]
    return subprocess.run(line, cwd=cwd, capture_output=True, text=True, timeout=120)


def test_the_optimized_network_is_written_and_checked(tmp_path: Path) -> None:
    model = LIGHT / "light_squeezenet.onnx"
    done = command(model, "--random-weights", 1, "--output", "out.onnx", "--check", cwd=tmp_path)
    assert done.returncode == 0, done.stderr
    lines = [line.strip() for line in done.stdout.splitlines()]
    assert any(line.startswith("Written      out.onnx (") for line in lines)
    assert any(line.startswith(("worst: rounding", "worst: same bits")) for line in lines)
    written = onnx.load(tmp_path / "out.onnx")
    onnx.checker.check_model(written, full_check=True)
    original = netforge.from_onnx(model, random_weights=1)
    assert netforge.check(original, written, regimes=["normal"]).ok


def test_each_pass_is_checked(tmp_path: Path) -> None:
    """Two Transposes in a row, which the passes make one, between the layouts of a convolution."""
    weight = np.random.default_rng(0).standard_normal((4, 3, 3, 3)).astype(np.float32)
    nodes = [
        helper.make_node("Transpose", ["x"], ["t"], perm=[0, 3, 1, 2]),
        helper.make_node("Conv", ["t", "w"], ["c"]),
        helper.make_node("Transpose", ["c"], ["u"], perm=[0, 2, 1, 3]),
        helper.make_node("Transpose", ["u"], ["y"], perm=[1, 0, 2, 3]),
    ]
    graph = helper.make_graph(
        nodes,
        "layouts",
        [helper.make_tensor_value_info("x", TensorProto.FLOAT, ["n", 7, 6, 3])],
        [helper.make_tensor_value_info("y", TensorProto.FLOAT, [5, "n", 4, 4])],
        [numpy_helper.from_array(weight, "w")],
    )
    path = tmp_path / "layouts.onnx"
    onnx.save(helper.make_model(graph, opset_imports=[helper.make_opsetid("", 17)], ir_version=8), path)
    done = command(path, "--check=each-pass", cwd=tmp_path)
    assert done.returncode == 0, done.stderr
    assert "  no pass makes an output different" in done.stdout.splitlines()
    quiet = command(path, "--check", "--quiet", cwd=tmp_path)
    assert (quiet.returncode, quiet.stdout) == (0, "")


def test_a_different_output_ends_with_status_two(tmp_path: Path, monkeypatch, capsys) -> None:
    """As from a pass that is wrong: the command's check is handed a graph with another factor."""
    path = tmp_path / "steps.onnx"
    netforge.save_onnx(make_graph(), path)

    def check_run(*_: object) -> netforge.CheckReport:
        graph = make_graph()
        set_constant("factor", 3.0)(graph)
        return netforge.check(path, graph, regimes=["ones"])

    monkeypatch.setattr("netforge.command_line.optimize.check_run", check_run)
    assert netforge.command_line.main(["optimize", str(path), "--check", "--quiet"]) == 2
    assert "worst: different" in capsys.readouterr().out
    assert netforge.command_line.main(["optimize", str(path), "--quiet"]) == 0


# --- the pass at fault: passes that are functions of the test's own -----------------------------------


def make_graph() -> netforge.IrGraph:
    """x -> Relu r -> times factor s -> minus offset y"""
    graph = netforge.IrGraph("steps", ORDERS["last"]())
    kind = data_type("f4")
    graph.addTensor(IrTensor("x", [2, 3], kind, tensorType=TensorType.GraphInput))
    graph.addTensor(IrTensor("y", [2, 3], kind, tensorType=TensorType.GraphOutput))
    for name, value in (("factor", 2.0), ("offset", 0.5)):
        graph.addTensor(IrStaticTensor(name, np.full((1, 3), value, np.float32), copy=True))
    graph.addOp(make_op("ElementWiseNeuron", "relu", {"operation": np.uint32(4)}), ["x"], ["r"], [[2, 3]])
    graph.addOp(
        make_op("Eltwise_Binary", "scale", {"operation": np.uint32(13)}), ["r", "factor"], ["s"], [[2, 3]]
    )
    graph.addOp(
        make_op("Eltwise_Binary", "shift", {"operation": np.uint32(18)}), ["s", "offset"], ["y"], [[2, 3]]
    )
    return graph


def set_constant(name: str, value: float):
    def run(graph: netforge.IrGraph) -> None:
        graph.getStaticTensor(name).updateData(np.full((1, 3), value, np.float32))

    return run


def optimizing(passes: dict):
    def optimize(graph: netforge.IrGraph, disabled: Sequence[str]) -> list[str]:
        changed = [name for name, function in passes.items() if function is not None and name not in disabled]
        for name in changed:
            passes[name](graph)
        return changed

    return optimize


@pytest.mark.parametrize(
    ("passes", "first", "op"),
    [
        ({"A": None, "B": set_constant("factor", 2.0), "C": set_constant("offset", 0.5)}, None, ""),
        (
            {"A": set_constant("offset", 0.5), "B": set_constant("factor", 3.0), "C": None},
            "B",
            "'scale' (Eltwise_Binary)",
        ),
        (
            {"A": None, "B": set_constant("offset", 1.0), "C": set_constant("factor", 9.0)},
            "B",
            "'shift' (Eltwise_Binary)",
        ),
    ],
)
def test_the_first_pass_and_op_at_fault_are_named(passes: dict, first: str | None, op: str) -> None:
    with netforge.Checker(make_graph(), regimes=["normal", "ones"]) as checker:
        report = netforge.check_each_pass(make_graph, optimizing(passes), list(passes), checker)
    bad = report.first_different
    assert (bad.name if bad else None) == first
    assert report.first_op == op
    assert report.worst is (Verdict.SAME_BITS if first is None else Verdict.DIFFERENT)
    names = [found.name for found in report.passes]
    changing = [name for name, function in passes.items() if function is not None]
    assert names == (changing if first is None else changing[: changing.index(first) + 1])
    assert str(report).splitlines()[-1] == (
        "no pass makes an output different"
        if first is None
        else f"the first pass behind which an output is different: {first}; the first op that differs is {op}"
    )
