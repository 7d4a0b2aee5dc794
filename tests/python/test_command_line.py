"""The `netforge` command, run as its own process on small and real models."""

from __future__ import annotations

import json
import subprocess
import sys
from pathlib import Path

import numpy as np
import onnx
import pytest
from onnx import TensorProto, helper, numpy_helper


def netforge(*arguments: object, cwd: Path) -> subprocess.CompletedProcess[str]:
    command = [sys.executable, "-m", "netforge", *map(str, arguments)]
    return subprocess.run(command, cwd=cwd, capture_output=True, text=True, timeout=120)


@pytest.fixture
def model(tmp_path: Path) -> Path:
    weight = numpy_helper.from_array(np.ones((4, 3, 3, 3), np.float32), "w")
    nodes = [
        helper.make_node("Conv", ["x", "w"], ["c"], name="conv", pads=[1, 1, 1, 1]),
        helper.make_node("Relu", ["c"], ["y"], name="relu"),
    ]
    graph = helper.make_graph(
        nodes,
        "small",
        [helper.make_tensor_value_info("x", TensorProto.FLOAT, [1, 3, 8, 6])],
        [helper.make_tensor_value_info("y", TensorProto.FLOAT, [1, 4, 8, 6])],
        [weight],
    )
    path = tmp_path / "small.onnx"
    onnx.save(helper.make_model(graph, opset_imports=[helper.make_opsetid("", 17)]), path)
    return path


def test_optimize_gives_an_account(model: Path, tmp_path: Path) -> None:
    done = netforge("optimize", model, cwd=tmp_path)
    assert (done.returncode, done.stderr) == (0, "")
    lines = {line.split()[0]: line for line in done.stdout.splitlines() if line.strip()}
    assert lines["Ops"].split()[1:2] != ["0"]
    # 8 * 6 places, 4 filters of 3 * 3 * 3 weights, none of them a bias; the activation counts its elements
    assert "5,376" in lines["MACs"]
    assert "108" in lines["Parameters"]


@pytest.mark.parametrize(
    ("level", "present", "absent"),
    [
        ("stage", "BeforePostLayoutOptimizations.json", "IRGraph_after_IrGraph_optimizations.json"),
        ("checkpoint", "IRGraph_after_IrGraph_optimizations.json", "BeforePostLayoutOptimizations.json"),
    ],
)
def test_dumps_land_in_the_folder_asked_for(
    model: Path, tmp_path: Path, level: str, present: str, absent: str
) -> None:
    done = netforge("optimize", model.name, "--dump", level, "--dump-dir", "deep/dumps", cwd=tmp_path)
    assert done.returncode == 0, done.stderr
    dumps = tmp_path / "deep" / "dumps"
    json.loads((dumps / present).read_text())
    assert not (dumps / absent).exists()
    assert present in done.stdout
    assert not list(tmp_path.glob("*.json"))


def test_trace_reports_every_stage(model: Path, tmp_path: Path) -> None:
    done = netforge("optimize", model, "--trace", "--stages", "PostLayout,PostQuant", cwd=tmp_path)
    for stage in ("PostLayout", "PostQuant"):
        assert f"in stage Post G2G optimizations: {stage}" in done.stdout
    assert "PreQuant" not in done.stdout


def test_quiet_says_nothing(model: Path, tmp_path: Path) -> None:
    done = netforge("optimize", model, "--quiet", cwd=tmp_path)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


@pytest.mark.parametrize(
    ("arguments", "told"),
    [
        (["--stages", "PostLayout,Nowhere"], "Nowhere"),
        (["--enable-pass", "NoSuchPass"], "No pass registered with the name: NoSuchPass"),
        (["--backend-kind", "256"], "256"),
    ],
)
def test_errors_are_one_line(model: Path, tmp_path: Path, arguments: list[str], told: str) -> None:
    done = netforge("optimize", model, *arguments, cwd=tmp_path)
    assert done.returncode == 1
    assert told in done.stderr
    assert len(done.stderr.splitlines()) == 1


def test_unreadable_models_are_named(tmp_path: Path) -> None:
    broken = tmp_path / "broken.onnx"
    broken.write_bytes(b"\x08\x07 this is no model")
    for path in (broken, tmp_path / "absent.onnx"):
        done = netforge("show", path, cwd=tmp_path)
        assert done.returncode == 1
        assert path.name in done.stderr
        assert len(done.stderr.splitlines()) == 1


def test_passes_lists_registry_and_pipeline(tmp_path: Path) -> None:
    lines = netforge("passes", cwd=tmp_path).stdout.splitlines()
    assert lines[0] == "Registered passes (61):"
    assert lines[1].split()[:2] == ["0", "AlignMatmulRanks"]
    assert lines[61].split()[:2] == ["60", "MatchTopK"]
    assert lines[62].startswith("Pipeline of PostLayout (")


def test_show_prints_every_op(model: Path, tmp_path: Path) -> None:
    shown = netforge("show", model, "--layout", "source", cwd=tmp_path).stdout
    assert "Conv2d" in shown
    assert "ElementWiseNeuron" in shown
