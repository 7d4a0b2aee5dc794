"""Converters of gathering, sorting, running sums and dequantisation."""

from __future__ import annotations

import numpy as np
from onnx import TensorProto, helper

from netforge.onnx_import.builder import Builder
from netforge.onnx_import.errors import NotTyped
from netforge.onnx_import.layout import permuted
from netforge.onnx_import.ops_movement import axis_of
from netforge.onnx_import.preparation import Node
from netforge.onnx_import.registry import converter
from netforge.onnx_import.reshaping import add_reshape, reshape_target


@converter("Gather")
def gather(builder: Builder, node: Node) -> None:
    data, indices = builder.type_of(node.inputs[0]), builder.type_of(node.inputs[1])
    out = builder.type_of(node.outputs[0])
    axis = axis_of(int(node.attributes.get("axis", 0)), data.rank)
    attributes = {"axis": np.int32(axis)}
    if indices.rank or not builder.is_constant(node.inputs[1]):
        names = [builder.get(name) for name in node.inputs]
        builder.add("Gather", names, [builder.output(node)], attributes)
        return
    # One constant index takes its axis away: it stands as one element, and a Reshape takes the axis.
    dims = (*data.dims[:axis], 1, *data.dims[axis + 1 :])
    target = reshape_target(dims, out.dims)
    names = [builder.get(node.inputs[0]), builder.get_operand(node.inputs[1])]
    picked = builder.temporary("picked", data.elem_type, dims)
    builder.add("Gather", names, [picked], attributes)
    add_reshape(builder, picked, builder.output(node), target, "without_axis")


@converter("GatherElements")
def gather_elements(builder: Builder, node: Node) -> None:
    rank = builder.type_of(node.inputs[0]).rank
    axis = axis_of(int(node.attributes.get("axis", 0)), rank)
    names = [builder.get(name) for name in node.inputs]
    builder.add("GatherElements", names, [builder.output(node)], {"axis": np.uint32(axis)})


@converter("GatherND")
def gather_nd(builder: Builder, node: Node) -> None:
    names = [builder.get(name) for name in node.inputs]
    batch_dims = np.int32(int(node.attributes.get("batch_dims", 0)))
    if not builder.type_of(node.outputs[0]).rank:
        raise NotTyped("the result is of rank 0")
    builder.add("GatherNd", names, [builder.output(node)], {"batch_dims": batch_dims})


@converter("ScatterND")
def scatter_nd(builder: Builder, node: Node) -> None:
    names = [builder.get(name) for name in node.inputs]
    attributes = {"reduction": str(node.attributes.get("reduction", "none"))}
    builder.add("ScatterNd", names, [builder.output(node)], attributes)


@converter("TopK")
def top_k(builder: Builder, node: Node) -> None:
    """The catalogue's op works along the last axis; another axis is moved there and back."""
    kind = builder.type_of(node.inputs[0])
    if node.opset < 10:
        count = int(node.attributes["k"])
    else:
        count = int(builder.required_constant(node, 1, "the number k").reshape(-1)[0])
    if not all(node.has_output(position) for position in (0, 1)) or count < 1:
        raise NotTyped("values or indices are left out, or k is 0")
    axis = axis_of(int(node.attributes.get("axis", -1)), kind.rank)
    attributes = {"k": np.uint32(count), "largest": bool(node.attributes.get("largest", 1))}
    if axis == kind.rank - 1:
        outputs = [builder.output(node, position) for position in (0, 1)]
        builder.add("TopK", [builder.get(node.inputs[0])], outputs, attributes)
        return
    order = list(range(kind.rank))
    order[axis], order[-1] = order[-1], order[axis]  # its own inverse
    perm = {"perm": np.array(order, np.uint32)}
    moved = builder.temporary("axis_last", kind.elem_type, permuted(kind.dims, tuple(order)))
    builder.add("Transpose", [builder.get(node.inputs[0])], [moved], perm, "axis_last")
    results = []
    for position, what in enumerate(("values", "indices")):
        out = builder.type_of(node.outputs[position])
        results.append(builder.temporary(f"{what}_last", out.elem_type, permuted(out.dims, tuple(order))))
    builder.add("TopK", [moved], results, attributes)
    for position, what in enumerate(("values", "indices")):
        builder.add("Transpose", [results[position]], [builder.output(node, position)], dict(perm), what)


@converter("CumSum")
def cumulative_sum(builder: Builder, node: Node) -> None:
    kind = builder.type_of(node.inputs[0])
    axis = axis_of(int(builder.required_constant(node, 1, "the axis").reshape(-1)[0]), kind.rank)
    attributes = {
        "axis": np.uint32(axis),
        "exclusive": bool(node.attributes.get("exclusive", 0)),
        "reverse": bool(node.attributes.get("reverse", 0)),
    }
    builder.add("CumulativeSum", [builder.get(node.inputs[0])], [builder.output(node)], attributes)


@converter("DequantizeLinear")
def dequantize(builder: Builder, node: Node) -> None:
    """y = (x - zero_point) * scale, with the constants as attributes."""
    kind, out = builder.type_of(node.inputs[0]), builder.type_of(node.outputs[0])
    scale = builder.required_constant(node, 1, "the scale")
    if kind.elem_type not in (
        TensorProto.INT8,
        TensorProto.UINT8,
        TensorProto.INT16,
        TensorProto.UINT16,
        TensorProto.INT32,
    ):
        raise NotTyped("the catalogue dequantises integers of 8, 16 and 32 bits")
    if out.elem_type != TensorProto.FLOAT or scale.dtype != np.float32 or scale.ndim > 1:
        raise NotTyped("the result is of another type than 32-bit floats, or the scale stands per block")
    if node.input(2):
        zero_point = builder.required_constant(node, 2, "the zero point")
    else:
        zero_point = np.zeros(scale.shape, helper.tensor_dtype_to_np_dtype(kind.elem_type))
    attributes = {"scale": scale.reshape(-1), "zero_point": zero_point.reshape(-1).astype(np.int32)}
    if scale.ndim == 1:
        attributes["axis"] = np.uint32(axis_of(int(node.attributes.get("axis", 1)), kind.rank))
    builder.add("Dequantize", [builder.get(node.inputs[0])], [builder.output(node)], attributes)


def add_to_shape(builder: Builder, held: str, node: Node, suffix: str) -> None:
    """Ends a node whose catalogue op leaves one element of dims [1] where the model has rank 0."""
    before, after = builder.plan.tensors[held].dims, builder.type_of(node.outputs[0]).dims
    add_reshape(builder, held, builder.output(node), reshape_target(before, after), suffix)
