"""Converters of reductions and of the places of extremes."""

from __future__ import annotations

import numpy as np
from onnx import TensorProto

from netforge.onnx_import.builder import Builder
from netforge.onnx_import.errors import NotTyped
from netforge.onnx_import.ops_elementwise import MULTIPLY, UNARY, add_binary, add_unary
from netforge.onnx_import.ops_indexing import add_to_shape
from netforge.onnx_import.ops_movement import axis_of
from netforge.onnx_import.preparation import Node
from netforge.onnx_import.registry import converter
from netforge.onnx_import.values import FLOAT_TYPES

_PLAIN_REDUCTIONS = ("ReduceSum", "ReduceMean", "ReduceMax", "ReduceMin", "ReduceProd")
# Reductions that are a sum with something before it or behind it.
_SUMS = ("ReduceL1", "ReduceLogSum", "ReduceSumSquare")


@converter(*_PLAIN_REDUCTIONS, "ReduceL2", *_SUMS)
def reduction(builder: Builder, node: Node) -> None:
    kind, out = builder.type_of(node.inputs[0]), builder.type_of(node.outputs[0])
    keep_dims = bool(node.attributes.get("keepdims", 1))
    axes = _axes(builder, node, kind.rank)
    if axes is None:
        if node.op_type not in _PLAIN_REDUCTIONS:
            raise NotTyped("it has no axes, and what is left of it then isn't the same in all versions")
        builder.add("Identity", [builder.get(node.inputs[0])], [builder.output(node)])
        return
    if not kind.rank:
        raise NotTyped("the operand is of rank 0")
    _require_type(node, kind.elem_type)
    if 0 in kind.dims:
        raise NotTyped("the operand may have no elements")

    attributes = {"axes": np.array(axes, np.uint32), "keep_dims": keep_dims}
    if node.op_type != "ReduceL2":
        attributes["reduce_type"] = node.op_type if node.op_type in _PLAIN_REDUCTIONS else "ReduceSum"
    type_name = "ReduceL2" if node.op_type == "ReduceL2" else "Reduce"
    held = builder.get(node.inputs[0])
    if node.op_type in ("ReduceL1", "ReduceSumSquare"):
        prepared = builder.temporary("prepared", kind.elem_type, kind.dims)
        if node.op_type == "ReduceL1":
            add_unary(builder, UNARY["Abs"], held, prepared, "prepared")
        else:
            add_binary(builder, MULTIPLY, held, held, prepared, "prepared")
        held = prepared
    logarithm = node.op_type == "ReduceLogSum"
    if not logarithm and out.rank:
        builder.add(type_name, [held], [builder.output(node)], attributes)
        return
    reduced = builder.temporary("reduced", out.elem_type, out.dims or (1,))
    builder.add(type_name, [held], [reduced], attributes)
    if not logarithm:
        add_to_shape(builder, reduced, node, "scalar")
    elif out.rank:
        add_unary(builder, UNARY["Log"], reduced, builder.output(node), "log")
    else:
        result = builder.temporary("log", out.elem_type, (1,))
        add_unary(builder, UNARY["Log"], reduced, result, "log")
        add_to_shape(builder, result, node, "scalar")


def _require_type(node: Node, elem_type: int) -> None:
    if node.op_type == "ReduceL2" and elem_type != TensorProto.FLOAT:
        raise NotTyped("the catalogue's Euclidean norm is for 32-bit floats")
    if node.op_type in ("ReduceMean", "ReduceLogSum") and elem_type not in FLOAT_TYPES:
        raise NotTyped("the catalogue's mean and logarithm are for floats")
    if elem_type == TensorProto.BOOL:
        raise NotTyped("the catalogue reduces numbers")


def _axes(builder: Builder, node: Node, rank: int) -> list[int] | None:
    """The axes, sorted; None when there are none and that means to reduce nothing."""
    axes = node.attributes.get("axes")
    if node.input(1):
        axes = builder.required_constant(node, 1, "the list of axes").reshape(-1)
    if axes is None or len(axes) == 0:
        return None if node.attributes.get("noop_with_empty_axes", 0) else list(range(rank))
    return sorted(axis_of(int(axis), rank) for axis in axes)


@converter("ArgMax", "ArgMin")
def arg(builder: Builder, node: Node) -> None:
    kind, out = builder.type_of(node.inputs[0]), builder.type_of(node.outputs[0])
    if node.attributes.get("select_last_index", 0):
        raise NotTyped("of equal values it takes the last")
    if not kind.rank:
        raise NotTyped("the operand is of rank 0")
    axis = axis_of(int(node.attributes.get("axis", 0)), kind.rank)
    attributes = {
        "arg_type": "Argmax" if node.op_type == "ArgMax" else "Argmin",
        "axis": np.uint32(axis),
        "keep_dims": bool(node.attributes.get("keepdims", 1)),
    }
    if out.rank:
        builder.add("Arg", [builder.get(node.inputs[0])], [builder.output(node)], attributes)
        return
    place = builder.temporary("place", out.elem_type, (1,))
    builder.add("Arg", [builder.get(node.inputs[0])], [place], attributes)
    add_to_shape(builder, place, node, "scalar")
