"""Plants for the passes that fold Transposes, Reshapes and no-ops."""

from __future__ import annotations

from random_graphs.builder import ADD, DIVIDE, MULTIPLY, Builder
from random_graphs.plants import plant


@plant("OptimizeTransposes", "SquashMultiplePermute")
def transposes(b: Builder) -> None:
    rank = b.pick([2, 3, 3, 4, 4, 5])
    x = b.tensor(b.dims_of_rank(rank))
    order = b.permutation(rank)
    last = x
    for _ in range(b.pick([1, 2, 2, 3])):
        last = b.transpose(last, order)
        b.share(last, 0.2)
        order = b.inverse(order) if b.chance(0.5) else b.permutation(rank)
    if b.chance(0.6):
        b.read(last)


@plant("RemoveInverseTransposePair")
def transposed_reduction(b: Builder) -> None:
    rank = b.pick([2, 3, 4, 5])
    x = b.tensor(b.dims_of_rank(rank))
    order = b.permutation(rank)
    axes = b.rng.sample(range(rank), b.rng.randint(1, rank))
    if b.chance(0.2):
        axes = [axis - rank for axis in axes]
    turned = b.transpose(x, order)
    b.share(turned, 0.15)
    kind = b.pick(["ReduceSum", "ReduceMean", "ReduceMax", "ReduceMin", "ReduceProd"])
    reduced = b.op("Reduce", [turned], axes=axes, reduce_type=kind, keep_dims=b.chance(0.85))
    b.share(reduced, 0.15)
    back = b.inverse(order) if b.chance(0.85) else order
    if len(b.dims(reduced)) == rank:
        b.transpose(reduced, back)


@plant("SquashConstantTranspose")
def transposed_constant(b: Builder) -> None:
    rank = b.pick([2, 3, 4])
    dims = b.dims_of_rank(rank)
    c = b.random_constant(dims)
    t = b.transpose(c, b.permutation(rank))
    b.share(t, 0.15)
    b.share(c, 0.15)
    if rank == 2 and b.chance(0.6):
        features = b.dims(t)[1 if b.spatial_first else 0]
        kind = b.pick(["MatMul", "FullyConnected"])
        b.op(kind, [b.tensor([2, b.dims(t)[0] if kind == "MatMul" else features]), t])
    else:
        b.eltwise(b.pick([ADD, MULTIPLY]), b.tensor(b.dims(t)), t)


@plant("FoldReshapesInstance1", "FoldReshapesInstance2", "FoldReshapesInstance3", "FoldReshapesInstance4")
def reshapes(b: Builder) -> None:
    x = b.tensor(b.dims_of_rank(b.pick([1, 2, 3, 4, 5])))
    dims = b.dims(x)
    for _ in range(b.pick([2, 2, 3])):
        x = b.reshape(x, b.refactored(b.dims(x)) if b.chance(0.8) else dims)
        b.share(x, 0.15)
    if b.chance(0.5):
        b.read(x)


@plant("SquashReshapeInstance1", "SquashReshapeInstance2")
def reshaped_constant(b: Builder) -> None:
    c = b.random_constant(b.dims_of_rank(b.pick([1, 2, 3])))
    r = b.reshape(c, b.refactored(b.dims(c)))
    b.share(r, 0.2)
    b.share(c, 0.15)
    b.eltwise(ADD, b.tensor(b.dims(r)), r)


@plant("OptimizeTransposeReshape")
def moved_vector(b: Builder) -> None:
    rank = b.pick([2, 3, 4])
    dims = [1] * rank
    dims[b.rng.randrange(rank)] = b.rng.randint(2, 5)
    if b.chance(0.2):
        dims[b.rng.randrange(rank)] = 2
    x = b.tensor(dims)
    if b.chance(0.5):
        middle = b.transpose(x, b.permutation(rank))
        b.share(middle)
        b.reshape(middle, dims)
    else:
        order = b.permutation(rank)
        middle = b.reshape(x, [dims[axis] for axis in order])
        b.share(middle)
        b.transpose(middle, b.inverse(order))


@plant("ReplaceTRTWithReshape")
def transpose_reshape_transpose(b: Builder) -> None:
    rank = b.pick([2, 3, 4])
    dims = b.dims_of_rank(rank)
    dims[b.rng.randrange(rank)] = 1
    x = b.tensor(dims)
    first = b.transpose(x, b.permutation(rank))
    b.share(first, 0.1)
    middle = b.dims(first)
    if b.chance(0.6):
        middle = b.refactored(middle)
    second = b.reshape(first, middle)
    b.share(second, 0.1)
    b.transpose(second, b.permutation(len(middle)))


@plant("RemoveNoOps1", "RemoveNoOps2")
def no_op(b: Builder) -> None:
    dims = b.dims_of_rank(b.pick([1, 2, 3, 4]))
    x = b.tensor(dims)
    kind = b.rng.randrange(7)
    if kind == 0:
        ones = b.constant(_filled(b, 1.0 if b.chance(0.8) else 2.0, dims))
        b.eltwise(DIVIDE, x, ones)
    elif kind == 1:
        ones = b.constant(_filled(b, 1.0 if b.chance(0.8) else 1.001, dims))
        y = b.eltwise(MULTIPLY, *b.shuffled([x, ones]))
        b.share(y)
    elif kind == 2:
        b.op("Tile", [x], multiples=[b.pick([1, 1, 1, 2]) for _ in dims])
    elif kind == 3:
        b.reshape(x, dims if b.chance(0.7) else b.refactored(dims))
    elif kind == 4:
        b.transpose(x, range(len(dims)))
    elif kind == 5:
        axis = b.rng.randrange(len(dims))
        indices = list(range(dims[axis]))
        if b.chance(0.3):
            b.rng.shuffle(indices)
        y = b.op("Gather", [x, b.constant(indices, "i32")], axis=axis)
        b.share(y)
    else:
        _flattened(b, x)


def _filled(b: Builder, value: float, dims: list[int]) -> object:
    shape = b.pick([[], [1], dims, [1] * len(dims), dims[-1:], [2, *dims]])
    values: object = value
    for size in reversed(shape):
        values = [values] * size
    return values


def _flattened(b: Builder, x: str) -> None:
    """A Reshape in front of a FullyConnected, or in front of its weight."""
    dims = b.dims(x)
    features = 1
    for size in dims[1:]:
        features *= size
    flat = b.reshape(x, [features] if dims[0] == 1 and b.chance(0.3) else [dims[0], features])
    shape = [3, features] if b.spatial_first else [features, 3]
    b.share(flat, 0.15)
    weight = b.random_constant(shape)
    if b.chance(0.2):
        weight = b.reshape(b.random_constant([3 * features]), shape)
    operands = [flat, weight] + ([b.random_constant([3])] if b.chance(0.5) else [])
    b.op("FullyConnected", operands, keep_dims=b.chance(0.4))
