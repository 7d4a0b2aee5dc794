"""Which ops of high rank can't be lowered to rank 5, and so end the optimization."""

from __future__ import annotations

import itertools
import math
from collections.abc import Callable

import netforge

LIMIT = 5
_Refusal = Callable[[netforge.IrOp], bool]


def is_refused(op: netforge.IrOp) -> bool:
    tensors = [*op.inputs, *op.outputs]
    if all(tensor.rank <= LIMIT for tensor in tensors) or op.type not in _REFUSALS:
        return False
    return _REFUSALS[op.type](op)


def _numbers(op: netforge.IrOp, name: str) -> list[int]:
    return [int(item) for item in op.attributes.getStaticTensor(name).numpy().reshape(-1).astype("int32")]


def _axis(op: netforge.IrOp) -> int:
    return int(op.attributes.get("axis")) % op.inputs[0].rank


def _binary(op: netforge.IrOp) -> bool:
    rank = op.outputs[0].rank
    left, right = ([1] * (rank - tensor.rank) + list(tensor.dims) for tensor in op.inputs[:2])
    groups, a, b = 0, None, None
    for x, y in reversed(list(zip(left, right, strict=True))):
        alike = a is not None and ((a == b and x == y) or (a == 1 and x == 1) or (b == 1 and y == 1))
        groups += not alike
        a, b = (a * x, b * y) if alike else (x, y)  # type: ignore[operator]
    return groups > LIMIT


def _reduce(op: netforge.IrOp) -> bool:
    rank = op.inputs[0].rank
    axes = {axis % rank for axis in _numbers(op, "axes") if axis != rank}
    runs = sum(axis not in axes and (axis == 0 or axis - 1 in axes) for axis in range(rank))
    return len(axes) + runs > LIMIT


def _tile(op: netforge.IrOp) -> bool:
    return 1 + sum(multiple != 1 for multiple in _numbers(op, "multiples")[1:]) > LIMIT


def _gather(op: netforge.IrOp) -> bool:
    axis, rank = _axis(op), op.inputs[0].rank
    return (axis > 0) + (axis < rank - 1) + op.inputs[1].rank > LIMIT


def _gather_elements(op: netforge.IrOp) -> bool:
    axis, (data, indices) = _axis(op), (list(tensor.dims) for tensor in op.inputs[:2])
    return len(data) != len(indices) or any(
        a != b for place, (a, b) in enumerate(zip(data, indices, strict=True)) if place != axis
    )


def _scatter(op: netforge.IrOp) -> bool:
    return any(tensor.rank > limit for tensor, limit in zip(op.inputs, (5, 6, 5), strict=False))


def _transpose(op: netforge.IrOp) -> bool:
    order, dims = _numbers(op, "perm"), list(op.inputs[0].dims)
    pieces = 1 + sum(b != a + 1 for a, b in itertools.pairwise(order))
    return min(pieces, sum(size != 1 for size in dims)) > LIMIT and len(dims) > LIMIT + 1


def _pad(op: netforge.IrOp) -> bool:
    dims, amounts = list(op.inputs[0].dims), _numbers(op, "pad_amount")
    lead = len(dims) - LIMIT
    merges_padding = any(amounts[2 * lead : 2 * lead + 2]) and math.prod(dims[:lead]) > 1
    return any(amounts[: 2 * lead]) or (merges_padding and int(op.attributes.get("scheme", 0)) != 0)


def _slice(op: netforge.IrOp) -> bool:
    dims, ranges = list(op.inputs[0].dims), _numbers(op, "ranges")
    rows = [ranges[place : place + 3] for place in range(0, 3 * (len(dims) - LIMIT), 3)]
    whole = all(row == [0, size, 1] for row, size in zip(rows, dims, strict=False))
    return not whole or any(int(op.attributes.get(name, 0)) for name in ("shrink_axes", "new_axes_mask"))


_REFUSALS: dict[str, _Refusal] = {
    "Eltwise_Binary": _binary,
    "Reduce": _reduce,
    "Tile": _tile,
    "Gather": _gather,
    "GatherElements": _gather_elements,
    "ScatterNd": _scatter,
    "Transpose": _transpose,
    "Pad": _pad,
    "StridedSlice": _slice,
}
