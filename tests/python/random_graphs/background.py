"""Ops of all families on whatever tensors the graph has, between the plants."""

from __future__ import annotations

from random_graphs.builder import ADD, MAXIMUM, MINIMUM, MULTIPLY, SUBTRACT, Builder


def background_op(b: Builder) -> None:
    rank = b.pick([1, 2, 3, 3, 4, 4, 5, 6, 7])
    x = b.pick(b.names) if b.names and b.chance(0.6) else b.tensor(b.dims_of_rank(rank))
    b.pick(_KINDS)(b, x)


def _unary(b: Builder, x: str) -> None:
    if b.chance(0.5):
        b.op("Eltwise_Unary", [x], operation=b.pick([0, 2, 4, 8, 14]))
    else:
        b.op("ElementWiseNeuron", [x], operation=b.pick([0, 1, 2, 3, 4, 6, 7, 8]))


def _binary(b: Builder, x: str) -> None:
    dims = b.dims(x)
    same = [name for name in b.names if b.dims(name) == dims]
    y = b.pick(same) if b.chance(0.6) else b.random_constant(_broadcastable(b, dims))
    operands = [x, y] if b.chance(0.5) else [y, x]
    b.eltwise(b.pick([ADD, MULTIPLY, SUBTRACT, MAXIMUM, MINIMUM]), *operands)


def _broadcastable(b: Builder, dims: list[int]) -> list[int]:
    kept = [size if b.chance(0.6) else 1 for size in dims]
    return kept[b.rng.randint(0, max(len(kept) - 1, 0)) :]


def _reduce(b: Builder, x: str) -> None:
    rank = len(b.dims(x))
    axes = b.rng.sample(range(rank), b.rng.randint(1, rank))
    kind = b.pick(["ReduceSum", "ReduceMean", "ReduceMax", "ReduceMin"])
    b.op("Reduce", [x], axes=axes, reduce_type=kind, keep_dims=b.chance(0.5))


def _move(b: Builder, x: str) -> None:
    dims = b.dims(x)
    kind = b.rng.randrange(6)
    if kind == 0:
        b.transpose(x, b.permutation(len(dims)))
    elif kind == 1:
        b.reshape(x, b.refactored(dims))
    elif kind == 2:
        b.op("Concat", [x, x], axis=b.rng.randrange(len(dims)))
    elif kind == 3:
        axis = b.rng.randrange(len(dims))
        if dims[axis] > 1:
            b.op("Split", [x], 2, axis=axis, split_index=[b.rng.randrange(1, dims[axis])])
    elif kind == 4:
        b.op("ExpandDims", [x], axes=[b.rng.randrange(len(dims) + 1)])
    else:
        b.op("Tile", [x], multiples=[b.pick([1, 1, 2]) for _ in dims])


def _normalise(b: Builder, x: str) -> None:
    rank = len(b.dims(x))
    if b.chance(0.5):
        b.op("Softmax", [x], axis=b.rng.randrange(rank))
    else:
        axes = sorted(b.rng.sample(range(rank), b.rng.randint(1, min(rank, 2))))
        gamma = b.random_constant([b.dims(x)[axis] for axis in axes])
        b.op("LayerNorm", [x, gamma, gamma], axes=axes)


def _product(b: Builder, x: str) -> None:
    dims = b.dims(x)
    if len(dims) >= 2:
        b.op("MatMul", [x, b.random_constant([dims[-1], b.rng.randint(1, 4)])])


def _gather(b: Builder, x: str) -> None:
    dims = b.dims(x)
    axis = b.rng.randrange(len(dims))
    indices = [b.rng.randrange(dims[axis]) for _ in range(b.rng.randint(1, 3))]
    b.op("Gather", [x, b.constant(indices, "i32")], axis=axis)


def _quantised(b: Builder, x: str) -> None:
    dims = b.dims(x)
    q = b.op("Convert", [x], [f"[{','.join(map(str, dims))}] uq8 scale=0.5 offset=-3"])
    turned = b.op("Transpose", [q], perm=b.permutation(len(dims)))
    b.op("Dequantize", [turned])


_KINDS = (_unary, _unary, _binary, _binary, _reduce, _move, _move, _normalise, _product, _gather, _quantised)
