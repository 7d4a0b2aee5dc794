"""The dense form of sparse tensors: what isn't specified is 0.

An element is a row along the last axis; its place is told by the axes before it. A specified row may hold
zeros, so the places of a tensor are carried along with its values wherever the graph tells them. For a tensor
that nothing is known of they are those of the rows that aren't 0, filled up with others.
"""

from __future__ import annotations

import math

import numpy as np

from netforge.onnx_export.element_types import FLOAT, INT64, computing_type, numpy_type
from netforge.onnx_export.op_writer import OpWriter

_SPARSE = 0


def is_sparse(op: OpWriter) -> bool:
    """Whether input 0 is a sparse tensor of the kind that this module writes."""
    tensor = op.op.inputs[0]
    sparse = tensor.getSparseParams().layout == _SPARSE or op.x in op.graph.places
    return sparse and len(tensor.dims) > 1 and not tensor.dynamicAxes


def places_of(op: OpWriter, count: int | None = None) -> str:
    """Coordinates [count, rank - 1] of the specified rows of input 0; without `count` as many as it says."""
    graph = op.graph
    known = graph.places.get(op.x)
    if known is not None and count in (None, graph.values[known].dims[0]):  # type: ignore[index]
        return known
    if count is None:
        count = op.op.inputs[0].getSparseParams().numSpecifiedElements
    places = _filled_places(op, count)
    if known is None:
        keep_places(op, op.x, places)
    return places


def keep_places(op: OpWriter, value: str, places: str) -> None:
    op.graph.places[value] = places
    op.keep(places)


def _filled_places(op: OpWriter, count: int) -> str:
    x = op.x
    dims = op.static_dims(x)
    rows = math.prod(dims[:-1])
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
    if len(columns) == 1:
        return columns[0]
    return op.node("Concat", columns, {"axis": 1}, dims=(count, len(columns)))


def gather_rows(op: OpWriter, value: str, places: str) -> str:
    return op.node("GatherND", [value, places])


def spread_rows(op: OpWriter, places: str, values: str) -> str:
    """Rows at their places in a tensor of zeros that has the dims of the op's output."""
    dims = op.out_dims()
    if None in dims:
        raise op.fail("it has no ONNX form for axes of unknown size")
    kind = computing_type("ScatterND", op.kind(values))
    zero = op.graph.constant(np.zeros((1,), numpy_type(kind)), f"{op.op.name}_zero")
    zeros = op.node("Expand", [zero, op.shape(dims)])  # type: ignore[arg-type]
    return op.node("ScatterND", [zeros, places, op.cast(values, kind)], dims=dims)


def reuses_places(op: OpWriter) -> bool:
    """Whether a convolution has values at the places of its input alone."""
    name = "reuse_sparse_indicies" if op.op.type == "Conv3d" else "reuse_sparse_indices"
    same = list(op.op.outputs[0].dims)[:-1] == list(op.op.inputs[0].dims)[:-1]
    return bool(op.attribute(name, False)) and same and op.graph.channel_last and is_sparse(op)


def finish_at_places(op: OpWriter, value: str) -> None:
    """Ends an op with the rows of `value` at the places of input 0; all others are 0."""
    places = places_of(op)
    op.result(spread_rows(op, places, gather_rows(op, value, places)))
    op.graph.places[op.op.outputs[0].name] = places


def carry_common_places(op: OpWriter) -> None:
    """Operands with one and the same set of places hand it on."""
    places = {op.graph.places.get(name) for name in op.inputs}
    if len(places) == 1 and None not in places:
        op.graph.places[op.op.outputs[0].name] = next(iter(places))  # type: ignore[assignment]
