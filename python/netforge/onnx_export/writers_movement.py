"""Writers of the ops that move elements without computing with them."""

from __future__ import annotations

import itertools

from netforge.onnx_export.element_types import FLOATS
from netforge.onnx_export.op_writer import END, OpWriter
from netforge.onnx_export.registry import writer
from netforge.onnx_export.writers_elementwise import same_kind


@writer("Transpose")
def transpose(op: OpWriter) -> None:
    """A Transpose between the layouts is left out where both forms are there already."""
    order, rank = tuple(op.integers("perm")), op.rank(op.x)
    forms, output = op.graph.channel_first_forms, op.op.outputs[0].name
    same_type = op.kind(op.x) == op.out_kind()
    if op.graph.channel_last and rank > 2 and same_type:
        if order == (0, rank - 1, *range(1, rank - 1)) and op.x in forms and output not in op.graph.shown:
            op.graph.aliases[output] = forms[op.x]
            return
        if order == (0, *range(2, rank), 1):
            forms.setdefault(output, op.x)
    op.result(op.transpose(op.x, order))


@writer("Reshape")
def reshape(op: OpWriter) -> None:
    """To the dims of the output. Where several vary, the attribute says which are copied from the input."""
    out = op.out_dims()
    if out.count(None) > 1:
        given = op.integers("shape", [])
        fits = len(given) == len(out) and given.count(-1) <= 1
        if not fits or any(size is None and value > 0 for size, value in zip(out, given, strict=True)):
            raise op.fail("several sizes of the result aren't known")
        target = [value if size is None else size for size, value in zip(out, given, strict=True)]
        op.result(op.node("Reshape", [op.x, op.shape(target)]))
        return
    op.result(op.reshape(op.x, out))


@writer("ExpandDims")
def expand_dims(op: OpWriter) -> None:
    out, rank = op.out_dims(), op.rank(op.x)
    axes = sorted(axis + rank if axis < 0 else axis for axis in op.integers("axes"))
    dims = list(op.dims(op.x))
    for axis in axes:
        dims.insert(axis, 1)
    if None in out and len(dims) == len(out):
        op.result(op.node("Unsqueeze", [op.x, op.shape(axes, "axes")]))
    else:
        op.result(op.reshape(op.x, out))


@writer("Concat")
def concat(op: OpWriter) -> None:
    axis = op.axis(op.rank(op.x), default=-1)
    op.result(op.node("Concat", same_kind(op, op.inputs, keep_bool=True), {"axis": axis}))


@writer("Pack")
def pack(op: OpWriter) -> None:
    """The inputs side by side along a new axis."""
    rank = op.rank(op.x)
    axis = op.axis(rank + 1, default=-1)
    names = []
    for name in same_kind(op, op.inputs, keep_bool=True):
        dims = op.dims(name)
        wide = (*dims[:axis], 1, *dims[axis:])
        many = wide.count(None) > 1
        names.append(
            op.node("Unsqueeze", [name, op.shape([axis], "axes")]) if many else op.reshape(name, wide)
        )
    op.result(op.node("Concat", names, {"axis": axis}))


@writer("Split")
def split(op: OpWriter) -> None:
    rank = op.rank(op.x)
    axis = op.axis(rank)
    outputs = [position for position, tensor in enumerate(op.op.outputs)]
    size = op.dims(op.x)[axis]
    cuts = op.integers("split_index", [])
    if not cuts and len(outputs) > 1:
        if size is None or size % len(outputs):
            raise op.fail(f"an axis of size {size} doesn't fall into {len(outputs)} equal parts")
        cuts = [size // len(outputs) * number for number in range(1, len(outputs))]
    if len(cuts) + 1 != len(outputs):
        raise op.fail(f"{len(cuts)} cuts make no {len(outputs)} parts")
    bounds = [0, *cuts, END if size is None else size]
    if size is None:
        for position in outputs:
            op.result(op.slice(op.x, bounds[position], bounds[position + 1], axis), position)
        return
    sizes = op.shape([after - before for before, after in itertools.pairwise(bounds)], "sizes")
    parts = op.nodes("Split", [op.x, sizes], {"axis": axis}, [op.kind(op.x)] * len(outputs))
    for position, part in enumerate(parts):
        op.result(part, position)


@writer("Expand")
def expand(op: OpWriter) -> None:
    op.result(op.node("Expand", [op.x, op.shape(op.integers("shape"))]))


@writer("Tile")
def tile(op: OpWriter) -> None:
    op.result(op.node("Tile", [op.x, op.shape(op.integers("multiples"), "repeats")]))


_SCHEMES = {0: "constant", 1: "reflect", 2: "edge", 3: "wrap"}


@writer("Pad")
def pad(op: OpWriter) -> None:
    amounts = op.integers("pad_amount")
    scheme = int(op.attribute("scheme", 0))
    if scheme not in _SCHEMES:
        raise op.fail(f"pad scheme {scheme} isn't known")
    names = [op.x, op.shape([*amounts[::2], *amounts[1::2]], "pads")]
    if scheme == 0:
        value = float(op.attribute("pad_constant_value", 0.0))
        names.append(op.like(op.x, value if op.kind(op.x) in FLOATS else round(value), "value"))
    op.result(op.node("Pad", names, {"mode": _SCHEMES[scheme]}))


@writer("StridedSlice")
def strided_slice(op: OpWriter) -> None:
    """A row of begin, end and stride per axis; masks count the places of the result's new axes too."""
    dims = op.dims(op.x)
    ranges = op.integers("ranges")
    rows = [ranges[at : at + 3] for at in range(0, len(ranges), 3)][: len(dims)]
    if len(rows) < len(dims):
        raise op.fail(f"it has {len(rows)} ranges for {len(dims)} axes")
    begin_mask, end_mask, shrink, new = (
        int(op.attribute(name, 0)) for name in ("begin_mask", "end_mask", "shrink_axes", "new_axes_mask")
    )
    bounds: list[tuple[int, int, int, int]] = []  # axis, begin, end, step
    dropped, added = [], []
    place = 0
    for axis, ((begin, end, step), size) in enumerate(zip(rows, dims, strict=True)):
        while new >> place & 1:
            added.append(place - len(dropped))
            place += 1
        if shrink >> place & 1:
            bounds.append((axis, begin, begin + 1 if begin != -1 else END, 1))
            dropped.append(axis)
        else:
            first, last = begin_mask >> place & 1, end_mask >> place & 1
            bounds.append(
                (axis, *_bounds(begin, end, step, size, bool(first), bool(last), op.op.inputs[0].dims[axis]))
            )
        place += 1
    while new >> place & 1:
        added.append(place - len(dropped))
        place += 1
    value = op.x
    moving = [row for row in bounds if row[1:] != (0, END, 1) and row[1:] != (0, dims[row[0]], 1)]
    if moving:
        axes, begins, ends, steps = (list(column) for column in zip(*moving, strict=False))
        values = (begins, ends, axes, steps)
        value = op.node("Slice", [value, *(op.shape(column, "bounds") for column in values)])
    if dropped:
        value = op.node("Squeeze", [value, op.shape(dropped, "axes")])
    if added:
        value = op.node("Unsqueeze", [value, op.shape(added, "axes")])
    op.result(value)


def _bounds(
    begin: int, end: int, step: int, size: int | None, first: bool, last: bool, stored: int
) -> tuple[int, int, int]:
    """In ONNX's sense: a mask opens its side, and so does what reaches over the whole of an axis."""
    front = -END
    if size is None:
        # Of an axis that varies, an end at its stored size is its end.
        return (0 if first else begin), (END if last or end == stored else end), step
    if step > 0:
        return (0 if first else begin), (END if last else end), step
    # With a negative stride an end of -1 lies in front of the first element.
    return (END if first else begin), (front if last or end < 0 else end), step


@writer("DepthToSpace", "SpaceToDepth")
def depth_space(op: OpWriter) -> None:
    """Mode 0 takes the block's rows and columns outside the depth that stays, mode 1 inside."""
    to_space = op.op.type == "DepthToSpace"
    height, width = op.integers("block_size")
    inside = int(op.attribute("mode", 0)) == 1
    x = op.channel_first(op.x)
    if height == width and (to_space or not inside):
        attributes: dict[str, object] = {"blocksize": height}
        if to_space:
            attributes["mode"] = "CRD" if inside else "DCR"
        op.channel_first_result(op.node(op.op.type, [x], attributes))
        return
    n, c, h, w = op.static_dims(x)
    if to_space:
        depth = c // (height * width)
        split = (n, depth, height, width, h, w) if inside else (n, height, width, depth, h, w)
        order = (0, 1, 4, 2, 5, 3) if inside else (0, 3, 4, 1, 5, 2)
        after = (n, depth, h * height, w * width)
    else:
        split = (n, c, h // height, height, w // width, width)
        order = (0, 1, 3, 5, 2, 4) if inside else (0, 3, 5, 1, 2, 4)
        after = (n, c * height * width, h // height, w // width)
    op.channel_first_result(op.reshape(op.transpose(op.reshape(x, split), order), after))


_INTERPOLATIONS = {0: "nearest", 1: "linear", 2: "cubic"}
_COORDINATES = ("half_pixel", "pytorch_half_pixel", "align_corners", "asymmetric", "half_pixel_symmetric")
_NEAREST = ("round_prefer_floor", "round_prefer_ceil", "floor", "ceil")


@writer("Resize")
def resize(op: OpWriter) -> None:
    x = op.channel_first(op.x)
    mode = _INTERPOLATIONS.get(int(op.attribute("interpolation_mode", 0)))
    coordinates = int(op.attribute("transformation_mode", 0))
    nearest = int(op.attribute("nearest_mode", 0))
    if mode is None or coordinates >= len(_COORDINATES) or nearest >= len(_NEAREST):
        raise op.fail("its interpolation, coordinates or rounding isn't known")
    attributes: dict[str, object] = {
        "mode": mode,
        "coordinate_transformation_mode": _COORDINATES[coordinates],
    }
    if mode == "nearest":
        attributes["nearest_mode"] = _NEAREST[nearest]
    else:
        attributes["antialias"] = int(bool(op.attribute("antialias", False)))
    if mode == "cubic":
        attributes["cubic_coeff_a"] = float(op.attribute("cubic_coeff", -0.75))
    if mode != "nearest":
        attributes["exclude_outside"] = int(bool(op.attribute("exclude_outside", False)))
    attributes["axes"] = list(range(2, op.rank(x)))
    if op.op.attributes.hasAttr("scales"):
        scales = op.op.attributes.getStaticTensor("scales").numpy().reshape(-1)
        names = [x, "", op.graph.constant(scales.copy(), f"{op.op.name}_scales")]
    else:
        sizes = op.channel_first_dims(op.out_dims())[2:]
        if None in sizes:
            raise op.fail("the sizes aren't known")
        names = [x, "", "", op.shape(sizes, "sizes")]
    op.channel_first_result(op.node("Resize", names, attributes))
