"""Imports that settle shapes and values of a model's inputs."""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path

import netforge
import numpy as np
import onnx
import onnxruntime
import pytest
from import_cases import LAYOUTS
from netforge import OnnxImportError
from onnx import TensorProto, helper


def gated_model() -> onnx.ModelProto:
    """y = x + x, or x * x where `rate` is 16000; x and `state` share the symbol "batch"."""
    branches = {
        f"{name}_branch": helper.make_graph(
            [helper.make_node(operator, ["x", "x"], [f"{name}_y"])],
            name,
            [],
            [helper.make_tensor_value_info(f"{name}_y", TensorProto.FLOAT, None)],
        )
        for name, operator in (("then", "Mul"), ("else", "Add"))
    }
    nodes = [
        helper.make_node("Constant", [], ["known"], value_int=16000),
        helper.make_node("Equal", ["rate", "known"], ["fast"]),
        helper.make_node("If", ["fast"], ["y"], **branches),
        helper.make_node("Neg", ["state"], ["next"]),
    ]
    x = helper.make_tensor_value_info("x", TensorProto.FLOAT, ["batch", "samples"])
    state = helper.make_tensor_value_info("state", TensorProto.FLOAT, [2, "batch"])
    rate = helper.make_tensor_value_info("rate", TensorProto.INT64, [])
    outputs = [
        helper.make_tensor_value_info("y", TensorProto.FLOAT, ["batch", "samples"]),
        helper.make_tensor_value_info("next", TensorProto.FLOAT, [2, "batch"]),
    ]
    graph = helper.make_graph(nodes, "gated", [x, state, rate], outputs)
    return helper.make_model(graph, opset_imports=[helper.make_opsetid("", 21)], ir_version=10)


@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("rate", [16000, np.array(8000, np.int32)])
def test_settled_values_decide_branches_and_symbols(rate: object, layout: str) -> None:
    model = gated_model()
    given = model.SerializeToString()
    options = {"input_shapes": {"x": (3, 4)}, "constant_inputs": {"rate": rate}}
    graph = netforge.from_onnx(model, layout, **options)
    assert model.SerializeToString() == given
    assert [(tensor.name, list(tensor.dims)) for tensor in graph.graphInputs] == [
        ("x", [3, 4]),
        ("state", [2, 3]),
    ]
    assert not any(tensor.dynamicAxes for tensor in graph.tensors.values())
    x, state = np.arange(12, dtype=np.float32).reshape(3, 4), np.ones((2, 3), np.float32)
    session = onnxruntime.InferenceSession(netforge.to_onnx(graph).SerializeToString())
    y, after = session.run(None, {"x": x, "state": state})
    np.testing.assert_array_equal(y, x * x if rate == 16000 else x + x)
    np.testing.assert_array_equal(after, -state)


@pytest.mark.parametrize(
    ("options", "message"),
    [
        ({"input_shapes": {"y": [1]}}, "the model has no input 'y'; it has x, state, rate"),
        ({"input_shapes": {"x": [1, 2, 3]}}, "input 'x' is of rank 2, not 3"),
        ({"input_shapes": {"state": [3, 1]}}, "axis 0 of input 'state' is of size 2, not 3"),
        ({"input_shapes": {"x": [1, 4], "state": [2, 3]}}, "axis 1 of input 'state' is of size 1, not 3"),
        ({"input_shapes": {"x": [-1, 4]}}, "axis 0 of input 'x' can't be of size -1"),
        ({"constant_inputs": {"rate": [16000]}}, "input 'rate' is of rank 0, not 1"),
        ({"constant_inputs": {"rate": 0.5}}, "input 'rate' of type int64 can't have the value 0.5"),
        ({"constant_inputs": {"rate": "fast"}}, "input 'rate' of type int64 can't have the value 'fast'"),
    ],
)
def test_what_does_not_fit_is_named(options: dict, message: str) -> None:
    with pytest.raises(OnnxImportError) as caught:
        netforge.from_onnx(gated_model(), **options)
    assert caught.value.reason == message


@pytest.mark.parametrize("nodes", [slice(3, None), slice(None)], ids=["shape", "value"])
def test_the_command_settles_and_checks(nodes: slice, tmp_path: Path) -> None:
    model = gated_model()
    line = [
        sys.executable,
        "-m",
        "netforge",
        "optimize",
        "gated.onnx",
        "--check",
        "--input-shape",
        "state=2,3",
    ]
    if nodes.start:  # the negation alone, which has no rate
        kept = model.graph.node[nodes]
        del model.graph.node[:], model.graph.input[2], model.graph.input[0], model.graph.output[0]
        model.graph.node.extend(kept)
    else:
        line += ["--input-value", "rate=16000", "--input-shape", "x=3,4"]
    onnx.save(model, tmp_path / "gated.onnx")
    done = subprocess.run(line, cwd=tmp_path, capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr
    assert "worst: same bits" in done.stdout
