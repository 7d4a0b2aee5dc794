"""Converters of pooling. "Pool" and "Pool3d" have no class; their attributes follow ONNX."""

from __future__ import annotations

import numpy as np

from netforge.onnx_import.builder import Builder
from netforge.onnx_import.errors import NotTyped
from netforge.onnx_import.layout import LAST, SPATIAL_FORMATS
from netforge.onnx_import.ops_convolution import Window, resolve_same, window_of
from netforge.onnx_import.preparation import Node
from netforge.onnx_import.registry import converter
from netforge.onnx_import.values import FLOAT_TYPES

_POOLS = {"MaxPool": "MaxPool", "AveragePool": "AveragePool", "LpPool": "LpPool"}


@converter(*_POOLS)
def pool(builder: Builder, node: Node) -> None:
    data, out = builder.type_of(node.inputs[0]), builder.type_of(node.outputs[0])
    if data.rank not in SPATIAL_FORMATS:
        raise NotTyped("the catalogue has pools of one to three spatial axes")
    if builder.is_read(node, 1):
        raise NotTyped("the places of the maxima are read")
    window = window_of(node, list(node.attributes["kernel_shape"]))
    if not resolve_same(window, data.dims[2:]):
        raise NotTyped("padding to the same size, which isn't known")
    ceil_mode = bool(node.attributes.get("ceil_mode", 0))
    if window.auto_pad != "NOTSET":
        # With computed pads both roundings agree; without any the model's inference rounds down.
        if any(
            isinstance(size, int) and size != expected
            for size, expected in _floor_sizes(window, data.dims, out.dims)
        ):
            raise NotTyped("automatic padding and rounding up don't agree")
        ceil_mode = False
    count = len(window.kernel)
    attributes = {
        "pool_type": f"{_POOLS[node.op_type]}{count}d",
        "kernel_shape": np.array(window.kernel, np.uint32),
        "stride": np.array(window.strides, np.uint32),
        "dilation": np.array(window.dilations, np.uint32),
        "pad_amount": np.array(window.pads, np.uint32),
        "ceil_mode": ceil_mode,
    }
    if node.op_type == "AveragePool":
        attributes["count_include_pad"] = bool(node.attributes.get("count_include_pad", 0))
    if node.op_type == "LpPool":
        attributes["p"] = np.uint32(int(node.attributes.get("p", 2)))
    layout = builder.op_layout
    type_name = "Pool3d" if count == 3 else "Pool"
    outputs = [builder.output(node, 0, layout)]
    builder.add(type_name, [builder.get(node.inputs[0], layout)], outputs, attributes)


def _floor_sizes(window: Window, data: tuple, out: tuple) -> list[tuple]:
    sizes = []
    for axis, size in enumerate(data[2:]):
        if isinstance(size, int):
            room = size + sum(window.pads[axis]) - window.extent(axis)
            sizes.append((out[2 + axis], room // window.strides[axis] + 1))
    return sizes


@converter("GlobalAveragePool", "GlobalMaxPool")
def global_pool(builder: Builder, node: Node) -> None:
    """A reduction over the spatial axes, which stay as axes of size 1."""
    data = builder.type_of(node.inputs[0])
    if data.rank < 3 or data.elem_type not in FLOAT_TYPES:
        raise NotTyped("the reduction is for floats with spatial axes")
    layout = builder.op_layout if data.rank in SPATIAL_FORMATS else "source"
    first = 1 if layout == LAST else 2
    axes = np.arange(first, first + data.rank - 2, dtype=np.uint32)
    reduce_type = "ReduceMean" if node.op_type == "GlobalAveragePool" else "ReduceMax"
    attributes = {"reduce_type": reduce_type, "axes": axes, "keep_dims": True}
    outputs = [builder.output(node, 0, layout)]
    builder.add("Reduce", [builder.get(node.inputs[0], layout)], outputs, attributes)
