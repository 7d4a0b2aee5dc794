"""Writers of the sparse ops on the dense form of their tensors: what isn't specified is 0.

An element is a row along the last axis; its place is told by the axes before it.
"""

from __future__ import annotations

import math

import numpy as np

from netforge.onnx_export.element_types import FLOAT, INT64, computing_type, numpy_type
from netforge.onnx_export.op_writer import OpWriter
from netforge.onnx_export.registry import writer


def _places(op: OpWriter) -> str:
    """Coordinates [count, rank - 1] of the first rows that aren't 0, filled up with others."""
    x = op.x
    dims = op.static_dims(x)
    rows, count = math.prod(dims[:-1]), int(op.attribute("num_specified_elements"))
    if len(dims) < 2 or not 0 < count <= rows:
        raise op.fail(f"{count} elements are specified in a tensor of dims {list(dims)}")
    flat = op.reshape(x, (rows, dims[-1]))
    filled = op.node("Not", [op.node("Equal", [flat, op.like(x, 0, "zero")], kind=9)])
    mask = op.node("ReduceMax", [op.cast(filled, FLOAT), op.shape([1], "axes")], {"keepdims": 0})
    attributes = {"axis": 0, "largest": 1, "sorted": 1}
    order = op.nodes("TopK", [mask, op.shape([count], "count")], attributes, [FLOAT, INT64])[1]
    columns = []
    step = rows
    for size in dims[:-1]:
        step //= size
        place = op.node("Div", [order, op.constant(step, INT64, "step")])
        place = op.node("Mod", [place, op.constant(size, INT64, "size")], dims=(count,))
        columns.append(op.reshape(place, (count, 1)))
    return op.node("Concat", columns, {"axis": 1}) if len(columns) > 1 else columns[0]


@writer("GetSparseIndices")
def get_sparse_indices(op: OpWriter) -> None:
    op.result(_places(op))


@writer("GetSparseValues")
def get_sparse_values(op: OpWriter) -> None:
    op.result(op.node("GatherND", [op.x, _places(op)]))


@writer("CreateSparse")
def create_sparse(op: OpWriter) -> None:
    """Rows of values at their places in a tensor of zeros."""
    dims, kind = op.out_dims(), op.kind(op.input(1))
    if None in dims:
        raise op.fail("it has no ONNX form for axes of unknown size")
    kind = computing_type("ScatterND", kind)
    zero = op.graph.constant(np.zeros((1,), numpy_type(kind)), f"{op.op.name}_zero")
    zeros = op.node("Expand", [zero, op.shape(dims)])
    names = [zeros, op.as_index(op.x), op.cast(op.input(1), kind)]
    op.result(op.node("ScatterND", names))
