"""Whole graphs out: real networks, names, varying axes, versions, constants outside the model."""

from __future__ import annotations

from pathlib import Path

import netforge
import numpy as np
import onnx
import pytest
from export_graphs import ORDERS, data_type, make_op, run
from netforge import IrStaticTensor, IrTensor, TensorType
from onnx import TensorProto, helper, numpy_helper

LIGHT = Path(onnx.__file__).parent / "backend/test/data/light"
FLOAT = TensorProto.FLOAT


@pytest.mark.parametrize("network", ["squeezenet", "shufflenet", "inception_v1"])
def test_networks_compute_the_same_in_both_layouts(network: str) -> None:
    path = LIGHT / f"light_{network}.onnx"
    source, spatial = (
        netforge.from_onnx(path, form, random_weights=3) for form in ("source", "spatial_first")
    )
    report = netforge.check(source, spatial, regimes=["normal", "integers"])
    assert report.ok, report
    assert report.precision == "double (reference)"
    model, given = netforge.to_onnx(spatial), onnx.load(path).graph
    constants = {tensor.name for tensor in given.initializer}
    assert list(model.graph.input) == [info for info in given.input if info.name not in constants]
    assert list(model.graph.output) == list(given.output)


def test_the_imported_network_computes_what_its_file_does() -> None:
    """Weights that are fills of one value are what the file has."""
    path = LIGHT / "light_squeezenet.onnx"
    assert netforge.check(path, netforge.from_onnx(path), regimes=["normal"]).ok


def test_transposes_between_layouts_are_left_out() -> None:
    """Channel-last convolutions in a row need no way there and back between each two."""
    kernels = np.random.default_rng(0).standard_normal((2, 3, 3, 4, 4)).astype(np.float32)
    graph = netforge.IrGraph("chain", ORDERS["first"]())
    kind = data_type("f4")
    graph.addTensor(IrTensor("x", [1, 9, 8, 4], kind, tensorType=TensorType.GraphInput))
    graph.addTensor(IrTensor("y", [1, 5, 4, 4], kind, tensorType=TensorType.GraphOutput))
    values = {"stride": np.uint32([1, 1]), "pad_amount": np.zeros((2, 2), np.uint32)}
    for name, source, target, dims, kernel in (
        ("a", "x", "m", [1, 7, 6, 4], 0),
        ("b", "m", "y", [1, 5, 4, 4], 1),
    ):
        graph.addTensor(IrStaticTensor(f"w{kernel}", kernels[kernel], copy=True))
        graph.addOp(make_op("Conv2d", name, values), [source, f"w{kernel}"], [target], outputShapes=[dims])
    types = [node.op_type for node in netforge.to_onnx(graph).graph.node]
    assert types == ["Transpose", "Conv", "Conv", "Transpose"]


def test_names_are_kept_and_made_up_ones_give_way() -> None:
    """Tensors that bear the very names which the writer makes up for values in between."""
    graph = netforge.IrGraph("names", ORDERS["last"]())
    kind = data_type("f4")
    x = np.float32([[1, 4], [9, 16]])
    for name in ("x", "y_step"):
        graph.addTensor(IrTensor(name, [2, 2], kind, tensorType=TensorType.GraphInput))
    graph.addTensor(IrTensor("y", [2, 2], kind, tensorType=TensorType.GraphOutput))
    graph.addTensor(IrTensor("op_constant", [2, 2], kind))
    graph.addOp(
        make_op("Eltwise_Unary", "op", {"operation": np.uint32(12)}), ["x"], ["op_constant"], [[2, 2]]
    )
    graph.addOp(
        make_op("Eltwise_Binary", "y_step_1", {"operation": np.uint32(14)}),
        ["op_constant", "y_step"],
        ["y"],
        [[2, 2]],
    )
    model = netforge.to_onnx(graph)
    (found,) = run(model, {"x": x, "y_step": np.float32([[1, 0.5], [0, 0.25]])})
    np.testing.assert_array_equal(found, np.float32([[0, 0], [1, 0]]))
    assert model.SerializeToString() == netforge.to_onnx(graph).SerializeToString()


def test_axes_that_vary_stay_open() -> None:
    nodes = [
        helper.make_node("Reshape", ["x", "s"], ["r"]),
        helper.make_node("Transpose", ["r"], ["t"], perm=[0, 2, 1]),
        helper.make_node("MatMul", ["t", "w"], ["y"]),
    ]
    constants = [
        numpy_helper.from_array(np.array([0, 3, -1], np.int64), "s"),
        numpy_helper.from_array(np.arange(12, dtype=np.float32).reshape(3, 4), "w"),
    ]
    x = helper.make_tensor_value_info("x", FLOAT, ["batch", 6, 2])
    y = helper.make_tensor_value_info("y", FLOAT, ["batch", 4, 4])
    given = helper.make_model(
        helper.make_graph(nodes, "open", [x], [y], constants),
        opset_imports=[helper.make_opsetid("", 17)],
        ir_version=8,
    )
    model = netforge.to_onnx(netforge.from_onnx(given))
    for batch in (1, 5):
        data = np.random.default_rng(batch).standard_normal((batch, 6, 2)).astype(np.float32)
        np.testing.assert_array_equal(*(run(form, {"x": data})[0] for form in (model, given)))


def _one_node(
    op_type: str, opset: int, inputs: dict[str, np.ndarray], outputs: list[tuple], **attributes
) -> onnx.ModelProto:
    """A model of one operator; all inputs but the first are constants."""
    (first, data), *rest = inputs.items()
    graph = helper.make_graph(
        [helper.make_node(op_type, list(inputs), [name for name, _, _ in outputs], **attributes)],
        "one",
        [helper.make_tensor_value_info(first, helper.np_dtype_to_tensor_dtype(data.dtype), data.shape)],
        [helper.make_tensor_value_info(name, kind, dims) for name, kind, dims in outputs],
        [numpy_helper.from_array(array, name) for name, array in rest],
    )
    return helper.make_model(graph, opset_imports=[helper.make_opsetid("", opset)], ir_version=6)


SQUARE = np.arange(16, dtype=np.float32).reshape(4, 4)
INDICES = np.array([[1, 0], [3, 2]], np.int64)


IMAGE = SQUARE.reshape(1, 1, 4, 4)
OLDER = {
    "axis meant otherwise before": (
        _one_node("Hardmax", 9, {"x": SQUARE}, [("y", FLOAT, [4, 4])]),
        "Hardmax",
    ),
    "axes that counted as one": (
        _one_node("Hardmax", 11, {"x": SQUARE.reshape(2, 2, 4)}, [("y", FLOAT, [2, 2, 4])], axis=-2),
        "Flatten",
    ),
    "renamed": (
        _one_node(
            "Scatter", 9, {"x": SQUARE, "i": INDICES, "u": SQUARE[:2, :2]}, [("y", FLOAT, [4, 4])], axis=1
        ),
        "ScatterElements",
    ),
    "the same since": (
        _one_node("Shrink", 9, {"x": SQUARE}, [("y", FLOAT, [4, 4])], lambd=3.0, bias=1.0),
        "Shrink",
    ),
    "images laid corner on corner": (
        _one_node(
            "Resize",
            10,
            {"x": SQUARE.reshape(1, 2, 2, 4), "s": np.float32([1, 2, 1, 1])},
            [("y", FLOAT, [1, 4, 2, 4])],
            mode="linear",
        ),
        "Resize",
    ),
    "regions half a pixel off": (
        _one_node(
            "RoiAlign",
            10,
            {"x": IMAGE, "r": np.float32([[0, 0, 3, 3]]), "b": np.zeros(1, np.int64)},
            [("y", FLOAT, [1, 1, 2, 2])],
            output_height=2,
            output_width=2,
        ),
        "RoiAlign",
    ),
    "mode under another name": (
        _one_node(
            "GridSample",
            16,
            {"x": IMAGE, "g": np.float32([[[[0.3, -0.2], [0.5, 0.9]]]])},
            [("y", FLOAT, [1, 1, 1, 2])],
        ),
        "GridSample",
    ),
}


@pytest.mark.parametrize(("model", "written"), OLDER.values(), ids=OLDER)
def test_operators_of_older_versions_keep_their_sense(model: onnx.ModelProto, written: str) -> None:
    exported = netforge.to_onnx(netforge.from_onnx(model, "source"), opset=21)
    assert written in [node.op_type for node in exported.graph.node]
    dims = [size.dim_value for size in model.graph.input[0].type.tensor_type.shape.dim]
    data = {"x": SQUARE.reshape(dims) + 1}
    np.testing.assert_array_equal(*(run(form, data)[0] for form in (exported, model)))


def test_constants_lie_outside_on_request_and_beyond_the_limit(tmp_path: Path, monkeypatch) -> None:
    graph = netforge.from_onnx(LIGHT / "light_squeezenet.onnx", "source", random_weights=1)
    inside, beside = netforge.to_onnx(graph), tmp_path / "weights.bin"
    outside = netforge.to_onnx(graph, external_data=beside)
    assert beside.stat().st_size > 4_000_000 > 200_000 > outside.ByteSize()
    onnx.save(outside, tmp_path / "by_hand.onnx")
    netforge.save_onnx(graph, tmp_path / "saved.onnx", external_data=True)
    assert (tmp_path / "saved.onnx.data").exists()
    for name in ("by_hand.onnx", "saved.onnx"):
        onnx.checker.check_model(tmp_path / name, full_check=True)
        found = onnx.load(tmp_path / name).graph.initializer
        assert [numpy_helper.to_array(t).tobytes() for t in found] == [
            numpy_helper.to_array(t).tobytes() for t in inside.graph.initializer
        ]
    with pytest.raises(netforge.OnnxExportError, match="no file name"):
        netforge.save_onnx(graph, tmp_path / "elsewhere.onnx", external_data="../weights.bin")
    monkeypatch.setattr("netforge.onnx_export.exporter.LARGEST_INSIDE", 4_000_000)
    netforge.save_onnx(graph, tmp_path / "large.onnx")
    assert (tmp_path / "large.onnx.data").stat().st_size > 4_000_000
    with pytest.raises(netforge.OnnxExportError, match="name a file for external data"):
        netforge.to_onnx(graph)


def test_a_constant_output_comes_out() -> None:
    graph = netforge.IrGraph("constant", ORDERS["last"]())
    data = np.float32([[1, 2]])
    graph.addTensor(IrTensor("x", [1, 2], data_type("f4"), tensorType=TensorType.GraphInput))
    graph.addTensor(IrTensor("y", [1, 2], data_type("f4"), tensorType=TensorType.GraphOutput))
    graph.addTensor(IrStaticTensor("c", data, tensorType=TensorType.GraphOutput, copy=True))
    graph.addOp(make_op("Eltwise_Binary", "op", {"operation": np.uint32(0)}), ["x", "c"], ["y"], [[1, 2]])
    found = run(netforge.to_onnx(graph), {"x": data})
    names = [tensor.name for tensor in graph.graphOutputs]
    assert {name: array.tolist() for name, array in zip(names, found, strict=True)} == {
        "y": [[2, 4]],
        "c": [[1, 2]],
    }
