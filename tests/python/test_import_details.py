"""Names, constants, layouts and variants that the published cases don't reach."""

from __future__ import annotations

from pathlib import Path

import netforge
import numpy as np
import onnx
import onnxruntime
import pytest
from import_cases import COMPLETE, LAYOUTS, check_graph
from onnx import TensorProto, helper, numpy_helper
from test_import_errors import model_of, value


def const(name: str, array: object, dtype: type = np.float32) -> TensorProto:
    return numpy_helper.from_array(np.asarray(array, dtype), name)


def rand(name: str, *dims: int) -> TensorProto:
    return const(name, np.random.default_rng(len(name) + sum(dims)).uniform(0.5, 1.5, dims))


def run(model: onnx.ModelProto, feeds: dict[str, np.ndarray]) -> list[np.ndarray]:
    options = onnxruntime.SessionOptions()
    options.log_severity_level = 3
    data = model.SerializeToString()
    return onnxruntime.InferenceSession(data, options, providers=["CPUExecutionProvider"]).run(None, feeds)


def types(graph: netforge.IrGraph) -> list[str]:
    return [op.type for op in graph.ops]


def node(op_type: str, *inputs: str, **attributes: object) -> onnx.NodeProto:
    return helper.make_node(op_type, list(inputs), ["y"], **attributes)


I64 = np.int64
# what -> (opset, node, dims of x, dims of y, constants, types in the model's layout)
VARIANTS = {
    "conv of one axis": (17, node("Conv", "x", "w", "b", pads=[2, 0], strides=[2], dilations=[2]),
        [2, 4, 9], [2, 6, 4], [rand("w", 6, 4, 3), rand("b", 6)], ["ExpandDims", "Conv2d", "Reshape"]),
    "conv of one axis, unknown length": (17, node("Conv", "x", "w"), ["n", 4, "t"], ["n", 6, "s"],
        [rand("w", 6, 4, 3)], ["ExpandDims", "Conv2d", "Reshape"]),
    "transposed conv of one axis": (17,
        node("ConvTranspose", "x", "w", strides=[3], output_padding=[1], pads=[1, 0], group=2), [1, 4, 5],
        [1, 6, 15], [rand("w", 4, 3, 3)], ["ExpandDims", "TransposeConv2d", "Reshape"]),
    "conv, same size of unknown axes": (17, node("Conv", "x", "w", auto_pad="SAME_LOWER", strides=[2, 2]),
        [1, 3, "h", "w"], [1, 5, "u", "v"], [rand("w", 5, 3, 4, 3)], ["Conv2d"]),
    "conv, grouped": (17, node("Conv", "x", "w", group=2), [1, 4, 6, 5], [1, 6, 4, 3],
        [rand("w", 6, 2, 3, 3)], ["Conv2d"]),
    "depthwise with multiplier": (17, node("Conv", "x", "w", group=3), [1, 3, 6, 5], [1, 6, 4, 3],
        [rand("w", 6, 1, 3, 3)], ["DepthWiseConv2d"]),
    "conv of three axes": (17, node("Conv", "x", "w", pads=[1, 0, 2, 0, 1, 0]), [1, 2, 4, 5, 6],
        [1, 3, 3, 5, 6], [rand("w", 3, 2, 3, 2, 3)], ["Conv3d"]),
    "gemm": (17, node("Gemm", "x", "w", "b", transB=1), [5, 3], [5, 4], [rand("w", 4, 3), rand("b", 4)],
        ["Transpose", "FullyConnected"]),
    "gemm, scaled": (17, node("Gemm", "x", "w", "b", alpha=0.5, beta=2.0, transA=1), [3, 5], [5, 4],
        [rand("w", 3, 4), rand("b", 1)], ["MatMul", "Eltwise_Binary", "Eltwise_Binary", "Eltwise_Binary"]),
    "vector product": (17, node("MatMul", "x", "w"), [2, 3, 4], [2, 3], [rand("w", 4)],
        ["ExpandDims", "MatMul", "Reshape"]),
    "old softmax flattens": (11, node("Softmax", "x", axis=1), [2, 3, 4], [2, 3, 4], [],
        ["Reshape", "Softmax", "Reshape"]),
    "old softmax of the last axis": (11, node("Softmax", "x", axis=2), [2, 3, 4], [2, 3, 4], [], ["Softmax"]),
    "old clip": (7, node("Clip", "x", min=-0.5, max=0.5), [2, 3], [2, 3], [], ["ElementWiseNeuron"]),
    "one-sided clip": (13, node("Clip", "x", "", "w"), [2, 3], [2, 3], [const("w", 0.5)], ["Eltwise_Binary"]),
    "crossed clip": (13, node("Clip", "x", "v", "w"), [2, 3], [2, 3], [const("v", 1), const("w", 0)],
        ["Eltwise_Binary", "Eltwise_Binary"]),
    "old upsample": (9, node("Upsample", "x", "s", mode="nearest"), [1, 2, 3, 3], [1, 2, 6, 9],
        [const("s", [1, 1, 2, 3])], ["Resize"]),
    "old top k": (9, node("TopK", "x", k=2, axis=0), [4, 3], [2, 3], [], ["Transpose", "TopK", "Transpose"]),
    "slice backwards": (13, node("Slice", "x", "a", "b", "", "s"), [5, 4], [3, 4],
        [const("a", [-1], I64), const("b", [-9], I64), const("s", [-2], I64)], None),
    "slice of an unknown batch": (13, node("Slice", "x", "a", "b", "i"), ["n", 4], ["n", 2],
        [const("a", [1], I64), const("b", [1 << 60], I64), const("i", [-1], I64)], None),
    "empty slice": (13, node("Slice", "x", "a", "a"), [5, 4], [0, 4], [const("a", [2], I64)], ["Slice"]),
    "scalar index": (13, node("Gather", "x", "i", axis=1), ["n", 4, 3], ["n", 3], [const("i", -1, I64)],
        ["Gather", "Reshape"]),
    "unsqueeze far back": (13, node("Unsqueeze", "x", "a"), [2, 3], [1, 2, 3, 1],
        [const("a", [-1, 0], I64)], ["ExpandDims", "ExpandDims"]),
    "reshape of unknown sizes": (13, node("Reshape", "x", "s"), ["n", 3, 4], ["n", 12],
        [const("s", [0, -1], I64)], ["Reshape"]),
    "full reduction": (17, node("ReduceMean", "x", keepdims=0), [2, 3], [], [], ["Reduce", "Reshape"]),
    "reduction of nothing": (18, node("ReduceSum", "x", "a", noop_with_empty_axes=1), [2, 3], [2, 3],
        [const("a", [], I64)], ["Identity"]),
    "signed division": (17, node("Div", "x", "w"), [2, 3], [2, 3], [const("w", [[2, 3, -2]], np.int32)],
        ["Div"]),
    "unsigned division": (17, node("Div", "x", "w"), [2, 3], [2, 3], [const("w", [[2, 3, 4]], np.uint8)],
        ["Eltwise_Binary"]),
    "pad that cuts": (13, node("Pad", "x", "p"), [3, 3], [2, 4], [const("p", [-1, 0, 0, 1], I64)],
        ["OnnxPad"]),
    "channel slopes": (17, node("PRelu", "x", "s"), [1, 3, 2, 2], [1, 3, 2, 2], [rand("s", 3, 1, 1)],
        ["Prelu"]),
    "last index of equals": (13, node("ArgMax", "x", axis=1, select_last_index=1), [2, 3], [2, 1], [],
        ["ArgMax"]),
    "batch norm of a matrix": (15, node("BatchNormalization", "x", "w", "b", "b", "w"), [2, 3], [2, 3],
        [rand("w", 3), rand("b", 3)], ["Batchnorm"]),
    "resize of the channels": (13, node("Resize", "x", "", "s"), [1, 2, 3, 3], [1, 4, 3, 3],
        [const("s", [1, 2, 1, 1])], ["OnnxResize"]),
}  # fmt: skip


@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("what", VARIANTS)
def test_variant_keeps_its_values(what: str, layout: str, capfd) -> None:
    opset, operator, dims, out_dims, constants, expected = VARIANTS[what]
    kind = constants[0].data_type if what.endswith("division") else TensorProto.FLOAT
    out_kind = TensorProto.INT64 if operator.op_type == "ArgMax" else kind
    operator = onnx.NodeProto.FromString(operator.SerializeToString())
    if operator.op_type == "TopK":
        operator.output.append("places")
    model = model_of([operator], [value("x", dims, kind)], [value("y", out_dims, out_kind)], constants, opset)
    graph = netforge.from_onnx(model, layout)
    check_graph(graph, model)
    assert capfd.readouterr().out.splitlines() == [COMPLETE]
    if expected is not None and layout == "source":
        assert types(graph) == expected
    sizes = [size if isinstance(size, int) else 7 for size in dims]
    data = np.random.default_rng(3).uniform(-4, 4, sizes).astype(helper.tensor_dtype_to_np_dtype(kind))
    for got, want in zip(run(netforge.to_onnx(graph), {"x": data}), run(model, {"x": data}), strict=True):
        assert got.dtype == want.dtype
        np.testing.assert_allclose(got, want, rtol=1e-4, atol=1e-5)


def conv_chain() -> onnx.ModelProto:
    nodes = [
        helper.make_node("Conv", ["x", "w1"], ["a"], name="first"),
        helper.make_node("Conv", ["a", "w2"], ["b"]),
        helper.make_node("Relu", ["b"], ["r"], name="first"),
        helper.make_node("Dropout", ["r"], ["d"]),
        helper.make_node("Conv", ["d", "w2"], ["y"], name=""),
    ]
    weights = [rand("w1", 5, 3, 3, 3), rand("w2", 5, 5, 1, 1)]
    return model_of(
        nodes, [value("x", [1, 3, 6, 7])], [value("b", None), value("y", [1, 5, 4, 5])], weights, 11
    )


def test_names_survive_and_layouts_share_transposes() -> None:
    graph = netforge.from_onnx(conv_chain())
    names = [(op.type, op.name) for op in graph.ops if op.type != "Transpose"]
    assert names == [("Conv2d", "first"), ("Conv2d", "b"), ("ElementWiseNeuron", "first_1"), ("Conv2d", "y")]
    assert graph.sourceOpNames == ["first", "b", "first_1", "d", "y"]
    first, second = graph.getOp("first"), graph.getOp("b")
    # Neighbouring convolutions hand their channel-last tensor on, under the model's name.
    assert first.outputs[0].name == second.inputs[0].name == "a"
    assert (first.outputs[0].axisFormat, first.outputs[0].srcAxisFormat) == (
        netforge.AxisFormat.NHWC,
        netforge.AxisFormat.NCHW,
    )
    # The output that the application reads has the model's layout and name, for the Relu too.
    assert second.outputs[0].name == "b.NHWC"
    assert [tensor.name for tensor in graph.getOp("first_1").inputs] == ["b"]
    assert graph.getTensor("b").isGraphOutput()
    # Two readers of one weight share its Transpose.
    assert second.inputs[1].name == graph.getOp("y").inputs[1].name == "w2.HWIO"
    assert graph.getTensor("w2").axisFormat == netforge.AxisFormat.OIHW
    assert netforge.import_account(graph).merged_nodes == ["d"]
    op_kind, tensor_kind = netforge.TraceKind.Op, netforge.TraceKind.Tensor
    sources = [(source.name, source.kind) for source in graph.getTraceInfo(op_kind, "y")]
    assert sources == [("y", op_kind), ("d", op_kind), ("d", tensor_kind)]


def test_constants_are_borrowed_and_stay_in_their_files(tmp_path: Path) -> None:
    kinds = (np.float32, np.float16, np.int64)
    arrays = {f"w{kind.__name__}": np.arange(2048).reshape(32, 64).astype(kind) for kind in kinds}
    nodes = [helper.make_node("Add", [f"x{name}", name], [f"y{name}"]) for name in arrays]
    infos = {name: helper.np_dtype_to_tensor_dtype(array.dtype) for name, array in arrays.items()}
    inputs = [value(f"x{name}", [32, 64], kind) for name, kind in infos.items()]
    outputs = [value(f"y{name}", [32, 64], kind) for name, kind in infos.items()]
    tensors = [numpy_helper.from_array(array, name) for name, array in arrays.items()]
    model = model_of(nodes, inputs, outputs, tensors)
    inside, outside = tmp_path / "inside.onnx", tmp_path / "outside.onnx"
    onnx.save(model, inside)
    onnx.save_model(model, outside, save_as_external_data=True, location="weights.bin", size_threshold=0)

    held = {name: netforge.from_onnx(inside).getStaticTensor(name) for name in arrays}
    graph = netforge.from_onnx(outside)
    inside.unlink()
    for name, array in arrays.items():
        assert held[name].isDataBorrowed() and held[name].isDataLoaded()
        np.testing.assert_array_equal(held[name].numpy(), array)
        tensor = graph.getStaticTensor(name)
        # Half floats in a file would be taken for 32-bit ones by the graph.
        assert tensor.isDataLoaded() == (array.dtype == np.float16)
        np.testing.assert_array_equal(tensor.numpy(), array)


def test_shape_arithmetic_folds_and_unknown_sizes_survive(capfd) -> None:
    nodes = [
        helper.make_node("Shape", ["x"], ["shape"]),
        helper.make_node("Gather", ["shape", "zero"], ["n"]),
        helper.make_node("Unsqueeze", ["n", "axes"], ["n1"]),
        helper.make_node("Concat", ["n1", "rest"], ["target"], axis=0),
        helper.make_node("Reshape", ["x", "target"], ["y"]),
    ]
    constants = [const("zero", 0, I64), const("axes", [0], I64), const("rest", [12], I64)]
    for batch, outcome in ((2, []), ("n", [0])):
        model = model_of(nodes, [value("x", [batch, 3, 4])], [value("y", [batch, 12])], constants)
        graph = netforge.from_onnx(model)
        assert types(graph) == ["Reshape"]
        assert list(graph.graphOutputs[0].dynamicAxes) == outcome
        check_graph(graph, model)
    assert set(capfd.readouterr().out.splitlines()) == {COMPLETE}


def test_decided_if_takes_its_branch_and_functions_are_inlined(capfd) -> None:
    def branch(name: str, op_type: str) -> onnx.GraphProto:
        inner = [helper.make_node(op_type, ["x"], ["t"]), helper.make_node("Add", ["t", "k"], ["r"])]
        return helper.make_graph(inner, name, [], [value("r", [2])], [const("k", [1, 2])])

    choice = helper.make_node(
        "If", ["c"], ["m"], then_branch=branch("then", "Relu"), else_branch=branch("else", "Abs")
    )
    function = helper.make_function(
        "own",
        "Twice",
        ["a"],
        ["b"],
        [helper.make_node("Add", ["a", "a"], ["b"])],
        [helper.make_opsetid("", 17)],
    )
    twice = helper.make_node("Twice", ["m"], ["y"], domain="own")
    model = model_of(
        [choice, twice],
        [value("x", [2])],
        [value("y", [2])],
        [const("c", False, bool)],
        imports=[helper.make_opsetid("own", 1)],
        functions=[function],
    )
    graph = netforge.from_onnx(model)
    check_graph(graph, model)
    assert capfd.readouterr().out.splitlines() == [COMPLETE]
    assert types(graph) == ["Eltwise_Unary", "Eltwise_Binary", "Eltwise_Binary"]
    data = np.array([-3, 2], np.float32)
    np.testing.assert_array_equal(run(netforge.to_onnx(graph), {"x": data})[0], [8, 8])


def test_plain_op_keeps_attributes_and_places() -> None:
    settings = {"hidden_size": 2, "activations": ["Sigmoid", "Tanh", "Relu"], "clip": 0.5}
    nodes = [
        helper.make_node("LSTM", ["x", "w", "r", "", "", "h"], ["", "last"], **settings),
        helper.make_node("OneHot", ["i", "depth", "values"], ["hot"], axis=-1),
    ]
    weights = [rand("w", 1, 8, 3), rand("r", 1, 8, 2), rand("h", 1, 1, 2)]
    constants = [*weights, const("depth", 4, I64), const("values", [0, 1])]
    inputs = [value("x", [5, 1, 3]), value("i", [2], TensorProto.INT64)]
    model = model_of(nodes, inputs, [value("last", [1, 1, 2]), value("hot", [2, 4])], constants)
    graph = netforge.from_onnx(model)
    lstm, hot = graph.ops
    assert (lstm.type, hot.type) == ("LSTM", "OneHot")
    attributes = lstm.attributes
    assert attributes["activations"] == '["Sigmoid", "Tanh", "Relu"]'
    assert (attributes["hidden_size"], attributes["clip"], attributes["onnx_opset"]) == (2, 0.5, 17)
    assert attributes["onnx_input_positions"].numpy().tolist() == [0, 1, 2, 5]
    assert attributes["onnx_output_positions"].numpy().tolist() == [1]
    assert hot.attributes["onnx_scalar_inputs"].numpy().tolist() == [1]
    assert netforge.import_account(graph).plain_ops == {"LSTM": 1, "OneHot": 1}
    feeds = {"x": np.ones((5, 1, 3), np.float32), "i": np.array([3, 0])}
    for got, want in zip(run(netforge.to_onnx(graph), feeds), run(model, feeds), strict=True):
        np.testing.assert_array_equal(got, want)


def test_constant_outputs_have_a_producer(capfd) -> None:
    nodes = [helper.make_node("Add", ["a", "a"], ["y"]), helper.make_node("Size", ["x"], ["count"])]
    outputs = [value("y", [2]), value("count", [], TensorProto.INT64), value("a", [2])]
    model = model_of(nodes, [value("x", [3, 5])], outputs, [const("a", [1, 2])])
    graph = netforge.from_onnx(model)
    check_graph(graph, model)
    assert capfd.readouterr().out.splitlines() == [COMPLETE]
    y, count, a = run(netforge.to_onnx(graph), {"x": np.zeros((3, 5), np.float32)})
    assert (y.tolist(), int(count), count.shape, a.tolist()) == ([2, 4], 15, (), [1, 2])


def test_the_same_model_gives_the_same_graph() -> None:
    dumps = []
    for _ in range(2):
        graph = netforge.from_onnx(conv_chain())
        lines = [f"{op} {[t.name for t in op.inputs]} {[t.name for t in op.outputs]}" for op in graph.ops]
        dumps.append(lines + [str(tensor) for tensor in graph.getTensors().values()])
    assert dumps[0] == dumps[1]


def test_progress_rises_to_one() -> None:
    seen: list[tuple[float, str]] = []
    netforge.from_onnx(conv_chain(), progress=lambda fraction, what: seen.append((fraction, what)))
    fractions = [fraction for fraction, _ in seen]
    assert fractions == sorted(fractions) and fractions[-1] == 1.0
    assert all(what for _, what in seen)
