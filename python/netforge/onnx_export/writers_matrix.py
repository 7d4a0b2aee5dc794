"""Writers of matrix products and of the inverse of small matrices."""

from __future__ import annotations

import numpy as np

from netforge.onnx_export.element_types import FLOATS, numpy_type
from netforge.onnx_export.op_writer import OpWriter
from netforge.onnx_export.registry import writer
from netforge.onnx_export.writers_elementwise import same_kind, scaled


def swapped(op: OpWriter, value: str) -> str:
    """The value with its last two axes exchanged."""
    rank = op.rank(value)
    if rank < 2:
        return value
    return op.transpose(value, (*range(rank - 2), rank - 1, rank - 2))


@writer("MatMul")
def matmul(op: OpWriter) -> None:
    left, right = same_kind(op, op.inputs[:2])
    if op.attribute("transpose_in0", False):
        left = swapped(op, left)
    if op.attribute("transpose_in1", False):
        right = swapped(op, right)
    product = op.node("MatMul", [left, right])
    if op.input(2):
        product = op.node("Add", [product, op.cast(op.input(2), op.kind(product))])
    op.result(product)


@writer("FullyConnected")
def fully_connected(op: OpWriter) -> None:
    """y = x W' + b over the input features, W being [outputs, inputs] under the spatial-first order.

    Without "keep_dims" all axes of the input are taken together and cut into rows of the input features.
    """
    x, weight = same_kind(op, op.inputs[:2])
    bias = op.cast(op.input(2), op.kind(x)) if op.input(2) else ""
    outputs_first = op.graph.channel_last
    first, second = op.static_dims(weight)
    features = second if outputs_first else first
    dims = op.dims(x)
    if op.attribute("transpose_a", False) and len(dims) == 2:
        x, dims = swapped(op, x), dims[::-1]
    out = op.out_dims()
    if len(dims) != 2 and (not op.attribute("keep_dims", False) or len(dims) < 2):
        x, dims = op.reshape(x, (None, features)), (None, features)
    elif len(dims) == 2 and dims[1] not in (features, None):
        if op.attribute("keep_dims", False):
            raise op.fail(f"its input has {dims[1]} features, its weight takes {features}")
        x, dims = op.reshape(x, (None, features)), (None, features)
    if len(dims) == 2 and op.kind(x) in FLOATS:
        operands = [x, weight] + ([op.reshape(bias, (_elements(op, bias),))] if bias else [])
        product = op.node("Gemm", operands, {"transB": int(outputs_first)}, dims=(dims[0], first if outputs_first else second))
    else:
        product = op.node("MatMul", [x, swapped(op, weight) if outputs_first else weight])
        if bias:
            product = op.node("Add", [product, bias])
    if len(out) not in (2, len(dims)):
        product = op.reshape(product, out)
    op.result(product)


def _elements(op: OpWriter, value: str) -> int:
    return int(np.prod(op.static_dims(value)))


@writer("HadamardTransform")
def hadamard_transform(op: OpWriter) -> None:
    """scale * x H over the last axis, H being Sylvester's matrix of its size."""
    x = op.require_float(op.x)
    size = op.static_dims(x)[-1] if None not in op.dims(x) else op.dims(x)[-1]
    if size is None or size < 1 or size & (size - 1):
        raise op.fail(f"the last axis is of size {size}, which is no power of two")
    matrix = op.graph.constant(sylvester(size).astype(numpy_type(op.kind(x))), f"{op.op.name}_hadamard")
    op.result(scaled(op, op.node("MatMul", [x, matrix]), float(op.attribute("scale", 1.0))))


def sylvester(size: int) -> np.ndarray:
    """H(2n) = [[H, H], [H, -H]], H(1) = [[1]]; `size` is a power of two."""
    matrix = np.ones((1, 1))
    while len(matrix) < size:
        matrix = np.block([[matrix, matrix], [matrix, -matrix]])
    return matrix


@writer("Inverse")
def inverse(op: OpWriter) -> None:
    """Of matrices of one or two rows in the last two axes, by the adjugate over the determinant."""
    x = op.require_float(op.x)
    rank = op.rank(x)
    size = op.dims(x)[-1]
    if rank < 2 or size not in (1, 2) or op.dims(x)[-2] != size:
        raise op.fail("its last two axes hold no square matrix of up to 2 rows")
    if size == 1:
        op.result(op.node("Reciprocal", [x]))
        return

    def element(row: int, column: int) -> str:
        picked = op.slice(x, row, row + 1, rank - 2)
        return op.slice(picked, column, column + 1, rank - 1)

    (a, b), (c, d) = [[element(row, column) for column in (0, 1)] for row in (0, 1)]
    determinant = op.node("Sub", [op.node("Mul", [a, d]), op.node("Mul", [b, c])])
    rows = [
        op.node("Concat", [d, op.node("Neg", [b])], {"axis": rank - 1}),
        op.node("Concat", [op.node("Neg", [c]), a], {"axis": rank - 1}),
    ]
    op.result(op.node("Div", [op.node("Concat", rows, {"axis": rank - 2}), determinant]))
