"""What can't be imported ends in one error that names file, node and reason; nothing else comes out."""

from __future__ import annotations

import random
from pathlib import Path

import netforge
import numpy as np
import onnx
import pytest
from onnx import TensorProto, helper, numpy_helper


def value(name: str, dims: list | None, elem_type: int = TensorProto.FLOAT) -> onnx.ValueInfoProto:
    return helper.make_tensor_value_info(name, elem_type, dims)


def model_of(nodes, inputs, outputs, initializers=(), opset: int = 17, **rest) -> onnx.ModelProto:
    graph = helper.make_graph(nodes, "net", inputs, outputs, list(initializers))
    imports = [helper.make_opsetid("", opset), *rest.pop("imports", [])]
    return helper.make_model(graph, opset_imports=imports, ir_version=8, **rest)


def relu_model() -> onnx.ModelProto:
    weight = numpy_helper.from_array(np.arange(4096, dtype=np.float32).reshape(64, 64), "w")
    nodes = [helper.make_node("MatMul", ["x", "w"], ["m"]), helper.make_node("Relu", ["m"], ["y"])]
    return model_of(nodes, [value("x", [2, 64])], [value("y", [2, 64])], [weight])


def loop_model() -> onnx.ModelProto:
    body = helper.make_graph(
        [helper.make_node("Identity", ["c"], ["c2"]), helper.make_node("Relu", ["v"], ["v2"])],
        "body",
        [value("i", [], TensorProto.INT64), value("c", [], TensorProto.BOOL), value("v", [2])],
        [value("c2", [], TensorProto.BOOL), value("v2", [2])],
    )
    loop = helper.make_node("Loop", ["n", "", "x"], ["y"], name="again", body=body)
    return model_of([loop], [value("n", [], TensorProto.INT64), value("x", [2])], [value("y", [2])])


def text_model() -> onnx.ModelProto:
    node = helper.make_node("Identity", ["x"], ["y"], name="same")
    return model_of([node], [value("x", [2], TensorProto.STRING)], [value("y", [2], TensorProto.STRING)])


def node_model(op_type: str, outputs: list, inputs=("x",), **attributes) -> onnx.ModelProto:
    node = helper.make_node(op_type, list(inputs), [info.name for info in outputs], name="n", **attributes)
    return model_of([node], [value("x", [2, 3])], outputs)


def sequence_model() -> onnx.ModelProto:
    nodes = [
        helper.make_node("SequenceConstruct", ["x"], ["s"], name="pack"),
        helper.make_node("ConcatFromSequence", ["s"], ["y"], axis=0),
    ]
    return model_of(nodes, [value("x", [2])], [value("y", [2])])


def unknown_rank_model() -> onnx.ModelProto:
    node = helper.make_node("Reshape", ["x", "to"], ["r"], name="flexible")
    nodes = [node, helper.make_node("ReduceSum", ["r"], ["y"], keepdims=0)]
    inputs = [value("x", [6]), value("to", ["n"], TensorProto.INT64)]
    return model_of(nodes, inputs, [value("y", [])])


def mismatch_model() -> onnx.ModelProto:
    nodes = [helper.make_node("MatMul", ["x", "x"], ["y"], name="product")]
    return model_of(nodes, [value("x", [2, 3])], [value("y", [2, 3])])


REFUSED = {
    "no opset": (onnx.ModelProto(), None, "names no opset version"),
    "old opset": (
        model_of([helper.make_node("Relu", ["x"], ["y"])], [value("x", [1])], [value("y", [1])], opset=6),
        None,
        "opset version 6 is not supported",
    ),
    "future opset": (
        model_of([helper.make_node("Relu", ["x"], ["y"])], [value("x", [1])], [value("y", [1])], opset=999),
        None,
        "opset version 999 is newer",
    ),
    "unknown operator": (node_model("NoSuchThing", [value("y", [2, 3])]), None, "NoSuchThing"),
    "reading nothing": (node_model("Relu", [value("y", [2, 3])], inputs=["ghost"]), None, "ghost"),
    "text": (text_model(), None, "element type string"),
    "eight-bit floats": (
        model_of(
            [helper.make_node("Cast", ["x"], ["y"], name="c", to=TensorProto.FLOAT8E5M2)],
            [value("x", [2])],
            [value("y", [2], TensorProto.FLOAT8E5M2)],
            opset=19,
        ),
        "'c' (Cast)",
        "element type float8e5m2",
    ),
    "subgraph": (loop_model(), "'again' (Loop)", "attribute 'body' holds subgraphs"),
    "sequence": (sequence_model(), "'pack' (SequenceConstruct)", "'s' is a sequence"),
    "no inputs": (
        node_model("RandomNormal", [value("y", [2])], inputs=(), shape=[2]),
        "'n' (RandomNormal)",
        "without inputs",
    ),
    "unknown rank": (unknown_rank_model(), "'flexible' (Reshape)", "'r' can't be inferred"),
    "shapes that clash": (mismatch_model(), "'product' (MatMul)", "its shapes don't fit"),
    "input without shape": (
        model_of([helper.make_node("Relu", ["x"], ["y"])], [value("x", None)], [value("y", None)]),
        None,
        "Field 'shape' of 'type' is required but missing",
    ),
    "input shown as output": (
        model_of(
            [helper.make_node("Relu", ["x"], ["y"])], [value("x", [1])], [value("y", [1]), value("x", [1])]
        ),
        None,
        "'x' is a graph input and a graph output",
    ),
}


@pytest.mark.parametrize("what", REFUSED)
def test_refusal_names_file_node_and_reason(what: str, tmp_path: Path) -> None:
    model, node, reason = REFUSED[what]
    path = tmp_path / "model.onnx"
    path.write_bytes(model.SerializeToString())
    account = netforge.ImportAccount()
    for source in (model, path):
        with pytest.raises(netforge.OnnxImportError) as caught:
            netforge.from_onnx(source, account=account)
        error = caught.value
        assert isinstance(error, ValueError)
        assert reason in error.reason and error.node == node
        assert error.file == (str(path) if source is path else None)
        assert str(error).startswith(str(path) if source is path else "<model in memory>")
        assert "\n" not in str(error)
    assert len(account.refused) == 2


def test_broken_files_end_in_the_error_and_nothing_else(tmp_path: Path) -> None:
    """Cut anywhere, or with bytes changed anywhere, a file imports or is refused, and nothing else."""
    data = relu_model().SerializeToString()
    path = tmp_path / "broken.onnx"
    chance = random.Random(7)
    variants = [data[: chance.randrange(1, len(data))] for _ in range(60)]
    for _ in range(200):
        changed = bytearray(data)
        for _ in range(chance.choice((1, 1, 4))):
            # Most faults lie in the structure, which is a small part of the file.
            at = chance.choice((chance.randrange(120), chance.randrange(len(data) - 120, len(data))))
            changed[at] = chance.randrange(256)
        variants.append(bytes(changed))
    refused = 0
    for variant in (b"", b"no model at all", bytes(5000), *variants):
        path.write_bytes(variant)
        try:
            netforge.from_onnx(path)
        except netforge.OnnxImportError as error:
            assert error.file == str(path)
            refused += 1
    assert refused > 100


@pytest.mark.parametrize(
    ("entries", "reason"),
    [
        ({"location": "gone.bin"}, "doesn't exist"),
        ({"location": "../w.bin"}, "outside the model's folder"),
        ({"location": "w.bin", "offset": "8"}, "ends beyond the end"),
        ({"location": "w.bin", "length": "12"}, "expected 16"),
        ({"location": "w.bin", "offset": "x"}, "bad place"),
    ],
)
def test_external_data_out_of_place_is_refused(entries: dict, reason: str, tmp_path: Path) -> None:
    (tmp_path / "model").mkdir()
    (tmp_path / "w.bin").write_bytes(bytes(16))
    (tmp_path / "model/w.bin").write_bytes(bytes(16))
    tensor = TensorProto(name="w", data_type=TensorProto.FLOAT, dims=[4], data_location=TensorProto.EXTERNAL)
    for key, entry in entries.items():
        tensor.external_data.add(key=key, value=entry)
    model = model_of(
        [helper.make_node("Add", ["x", "w"], ["y"])], [value("x", [4])], [value("y", [4])], [tensor]
    )
    path = tmp_path / "model/m.onnx"
    path.write_bytes(model.SerializeToString())
    with pytest.raises(netforge.OnnxImportError, match=reason):
        netforge.from_onnx(path)


def test_wrong_arguments_and_missing_files_are_told_apart(tmp_path: Path) -> None:
    with pytest.raises(ValueError, match="layout is 'sideways'"):
        netforge.from_onnx(relu_model(), "sideways")
    with pytest.raises(FileNotFoundError):
        netforge.from_onnx(tmp_path / "absent.onnx")
