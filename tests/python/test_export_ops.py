"""Ops that ONNX lacks, or has in another layout: the exported op against what it means, in NumPy."""

from __future__ import annotations

import math
from dataclasses import dataclass, field

import netforge
import numpy as np
import pytest
from export_graphs import ORDERS, make_op, one_op_graph, run, run_op
from export_reference import floats, hadamard, layer_norm, u32


@dataclass
class Case:
    """An op, its inputs and the outputs that it has to have; inputs at `static` places are constants."""

    op_type: str
    values: dict = field(default_factory=dict)
    inputs: list = field(default_factory=list)
    outputs: list = field(default_factory=list)
    static: tuple[int, ...] = ()


erf = np.vectorize(math.erf)
X = floats(2, 3, 4)
POSITIVE = np.abs(X) + np.float32(0.5)


def unary(operation: int, x: np.ndarray, y: np.ndarray) -> Case:
    return Case("Eltwise_Unary", {"operation": np.uint32(operation)}, [x], [y])


def binary(operation: int, a: np.ndarray, b: np.ndarray, y: np.ndarray) -> Case:
    return Case("Eltwise_Binary", {"operation": np.uint32(operation)}, [a, b], [np.asarray(y)])


def neuron(operation: int, y: np.ndarray, **values: float) -> Case:
    return Case(
        "ElementWiseNeuron", {"operation": np.uint32(operation), **values}, [X * 3], [y.astype(np.float32)]
    )


A, B = np.array([7, -7, 7, -7, 0, 5], np.int32), np.array([2, 2, -2, -2, 3, 5], np.int32)
U, V = np.array([7, 250, 3], np.uint16), np.array([2, 7, 5], np.uint16)
F, G = A.astype(np.float32) + np.float32(0.25), B.astype(np.float32)
WIDE, NARROW = floats(2, 1, 4), floats(3, 1)
X3 = X * 3
SCORES = np.array([[3, 9, 9, 1], [5, 2, 5, 8]], np.float32)
SELECTOR = np.array([[0, 1, 2], [2, 1, 0]], np.int32)
CHOICES = [floats(2, 3), floats(1, 3), floats(2, 1)]
MATRICES = floats(3, 2, 2)
WEIGHT, BIAS = floats(5, 12), floats(5)
GAMMA = floats(4, 2)
POSITIONS = np.array([[[0, 1], [2, 0]], [[1, 1], [0, 0]]], np.int32)
DATA3, ROWS = floats(2, 3, 2), floats(5, 3)
SPARSE = np.zeros((3, 4, 2), np.float32)
for _row, _column in ((0, 2), (1, 1), (2, 3)):
    SPARSE[_row, _column] = floats(2)
PLACES = np.array([[0, 2], [1, 1], [2, 3]], np.int32)

CASES = {
    "round to even": unary(11, np.float32([0.5, 1.5, -2.5]), np.float32([0, 2, -2])),
    "round of integers": unary(11, A, A),
    "rsqrt": unary(12, POSITIVE, 1 / np.sqrt(POSITIVE)),
    "not of numbers": unary(9, np.float32([0, 2, -1]), np.array([True, False, False])),
    "abs of int16": unary(0, A.astype(np.int16), np.abs(A).astype(np.int16)),
    "softplus by its older name": Case(
        "Eltwise_Unary",
        {"eltwise_type": "ElementWiseSoftplus", "beta": 2.0, "threshold": 3.0},
        [X3],
        [np.where(2 * X3 > 3, X3, np.log1p(np.exp(2 * X3)) / 2)],
    ),
    "floor division of floats": binary(4, F, G, np.floor(F / G)),
    "floor division of integers": binary(4, A, B, A // B),
    "floor division, unsigned": binary(4, U, V, U // V),
    "fmod, sign of the dividend": binary(5, F, G, np.fmod(F, G)),
    "mod, sign of the divisor": binary(12, F, G, np.mod(F, G)),
    "mod of integers": binary(12, A, B, np.mod(A, B)),
    "not equal": binary(14, A, B, A != B),
    "comparison as number": binary(6, F, G, (F > G).astype(np.float32)),
    "xor of numbers": binary(19, A, B * 0, (A != 0).astype(np.int32)),
    "max of uint16": binary(10, U, V, np.maximum(U, V)),
    "mixed types": binary(0, A, F, (A + F).astype(np.float32)),
    "broadcast": binary(18, WIDE, NARROW, WIDE - NARROW),
    "sum of bools": binary(0, A > 0, B > 0, ((A > 0).astype(np.int32) + (B > 0))),
    "elu": neuron(0, np.where(X3 > 0, X3, 1.5 * np.expm1(X3)), alpha=1.5),
    "gelu": neuron(1, 0.5 * X3 * (1 + erf(X3 / np.sqrt(2)))),
    "hard sigmoid": neuron(2, np.clip(0.3 * X3 + 0.6, 0, 1), alpha=0.3, beta=0.6),
    "hard swish": neuron(3, X3 * np.clip(X3 / 6 + 0.5, 0, 1)),
    "relu min max": neuron(5, np.clip(X3, -0.5, 1.25), min_value=-0.5, max_value=1.25),
    "scaled tanh": neuron(8, 1.7 * np.tanh(0.6 * X3), alpha=1.7, beta=0.6),
    "gelu, plain": Case("Gelu", {}, [X3], [0.5 * X3 * (1 + erf(X3 / np.sqrt(2)))]),
    "select by numbers": Case(
        "Eltwise_Ternary",
        {"eltwise_type": "ElementWiseSelect"},
        [A, F, np.float32([9])],
        [np.where(A != 0, F, np.float32(9))],
    ),
    "mux": Case("ElementWiseMux", {}, [SELECTOR, *CHOICES], [np.choose(SELECTOR, CHOICES)]),
    "mux by bools": Case(
        "ElementWiseMux", {}, [SELECTOR > 0, *CHOICES[:2]], [np.where(SELECTOR > 0, CHOICES[1], CHOICES[0])]
    ),
    "mean": Case("Mean", {}, [X, X * 2, X3], [X * 2]),
    "cast": Case("Cast", {}, [X3], [X3.astype(np.int32)]),
    "matmul of transposed operands": Case(
        "MatMul",
        {"transpose_in0": True, "transpose_in1": True},
        [DATA3, ROWS],
        [DATA3.transpose(0, 2, 1) @ ROWS.T],
    ),
    "hadamard": Case("HadamardTransform", {"scale": 0.5}, [X], [0.5 * X @ hadamard(4)]),
    "inverse of 2x2": Case("Inverse", {}, [MATRICES], [np.linalg.inv(MATRICES)]),
    "inverse of 1x1": Case("Inverse", {}, [POSITIVE[..., :1, :1]], [1 / POSITIVE[..., :1, :1]]),
    "fully connected flattens": Case(
        "FullyConnected",
        {"keep_dims": False, "transpose_b": False},
        [X, WEIGHT, BIAS],
        [X.reshape(2, 12) @ WEIGHT.T + BIAS],
        (1, 2),
    ),
    "fully connected keeps dims": Case(
        "FullyConnected",
        {"keep_dims": True, "transpose_b": False},
        [X, WEIGHT[:, :4], BIAS],
        [X @ WEIGHT[:, :4].T + BIAS],
        (1, 2),
    ),
    "softmax with beta": Case(
        "Softmax",
        {"axis": np.uint32(1), "beta": 2.0},
        [X],
        [np.exp(2 * X) / np.exp(2 * X).sum(axis=1, keepdims=True)],
    ),
    "layer norm of other axes": Case(
        "LayerNorm",
        {"axes": u32(2, 0), "epsilon": 0.01},
        [X, GAMMA, GAMMA * 2],
        [layer_norm(X, (2, 0), 0.01, GAMMA, GAMMA * 2)],
        (1, 2),
    ),
    "rms norm": Case(
        "RmsNorm",
        {"axes": u32(2), "epsilon": 0.01},
        [X, GAMMA[:, 0].copy()],
        [X / np.sqrt((X**2).mean(axis=2, keepdims=True) + 0.01) * GAMMA[:, 0]],
        (1,),
    ),
    "l2 norm": Case("L2Norm", {"axis": np.uint32(1)}, [X], [X / np.sqrt((X**2).sum(axis=1, keepdims=True))]),
    "batchnorm": Case(
        "Batchnorm", {}, [X, GAMMA[:, 0].copy(), GAMMA[:, 1].copy()], [X * GAMMA[:, 0] + GAMMA[:, 1]], (1, 2)
    ),
    "thresholded relu": Case(
        "ThresholdedRelu", {"alpha": 0.7}, [X3], [np.where(np.float32(0.7) < X3, X3, 0)]
    ),
    "prelu": Case("Prelu", {}, [X, GAMMA[:, 0].copy()], [np.where(X > 0, X, X * GAMMA[:, 0])], (1,)),
    "pack": Case("Pack", {"axis": np.uint32(1)}, [X, X3], [np.stack([X, X3], axis=1)]),
    "split": Case(
        "Split", {"axis": np.uint32(2), "split_index": u32(1, 3)}, [X], np.split(X, [1, 3], axis=2)
    ),
    "expand dims": Case("ExpandDims", {"axes": u32(0, 2)}, [X], [X[None, :, None]]),
    "reshape of int8": Case(
        "Reshape",
        {"shape": u32(6, 4)},
        [A[:4].astype(np.int8).repeat(6)],
        [A[:4].astype(np.int8).repeat(6).reshape(6, 4)],
    ),
    "pad of int16": Case(
        "Pad",
        {"pad_amount": np.array([[1, 2]], np.uint32), "scheme": np.uint32(0), "pad_constant_value": 7.0},
        [A.astype(np.int16)],
        [np.pad(A.astype(np.int16), (1, 2), constant_values=7)],
    ),
    "pad by reflection": Case(
        "Pad",
        {"pad_amount": np.array([[0, 1], [2, 0]], np.uint32), "scheme": np.uint32(1)},
        [SCORES],
        [np.pad(SCORES, [(0, 1), (2, 0)], mode="reflect")],
    ),
    "slice backwards": Case(
        "StridedSlice", {"ranges": np.int32([[0, 2, 1], [2, -1, -1], [1, 4, 2]])}, [X], [X[:, ::-1, 1::2]]
    ),
    "slice with masks": Case(
        "StridedSlice",
        {
            "ranges": np.int32([[1, 2, 1], [0, 3, 2], [3, 4, 1]]),
            "new_axes_mask": np.uint32(0b0010),
            "shrink_axes": np.uint32(0b1001),
        },
        [X],
        [X[1, None, ::2, 3]],
    ),
    "gather by floats": Case("Gather", {"axis": np.int32(1)}, [X, np.float32([2, 0])], [X[:, [2, 0]]]),
    "gather nd with batches": Case(
        "GatherNd",
        {"batch_dims": np.int32(1)},
        [DATA3, POSITIONS],
        [np.stack([DATA3[n][POSITIONS[n][:, 0], POSITIONS[n][:, 1]] for n in (0, 1)])],
    ),
    "top k of ties": Case(
        "TopK",
        {"k": np.uint32(3), "largest": True},
        [SCORES],
        [np.float32([[9, 9, 3], [8, 5, 5]]), np.int32([[1, 2, 0], [3, 0, 2]])],
    ),
    "arg of ties": Case(
        "Arg", {"arg_type": "Argmax", "axis": np.uint32(1), "keep_dims": False}, [SCORES], [np.int32([1, 3])]
    ),
    "cumulative sum": Case(
        "CumulativeSum",
        {"axis": np.uint32(1), "exclusive": True, "reverse": True},
        [SCORES],
        [np.float32([[19, 10, 1, 0], [15, 13, 8, 0]])],
    ),
    "full reduction leaves one element": Case(
        "Reduce",
        {"reduce_type": "ReduceSum", "axes": u32(0, 1, 2), "keep_dims": False},
        [X],
        [X.sum().reshape(1)],
    ),
    "reduction of int16": Case(
        "Reduce",
        {"reduce_type": "ReduceMax", "axes": u32(0), "keep_dims": True},
        [A.astype(np.int16)],
        [np.int16([7])],
    ),
    "euclidean norm": Case(
        "ReduceL2", {"axes": u32(1), "keep_dims": False}, [X], [np.sqrt((X**2).sum(axis=1))]
    ),
    "sparse indices": Case("GetSparseIndices", {"num_specified_elements": np.uint32(3)}, [SPARSE], [PLACES]),
    "sparse values": Case(
        "GetSparseValues",
        {"num_specified_elements": np.uint32(3)},
        [SPARSE],
        [SPARSE[PLACES[:, 0], PLACES[:, 1]]],
    ),
    "create sparse": Case("CreateSparse", {}, [PLACES, SPARSE[PLACES[:, 0], PLACES[:, 1]]], [SPARSE]),
    "dequantize per axis": Case(
        "Dequantize",
        {"scale": np.float32([0.5, 2, 1]), "zero_point": np.int32([1, -2, 0]), "axis": np.uint32(0)},
        [np.int8([[3], [4], [-5]])],
        [np.float32([[1], [12], [-5]])],
    ),
}


@pytest.mark.parametrize("name", CASES)
def test_op_computes_what_it_means(name: str) -> None:
    case = CASES[name]
    wanted = [output.astype(np.float32) if output.dtype == np.float64 else output for output in case.outputs]
    found = run_op(case.op_type, case.values, case.inputs, wanted, static=case.static)
    for output, expected in zip(found, wanted, strict=True):
        assert output.dtype == expected.dtype
        np.testing.assert_allclose(output, expected, rtol=2e-5, atol=2e-6)


def test_fully_connected_of_the_other_order_reads_its_weight_the_other_way() -> None:
    weight = np.ascontiguousarray(WEIGHT.T)
    values = {"keep_dims": False, "transpose_b": True}
    wanted = X.reshape(2, 12) @ WEIGHT.T
    (found,) = run_op("FullyConnected", values, [X, weight], [wanted], "last", (1,))
    np.testing.assert_allclose(found, wanted, rtol=1e-5, atol=1e-6)


@pytest.mark.parametrize("kind", ["UFIXED_POINT_8", "SFIXED_POINT_16"])
def test_numbers_survive_the_way_through_an_encoding(kind: str) -> None:
    """x -> Convert q (fixed point) -> Dequantize y: the multiples of the scale, cut off at the ends."""
    data_type = getattr(netforge.DataType, f"ORLO_DATATYPE_{kind}")
    bits = np.iinfo(np.uint8 if kind == "UFIXED_POINT_8" else np.int16)
    scale, zero = 0.25, 10
    encoding = netforge.EncodingInfo(
        bitwidth=bits.bits, minimum=(bits.min - zero) * scale, maximum=(bits.max - zero) * scale, scale=scale
    )
    graph = netforge.IrGraph("quantized", ORDERS["last"]())
    float32 = netforge.DataType.ORLO_DATATYPE_FLOAT_32
    graph.addTensor(netforge.IrTensor("x", [6], float32, tensorType=netforge.TensorType.GraphInput))
    inner = netforge.IrTensor("q", [6], float32)
    inner.setQuantizable(True)
    inner.setQInfo(data_type, netforge.QuantInfo(netforge.QuantEncodingKind.ScaleOffset, encoding))
    graph.addTensor(inner)
    graph.addTensor(netforge.IrTensor("y", [6], float32, tensorType=netforge.TensorType.GraphOutput))
    graph.addOp(make_op("Convert", "convert", {}), ["x"], ["q"], outputShapes=[[6]])
    graph.addOp(make_op("Dequantize", "dequantize", {}), ["q"], ["y"], outputShapes=[[6]])
    x = np.float32([0, 1.1, -2.2, 0.125, 1e6, -1e6])
    (found,) = run(netforge.to_onnx(graph), {"x": x})
    wanted = np.clip(np.round(x / scale) + zero, bits.min, bits.max)
    np.testing.assert_array_equal(found, (wanted - zero) * scale)


@pytest.mark.parametrize(
    ("op_type", "values", "text"),
    [
        ("Eltwise_Binary", {"operation": np.uint32(17)}, "operation 17 isn't known"),
        ("HadamardTransform", {"scale": 1.0}, "no power of two"),
        ("Gru", {"hidden_size": np.uint32(6)}, "its input 1 is no matrix"),
        ("NoSuchOperator", {}, "no ONNX form is known"),
    ],
)
def test_what_has_no_form_is_refused_by_name(op_type: str, values: dict, text: str) -> None:
    x = floats(2, 3, 6)
    with pytest.raises(netforge.OnnxExportError, match=text) as raised:
        netforge.to_onnx(one_op_graph(op_type, values, [x, x], [x]))
    assert "'op'" in str(raised.value)
