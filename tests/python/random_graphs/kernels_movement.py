"""Kernels of moving, choosing and reducing elements."""

from __future__ import annotations

import math

import numpy as np

from random_graphs.evaluator import Inconsistent, Node, kernel, rows_of


@kernel("Reshape")
def reshape(node: Node, x: np.ndarray, *shape: np.ndarray) -> np.ndarray:
    return x.reshape(node.out_dims())


@kernel("ExpandDims", "Unsqueeze")
def expand_dims(node: Node, x: np.ndarray) -> np.ndarray:
    for axis in sorted(node.axes(x.ndim)):
        x = np.expand_dims(x, axis)
    return x


@kernel("Squeeze")
def squeeze(node: Node, x: np.ndarray) -> np.ndarray:
    return x.squeeze(tuple(node.axes(x.ndim)))


@kernel("Transpose")
def transpose(node: Node, x: np.ndarray) -> np.ndarray:
    return x.transpose(node.integers("perm"))


@kernel("Concat")
def concat(node: Node, *inputs: np.ndarray) -> np.ndarray:
    return np.concatenate(inputs, axis=node.axis(inputs[0].ndim, default=-1))


@kernel("Pack")
def pack(node: Node, *inputs: np.ndarray) -> np.ndarray:
    return np.stack(inputs, axis=node.axis(inputs[0].ndim + 1, default=-1))


@kernel("Split")
def split(node: Node, x: np.ndarray) -> list[np.ndarray]:
    axis, parts = node.axis(x.ndim), len(node.op.outputs)
    cuts = node.integers("split_index", [])
    if not cuts and parts > 1:
        cuts = [x.shape[axis] // parts * number for number in range(1, parts)]
    return np.split(x, cuts, axis=axis)


@kernel("Expand")
def expand(node: Node, x: np.ndarray) -> np.ndarray:
    return x * np.ones(node.integers("shape"))


@kernel("Tile")
def tile(node: Node, x: np.ndarray) -> np.ndarray:
    return np.tile(x, node.integers("multiples"))


@kernel("Pad")
def pad(node: Node, x: np.ndarray) -> np.ndarray:
    amounts = node.integers("pad_amount")
    widths = list(zip(amounts[::2], amounts[1::2], strict=True))
    scheme = int(node.value("scheme", 0))
    if scheme == 0:
        return np.pad(x, widths, constant_values=float(node.value("pad_constant_value", 0.0)))
    return np.pad(x, widths, mode={1: "reflect", 2: "edge", 3: "wrap"}[scheme])  # type: ignore[call-overload, no-any-return]


@kernel("StridedSlice")
def strided_slice(node: Node, x: np.ndarray) -> np.ndarray:
    """A row of begin, end and stride per axis; masks count the places of the result's new axes too."""
    ranges = node.integers("ranges")
    begin_mask, end_mask, shrink, new = (
        int(node.value(name, 0)) for name in ("begin_mask", "end_mask", "shrink_axes", "new_axes_mask")
    )
    index: list[object] = []
    for axis in range(x.ndim):
        begin, end, step = ranges[3 * axis : 3 * axis + 3]
        while new >> len(index) & 1:
            index.append(None)
        place = len(index)
        if shrink >> place & 1:
            index.append(begin)
            continue
        first = None if begin_mask >> place & 1 else begin
        # With a negative stride, an end of -1 lies in front of the first element.
        last = None if end_mask >> place & 1 or (step < 0 and end < 0) else end
        index.append(slice(first, last, step))
    while new >> len(index) & 1:
        index.append(None)
    return x[tuple(index)]  # type: ignore[index]


@kernel("Gather")
def gather(node: Node, x: np.ndarray, indices: np.ndarray) -> np.ndarray:
    return np.take(x, indices.astype(np.int64), axis=node.axis(x.ndim))


@kernel("GatherElements")
def gather_elements(node: Node, x: np.ndarray, indices: np.ndarray) -> np.ndarray:
    axis = node.axis(x.ndim)
    whole = indices.astype(np.int64)
    return np.take_along_axis(x, np.where(whole < 0, whole + x.shape[axis], whole), axis)


@kernel("GatherNd")
def gather_nd(node: Node, x: np.ndarray, indices: np.ndarray) -> np.ndarray:
    batch = node.axis(x.ndim, "batch_dims", 0)
    whole = indices.astype(np.int64)
    lead = math.prod(x.shape[:batch])
    rows, data = whole.reshape(lead, -1, whole.shape[-1]), x.reshape(lead, *x.shape[batch:])
    picked = np.stack([data[number][tuple(rows[number].T)] for number in range(lead)])
    return picked.reshape(*whole.shape[:-1], *x.shape[batch + whole.shape[-1] :])


@kernel("ScatterNd")
def scatter_nd(node: Node, x: np.ndarray, indices: np.ndarray, updates: np.ndarray) -> np.ndarray:
    result = x.copy()
    places = tuple(np.moveaxis(indices.astype(np.int64), -1, 0))
    reduction = str(node.value("reduction", "none"))
    if reduction == "none":
        result[places] = updates
    else:
        {"add": np.add, "mul": np.multiply, "max": np.maximum, "min": np.minimum}[reduction].at(
            result, places, updates
        )
    return result


@kernel("TopK")
def top_k(node: Node, x: np.ndarray) -> list[np.ndarray]:
    """Of equal values the one of the lower index."""
    keys = -x if bool(node.value("largest", True)) else x
    order = np.argsort(keys, axis=-1, kind="stable")[..., : int(node.value("k"))]
    return [np.take_along_axis(x, order, -1), order.astype(np.float64)]


@kernel("Arg")
def arg(node: Node, x: np.ndarray) -> np.ndarray:
    functions = {"Argmax": np.argmax, "Argmin": np.argmin}
    place = functions[str(node.value("arg_type"))](
        x, axis=node.axis(x.ndim), keepdims=bool(node.value("keep_dims", False))
    )
    return np.asarray(place, dtype=np.float64).reshape(place.shape if place.ndim else [1])


@kernel("CumulativeSum")
def cumulative_sum(node: Node, x: np.ndarray) -> np.ndarray:
    axis = node.axis(x.ndim)
    backwards = bool(node.value("reverse", False))
    x = np.flip(x, axis) if backwards else x
    sums = np.cumsum(x, axis=axis)
    if bool(node.value("exclusive", False)):
        sums = sums - x
    return np.flip(sums, axis) if backwards else sums


_REDUCTIONS = {
    "ReduceSum": np.add,
    "ReduceMean": np.add,
    "ReduceMax": np.maximum,
    "ReduceMin": np.minimum,
    "ReduceProd": np.multiply,
}


@kernel("Reduce", "ReduceL2")
def reduction(node: Node, x: np.ndarray) -> np.ndarray:
    kind = "ReduceL2" if node.type == "ReduceL2" else str(node.value("reduce_type"))
    axes = [axis for axis in node.axes(x.ndim) if axis != x.ndim]
    if not all(0 <= axis < x.ndim for axis in axes):
        raise Inconsistent(f"axes {axes} of rank {x.ndim}")
    elements = rows_of(x * x if kind == "ReduceL2" else x, axes)
    result = _REDUCTIONS.get(kind, np.add).reduce(elements, axis=-1)
    if kind == "ReduceMean":
        result = result / elements.shape[-1]
    if kind == "ReduceL2":
        result = np.sqrt(result)
    if bool(node.value("keep_dims", False)):
        return result.reshape([1 if axis in axes else size for axis, size in enumerate(x.shape)])
    return result if result.ndim else result.reshape([1])


@kernel("DepthToSpace", "SpaceToDepth")
def depth_space(node: Node, x: np.ndarray) -> np.ndarray:
    """Mode 0 takes the block's rows and columns outside the depth that stays, mode 1 inside."""
    height, width = node.integers("block_size")
    inside = int(node.value("mode", 0)) == 1
    x = node.channels_first(x)
    n, c, h, w = x.shape
    if node.type == "DepthToSpace":
        depth = c // (height * width)
        parts = (n, depth, height, width, h, w) if inside else (n, height, width, depth, h, w)
        order = (0, 1, 4, 2, 5, 3) if inside else (0, 3, 4, 1, 5, 2)
        after = (n, depth, h * height, w * width)
    else:
        parts = (n, c, h // height, height, w // width, width)
        order = (0, 1, 3, 5, 2, 4) if inside else (0, 3, 5, 1, 2, 4)
        after = (n, c * height * width, h // height, w // width)
    return node.from_channels_first(x.reshape(parts).transpose(order).reshape(after))
