"""Converters of convolutions and transposed convolutions of one to three spatial axes.

One spatial axis is computed by the op of two with a unit axis in front, which changes no value: the kernel
has size 1 there, stride 1 and no padding.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from netforge.onnx_import.builder import Builder
from netforge.onnx_import.errors import NotTyped
from netforge.onnx_import.layout import (
    CONV_WEIGHT,
    LAST,
    SOURCE,
    SPATIAL_FORMATS,
    TO_LAST,
    TRANSPOSED_CONV_WEIGHT,
)
from netforge.onnx_import.preparation import Node
from netforge.onnx_import.registry import converter
from netforge.onnx_import.reshaping import add_expand_dims, add_reshape, reshape_target
from netforge.onnx_import.values import FLOAT_TYPES, Dims

SAME_BEGIN, SAME_END, EXPLICIT_FLOOR = np.uint8(1), np.uint8(2), np.uint8(5)


@dataclass
class Window:
    """How a kernel moves over the spatial axes; `pads` holds (before, after) per axis."""

    kernel: list[int]
    strides: list[int]
    dilations: list[int]
    pads: list[tuple[int, int]]
    auto_pad: str

    def extent(self, axis: int) -> int:
        return (self.kernel[axis] - 1) * self.dilations[axis] + 1


def window_of(node: Node, kernel: list[int]) -> Window:
    count = len(kernel)
    attributes = node.attributes
    pads = list(attributes.get("pads", [0] * 2 * count))
    window = Window(
        list(kernel),
        list(attributes.get("strides", [1] * count)),
        list(attributes.get("dilations", [1] * count)),
        list(zip(pads[:count], pads[count:], strict=True)) if len(pads) == 2 * count else [],
        str(attributes.get("auto_pad", "NOTSET")),
    )
    if any(len(values) != count for values in (window.strides, window.dilations, window.pads)):
        raise NotTyped("strides, dilations or pads don't fit the kernel")
    if min(pads, default=0) < 0:
        raise NotTyped("negative padding")
    if window.auto_pad in ("VALID", "SAME_UPPER", "SAME_LOWER"):
        window.pads = [(0, 0)] * count
    return window


def resolve_same(window: Window, spatial: Dims) -> bool:
    """Turns padding to the same size into numbers; False when the sizes of the data aren't known."""
    if window.auto_pad not in ("SAME_UPPER", "SAME_LOWER"):
        return True
    if not all(isinstance(size, int) for size in spatial):
        return False
    for axis, size in enumerate(spatial):
        outputs = -(-size // window.strides[axis])
        total = max((outputs - 1) * window.strides[axis] + window.extent(axis) - size, 0)
        small, large = total // 2, total - total // 2
        window.pads[axis] = (small, large) if window.auto_pad == "SAME_UPPER" else (large, small)
    return True


@converter("Conv")
def conv(builder: Builder, node: Node) -> None:
    data, weight = builder.type_of(node.inputs[0]), builder.type_of(node.inputs[1])
    _require_rank(data.rank, weight.rank, weight.dims[2:], data.elem_type)
    window = window_of(node, list(node.attributes.get("kernel_shape", weight.dims[2:])))
    group = int(node.attributes.get("group", 1))
    strategy = EXPLICIT_FLOOR
    if not resolve_same(window, data.dims[2:]):
        if data.rank == 3:
            raise NotTyped("padding of one axis to the same size, which isn't known")
        strategy = SAME_END if window.auto_pad == "SAME_UPPER" else SAME_BEGIN
    depthwise = data.rank < 5 and group > 1 and group == data.dims[1] and weight.dims[1] == 1
    attributes = _window_attributes(window, data.rank)
    attributes["padding_size_strategy"] = strategy
    if not depthwise:
        attributes["group"] = np.uint32(group)
    type_name = "Conv3d" if data.rank == 5 else "DepthWiseConv2d" if depthwise else "Conv2d"
    _add_conv(builder, node, type_name, attributes, CONV_WEIGHT)


@converter("ConvTranspose")
def conv_transpose(builder: Builder, node: Node) -> None:
    data, weight = builder.type_of(node.inputs[0]), builder.type_of(node.inputs[1])
    _require_rank(data.rank, weight.rank, weight.dims[2:], data.elem_type)
    window = window_of(node, list(node.attributes.get("kernel_shape", weight.dims[2:])))
    if data.rank < 5 and any(dilation != 1 for dilation in window.dilations):
        raise NotTyped("the catalogue's transposed convolution of two axes has no dilation")
    count = len(window.kernel)
    output_padding = list(node.attributes.get("output_padding", [0] * count))
    if len(output_padding) != count or min(output_padding) < 0:
        raise NotTyped("the output padding doesn't fit the kernel")
    _resolve_output_shape(node, window, data.dims[2:], output_padding)
    attributes = _window_attributes(window, data.rank)
    if data.rank < 5:
        del attributes["dilation"]
    attributes["padding_size_strategy"] = EXPLICIT_FLOOR
    attributes["group"] = np.uint32(int(node.attributes.get("group", 1)))
    attributes["output_padding"] = np.array([0] * (data.rank == 3) + output_padding, np.uint32)
    type_name = "TransposeConv3d" if data.rank == 5 else "TransposeConv2d"
    _add_conv(builder, node, type_name, attributes, TRANSPOSED_CONV_WEIGHT)


def _resolve_output_shape(node: Node, window: Window, spatial: Dims, output_padding: list[int]) -> None:
    """Turns a wished output size, or padding to input size times stride, into numbers."""
    wished = node.attributes.get("output_shape")
    if not wished and window.auto_pad not in ("SAME_UPPER", "SAME_LOWER"):
        return
    if not all(isinstance(size, int) for size in spatial):
        raise NotTyped("the padding follows from sizes that aren't known")
    sizes = list(wished)[-len(spatial) :] if wished else []
    for axis, size in enumerate(spatial):
        stride = window.strides[axis]
        target = sizes[axis] if wished else size * stride
        total = stride * (size - 1) + output_padding[axis] + window.extent(axis) - target
        if total < 0:
            raise NotTyped("the output is larger than the kernel reaches")
        small, large = total // 2, total - total // 2
        window.pads[axis] = (small, large) if window.auto_pad == "SAME_UPPER" else (large, small)


def _require_rank(rank: int, weight_rank: int, kernel: Dims, elem_type: int) -> None:
    if rank not in SPATIAL_FORMATS or weight_rank != rank:
        raise NotTyped("the catalogue has convolutions of one to three spatial axes")
    if not all(isinstance(size, int) for size in kernel):
        raise NotTyped("the size of the kernel isn't known")
    if elem_type not in FLOAT_TYPES:
        raise NotTyped("the convolution is of integers")


def _window_attributes(window: Window, rank: int) -> dict:
    lead = [0] if rank == 3 else []
    pads = [(0, 0)] * len(lead) + window.pads
    return {
        "stride": np.array([1] * len(lead) + window.strides, np.uint32),
        "dilation": np.array([1] * len(lead) + window.dilations, np.uint32),
        "pad_amount": np.array(pads, np.uint32),
    }


def _add_conv(builder: Builder, node: Node, type_name: str, attributes: dict, weight_formats: dict) -> None:
    data = builder.type_of(node.inputs[0])
    bias = [builder.get(node.input(2))] if node.input(2) else []
    if data.rank == 3:
        _add_by_unit_axis(builder, node, type_name, attributes, weight_formats, bias)
        return
    layout = builder.op_layout
    before, after, order = weight_formats[data.rank]
    weight = builder.get_as(node.inputs[1], before)
    if layout == LAST:
        weight = builder.get_tensor_permuted(weight, order, after)
    names = [builder.get(node.inputs[0], layout), weight, *bias]
    builder.add(type_name, names, [builder.output(node, 0, layout)], attributes)


def _add_by_unit_axis(
    builder: Builder, node: Node, type_name: str, attributes: dict, weight_formats: dict, bias: list[str]
) -> None:
    data, out = builder.type_of(node.inputs[0]), builder.type_of(node.outputs[0])
    source, last = SPATIAL_FORMATS[4]
    wide_out = (*out.dims[:2], 1, out.dims[2])
    target = reshape_target(wide_out, out.dims)
    wide = builder.temporary("unit_axis", data.elem_type, (*data.dims[:2], 1, data.dims[2]), source)
    add_expand_dims(builder, builder.get(node.inputs[0]), wide, [2], "unit_axis")
    weight = _wide_weight(builder, node, weight_formats[4][0])
    result = builder.temporary("wide", out.elem_type, wide_out, source)
    if builder.op_layout == SOURCE:
        builder.add(type_name, [wide, weight, *bias], [result], attributes)
    else:
        _, after, order = weight_formats[4]
        held = builder.get_tensor_permuted(wide, TO_LAST[4], last)
        weight = builder.get_tensor_permuted(weight, order, after)
        computed = builder.temporary(
            f"wide.{last}", out.elem_type, (out.dims[0], 1, out.dims[2], out.dims[1]), last
        )
        builder.plan.tensors[computed].source_format = source
        builder.add(type_name, [held, weight, *bias], [computed], attributes)
        builder.transpose_into(computed, (0, 3, 1, 2), result)
    add_reshape(builder, result, builder.output(node), target, "without_unit_axis")


def _wide_weight(builder: Builder, node: Node, format: str) -> str:
    weight = builder.type_of(node.inputs[1])
    dims = (*weight.dims[:2], 1, weight.dims[2])
    if builder.is_constant(node.inputs[1]):
        return builder.get_with_dims(node.inputs[1], dims, format)
    wide = builder.temporary("wide_weight", weight.elem_type, dims, format)
    add_expand_dims(builder, builder.get(node.inputs[1]), wide, [2], "wide_weight")
    return wide
