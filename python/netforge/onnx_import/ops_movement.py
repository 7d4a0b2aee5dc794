"""Converters of the operators that move elements without computing with them."""

from __future__ import annotations

import numpy as np

from netforge.onnx_import.builder import Builder
from netforge.onnx_import.errors import NotTyped
from netforge.onnx_import.layout import LAST, SPATIAL_FORMATS
from netforge.onnx_import.preparation import Node
from netforge.onnx_import.registry import converter
from netforge.onnx_import.reshaping import add_expand_dims, add_reshape, reshape_target
from netforge.onnx_import.values import FLOAT_TYPES, Dims

_SCHEMES = {"constant": 0, "reflect": 1, "edge": 2, "wrap": 3}


def axis_of(value: int, rank: int) -> int:
    return value + rank if value < 0 else value


@converter("Identity", "Dropout")
def identity(builder: Builder, node: Node) -> None:
    if node.op_type == "Dropout":
        training = builder.constant(node.input(2))
        if node.input(2) and (training is None or bool(training)):
            raise NotTyped("it is in training mode")
        if builder.is_read(node, 1):
            raise NotTyped("its mask is read")
    if node.outputs[0] in builder.shown:
        builder.add("Identity", [builder.get(node.inputs[0])], [builder.output(node)])
    else:
        builder.alias(node.outputs[0], node.inputs[0])


@converter("Transpose")
def transpose(builder: Builder, node: Node) -> None:
    rank = builder.type_of(node.inputs[0]).rank
    if not rank:
        raise NotTyped("the operand is of rank 0")
    order = node.attributes.get("perm") or list(reversed(range(rank)))
    attributes = {"perm": np.array(order, np.uint32)}
    builder.add("Transpose", [builder.get(node.inputs[0])], [builder.output(node)], attributes)


@converter("Reshape")
def reshape(builder: Builder, node: Node) -> None:
    before, after = builder.type_of(node.inputs[0]), builder.model.inference.inferred.get(node.outputs[0])
    if after is None:
        raise NotTyped("the target isn't known")
    target = reshape_target(before.dims, after.dims)
    add_reshape(builder, builder.get(node.inputs[0]), builder.output(node), target)


@converter("Flatten", "Squeeze")
def flatten(builder: Builder, node: Node) -> None:
    if node.op_type == "Squeeze" and node.input(1):
        builder.required_constant(node, 1, "the list of axes")
    before, after = builder.type_of(node.inputs[0]), builder.type_of(node.outputs[0])
    target = reshape_target(before.dims, after.dims)
    add_reshape(builder, builder.get(node.inputs[0]), builder.output(node), target)


@converter("Unsqueeze")
def unsqueeze(builder: Builder, node: Node) -> None:
    axes = node.attributes.get("axes")
    if axes is None:
        axes = builder.required_constant(node, 1, "the list of axes").reshape(-1)
    rank = builder.type_of(node.outputs[0]).rank
    places = sorted(axis_of(int(axis), rank) for axis in axes)
    if not places:
        raise NotTyped("it adds no axis")
    add_expand_dims(builder, builder.get(node.inputs[0]), builder.output(node), places)


@converter("Concat")
def concat(builder: Builder, node: Node) -> None:
    rank = builder.type_of(node.outputs[0]).rank
    axis = axis_of(int(node.attributes["axis"]), rank)
    builder.add(
        "Concat",
        [builder.get(name) for name in node.inputs],
        [builder.output(node)],
        {"axis": np.uint32(axis)},
    )


@converter("Split")
def split(builder: Builder, node: Node) -> None:
    kind = builder.type_of(node.inputs[0])
    axis = axis_of(int(node.attributes.get("axis", 0)), kind.rank)
    if node.input(1):
        sizes = [int(size) for size in builder.required_constant(node, 1, "the list of sizes").reshape(-1)]
    elif node.attributes.get("split"):
        sizes = [int(size) for size in node.attributes["split"]]
    else:
        size, count = kind.dims[axis], len(node.outputs)
        if not isinstance(size, int):
            raise NotTyped("it splits an axis of unknown size into equal parts")
        if node.opset < 18 and size % count:
            raise NotTyped("the axis doesn't divide evenly")
        part = -(-size // count)
        sizes = [part] * (count - 1) + [size - part * (count - 1)]
    if len(sizes) != len(node.outputs) or min(sizes) < 0:
        raise NotTyped("the number of parts isn't that of the outputs")
    if not all(node.outputs):
        raise NotTyped("a part is left out")
    cuts = np.cumsum(sizes)[:-1].astype(np.uint32)
    outputs = [builder.output(node, position) for position in range(len(node.outputs))]
    builder.add(
        "Split", [builder.get(node.inputs[0])], outputs, {"axis": np.uint32(axis), "split_index": cuts}
    )


@converter("Slice")
def slice_(builder: Builder, node: Node) -> None:
    kind = builder.type_of(node.inputs[0])
    starts, ends, axes, steps = _slice_arguments(builder, node, kind.rank)
    rows = [[0, size if isinstance(size, int) else 1, 1] for size in kind.dims]
    for start, end, axis, step in zip(starts, ends, axes, steps, strict=True):
        size = kind.dims[axis]
        if not isinstance(size, int):
            if start == 0 and step == 1 and end >= (1 << 31) - 1:
                continue
            raise NotTyped("it slices an axis of unknown size")
        rows[axis] = _slice_row(start, end, step, size)
    if not rows or any(size == 0 for size in kind.dims):
        raise NotTyped("there is nothing to slice")
    attributes = {"ranges": np.array(rows, np.int32)}
    for mask in ("begin_mask", "end_mask", "shrink_axes", "new_axes_mask"):
        attributes[mask] = np.uint32(0)
    builder.add("StridedSlice", [builder.get(node.inputs[0])], [builder.output(node)], attributes)


def _slice_arguments(builder: Builder, node: Node, rank: int) -> tuple[list[int], ...]:
    def values(position: int, name: str) -> list[int] | None:
        if node.opset < 10:
            found = node.attributes.get(name)
        elif node.input(position):
            found = builder.required_constant(node, position, f"the list of {name}").reshape(-1)
        else:
            found = None
        return None if found is None else [int(value) for value in found]

    starts, ends = values(1, "starts") or [], values(2, "ends") or []
    axes, steps = values(3, "axes"), values(4, "steps")
    axes = [axis_of(axis, rank) for axis in (range(len(starts)) if axes is None else axes)]
    return starts, ends, axes, [1] * len(starts) if steps is None else steps


def _slice_row(start: int, end: int, step: int, size: int) -> list[int]:
    """Begin, end and stride within the axis; an end of -1 lies in front of its first element."""
    if step == 0 or not -(1 << 31) <= step < 1 << 31:
        raise NotTyped(f"a step of {step}")
    low, high = (0, size) if step > 0 else (-1, size - 1)
    clamp = lambda at: min(max(at + size if at < 0 else at, low), high)  # noqa: E731
    begin, end = clamp(start), clamp(end)
    if (step > 0 and begin >= end) or (step < 0 and begin <= end):
        raise NotTyped("the slice is empty")
    # The size of the result is computed in 32-bit floats.
    if int(np.ceil(np.float32(end - begin) / np.float32(step))) != len(range(begin, end, step)):
        raise NotTyped("the axis is too long for the catalogue's slice")
    return [begin, end, step]


@converter("Pad")
def pad(builder: Builder, node: Node) -> None:
    kind = builder.type_of(node.inputs[0])
    mode = str(node.attributes.get("mode", "constant"))
    value = 0.0
    if node.opset < 11:
        amounts = [int(amount) for amount in node.attributes["pads"]]
        value = float(node.attributes.get("value", 0.0))
    else:
        amounts = [
            int(amount) for amount in builder.required_constant(node, 1, "the list of pads").reshape(-1)
        ]
        if node.input(2):
            value = _exact_float(builder.required_constant(node, 2, "the pad value"))
    axes = range(kind.rank)
    if node.input(3):
        axes = [
            axis_of(int(axis), kind.rank) for axis in builder.required_constant(node, 3, "the list of axes")
        ]
    pairs = [[0, 0] for _ in range(kind.rank)]
    for place, axis in enumerate(axes):
        pairs[axis] = [amounts[place], amounts[place + len(amounts) // 2]]
    if not pairs or min(min(pair) for pair in pairs) < 0:
        raise NotTyped("it cuts off, or the operand is of rank 0")
    attributes = {
        "pad_amount": np.array(pairs, np.uint32),
        "scheme": np.uint32(_SCHEMES[mode]),
        "pad_constant_value": value,
    }
    builder.add("Pad", [builder.get(node.inputs[0])], [builder.output(node)], attributes)


def _exact_float(value: np.ndarray) -> float:
    number = value.reshape(-1)[0]
    if value.dtype.kind in "fiub" and (np.float32(number) == number or number != number):
        return float(number)
    raise NotTyped("the pad value is no 32-bit float")


@converter("Expand")
def expand(builder: Builder, node: Node) -> None:
    out = builder.model.inference.inferred.get(node.outputs[0])
    if out is None or not out.is_static or not out.dims or 0 in out.dims:
        raise NotTyped("the target isn't known, or it is empty")
    builder.add(
        "Expand",
        [builder.get_operand(node.inputs[0])],
        [builder.output(node)],
        {"shape": np.array(out.dims, np.uint32)},
    )


@converter("Tile")
def tile(builder: Builder, node: Node) -> None:
    multiples = builder.required_constant(node, 1, "the list of repeats").reshape(-1)
    if not multiples.size or multiples.min() < 1:
        raise NotTyped("it repeats nothing")
    attributes = {"multiples": multiples.astype(np.uint32)}
    builder.add("Tile", [builder.get(node.inputs[0])], [builder.output(node)], attributes)


@converter("DepthToSpace", "SpaceToDepth")
def depth_space(builder: Builder, node: Node) -> None:
    if builder.type_of(node.inputs[0]).rank != 4:
        raise NotTyped("the data don't have two spatial axes")
    block = int(node.attributes["blocksize"])
    mode = 1 if node.attributes.get("mode", "DCR") == "CRD" else 0
    attributes = {"block_size": np.array([block, block], np.uint32), "mode": np.uint32(mode)}
    layout = builder.op_layout
    if node.op_type == "SpaceToDepth":
        attributes["data_format"] = "NHWC" if layout == LAST else "NCHW"
    outputs = [builder.output(node, 0, layout)]
    builder.add(node.op_type, [builder.get(node.inputs[0], layout)], outputs, attributes)


# Numbers of the ways in which a Resize maps places of the output to places of the input.
_COORDINATES = {
    "half_pixel": 0,
    "pytorch_half_pixel": 1,
    "align_corners": 2,
    "asymmetric": 3,
    "half_pixel_symmetric": 4,
}
_INTERPOLATIONS = {"nearest": 0, "linear": 1, "cubic": 2}
_NEAREST = {"round_prefer_floor": 0, "round_prefer_ceil": 1, "floor": 2, "ceil": 3}


@converter("Resize", "Upsample")
def resize(builder: Builder, node: Node) -> None:
    kind, out = builder.type_of(node.inputs[0]), builder.type_of(node.outputs[0])
    if kind.rank not in SPATIAL_FORMATS or (
        kind.elem_type not in FLOAT_TYPES and node.attributes.get("mode") != "nearest"
    ):
        raise NotTyped("the data don't have one to three spatial axes, or are integers")
    attributes = node.attributes
    old = node.op_type == "Upsample" or node.opset < 11
    coordinates = "asymmetric" if old else str(attributes.get("coordinate_transformation_mode", "half_pixel"))
    if coordinates not in _COORDINATES:
        raise NotTyped(f"its coordinates are those of {coordinates}")
    if attributes.get("keep_aspect_ratio_policy", "stretch") != "stretch":
        raise NotTyped("it keeps the aspect ratio")
    scales = _scales(builder, node, kind.rank)
    if scales is None:
        sizes = builder.required_constant(node, 3, "the list of sizes")
        if not kind.is_static or not out.is_static or sizes is None:
            raise NotTyped("the sizes aren't known")
    if kind.dims[:2] != out.dims[:2] or (scales is not None and any(scale != 1 for scale in scales[:2])):
        raise NotTyped("it resizes the batch or the channels")
    mode = str(attributes.get("mode", "nearest"))
    result = {
        "interpolation_mode": np.uint32(_INTERPOLATIONS["linear" if mode == "bilinear" else mode]),
        "transformation_mode": np.uint32(_COORDINATES[coordinates]),
        "antialias": bool(attributes.get("antialias", 0)),
        "exclude_outside": bool(attributes.get("exclude_outside", 0)),
    }
    if mode == "nearest":
        rounding = "floor" if old else str(attributes.get("nearest_mode", "round_prefer_floor"))
        result["nearest_mode"] = np.uint32(_NEAREST[rounding])
    if mode == "cubic":
        result["cubic_coeff"] = float(attributes.get("cubic_coeff_a", -0.75))
    if scales is not None:
        result["scales"] = np.array(scales[2:], np.float32)
    layout = builder.op_layout
    outputs = [builder.output(node, 0, layout)]
    builder.add("Resize", [builder.get(node.inputs[0], layout)], outputs, result)


def _scales(builder: Builder, node: Node, rank: int) -> Dims | None:
    """Scales of all axes; None when sizes are given."""
    if "scales" in node.attributes:
        values = list(node.attributes["scales"])
    else:
        position = 2 if node.op_type == "Resize" and node.opset >= 11 else 1
        if not node.input(position):
            return None
        values = [
            float(scale)
            for scale in builder.required_constant(node, position, "the list of scales").reshape(-1)
        ]
    if not values:
        return None
    axes = node.attributes.get("axes")
    if axes is None:
        return tuple(values)
    result = [1.0] * rank
    for axis, value in zip(axes, values, strict=True):
        result[axis_of(int(axis), rank)] = value
    return tuple(result)
