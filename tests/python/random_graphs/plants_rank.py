"""Plants for the pass that lowers ops of high rank: each handler at rank 6 and 7, and what it must refuse."""

from __future__ import annotations

from random_graphs.builder import ADD, MAXIMUM, MULTIPLY, SUBTRACT, Builder
from random_graphs.plants import plant

_HIGH = (6, 6, 6, 7, 7, 5)


def _high_dims(b: Builder, rank: int = 0) -> list[int]:
    """Mostly of ones and twos, so that the tensors stay small."""
    dims = [b.pick([1, 2, 2]) for _ in range(rank or b.pick(_HIGH))]
    for _ in range(2):
        dims[b.rng.randrange(len(dims))] = 3
    return dims


def _high_tensor(b: Builder, dims: list[int]) -> str:
    """Now and then a constant, which several ops may read."""
    return b.random_constant(dims) if b.chance(0.2) else b.tensor(dims)


@plant("Replace6dOps")
def pointwise(b: Builder) -> None:
    x = _high_tensor(b, _high_dims(b))
    kind = b.rng.randrange(3)
    if kind == 0:
        y = b.op("Eltwise_Unary", [x], operation=b.pick([0, 2, 4, 8, 14]))
    elif kind == 1:
        y = b.op("ElementWiseNeuron", [x], operation=b.pick([5, 5, 4]), min_value=-0.5, max_value=0.75)
    else:
        y = b.op("Cast", [x], [" f32"])
    b.share(y)
    if b.chance(0.3):
        b.op("Eltwise_Unary", [y], operation=0)


@plant("Replace6dOps")
def broadcast(b: Builder) -> None:
    dims = _high_dims(b)
    left, right = list(dims), list(dims)
    for side in b.shuffled([left, right])[: b.pick([0, 1, 1, 2])]:
        start = b.rng.randrange(len(dims))
        stop = b.rng.randint(start + 1, len(dims)) if b.chance(0.8) else start + 1
        side[start:stop] = [1] * (stop - start)
        if b.chance(0.2):
            del side[: b.rng.randrange(len(side))]
    x = _high_tensor(b, left)
    y = x if left == right and b.chance(0.3) else _high_tensor(b, right)
    b.share(b.eltwise(b.pick([ADD, MULTIPLY, SUBTRACT, MAXIMUM]), x, y))


@plant("Replace6dOps")
def reduction_of_high_rank(b: Builder) -> None:
    rank = b.pick(_HIGH)
    x = _high_tensor(b, _high_dims(b, rank))
    start = b.rng.randrange(rank)
    axes = list(range(start, b.rng.randint(start + 1, rank)))
    if b.chance(0.4):
        axes = b.rng.sample(range(rank), b.rng.randint(1, rank))
    if b.chance(0.2):
        axes = [axis - rank for axis in axes]
    kind = b.pick(["ReduceSum", "ReduceMean", "ReduceMax", "ReduceMin", "ReduceProd"])
    b.share(b.op("Reduce", [x], axes=axes, reduce_type=kind, keep_dims=b.chance(0.5)))


@plant("Replace6dOps")
def along_one_axis(b: Builder) -> None:
    dims = _high_dims(b)
    axis = b.pick([0, len(dims) - 1, b.rng.randrange(len(dims)), -1])
    x = _high_tensor(b, dims)
    if b.chance(0.4):
        b.share(b.op("Softmax", [x], axis=axis))
        return
    dims[axis] = b.pick([1, 3])
    y = x if b.chance(0.3) else _high_tensor(b, dims)
    b.share(b.op("Concat", b.pick([[x, y], [x, y, x], [y, x]]), axis=axis))


@plant("Replace6dOps")
def repetition(b: Builder) -> None:
    dims = _high_dims(b)
    wanted = b.pick([1, 2, 2, 3, len(dims)])
    multiples = [1] * len(dims)
    for axis in b.rng.sample(range(len(dims)), min(wanted, len(dims))):
        multiples[axis] = 2
    b.share(b.op("Tile", [_high_tensor(b, dims)], multiples=multiples))


@plant("Replace6dOps")
def gathering(b: Builder) -> None:
    rank = b.pick([3, 4, 5, 6, 6, 7])
    dims = _high_dims(b, rank)
    axis = b.rng.randrange(rank)
    x = _high_tensor(b, dims)
    shape = [b.pick([1, 2, 3]) for _ in range(b.pick([1, 1, 2, 3, 4]))]
    b.share(b.op("Gather", [x, _indices(b, shape, dims[axis])], axis=axis))


@plant("Replace6dOps")
def gathering_of_elements(b: Builder) -> None:
    dims = _high_dims(b)
    axis = b.rng.randrange(len(dims))
    shape = list(dims)
    shape[axis] = b.pick([1, 2, 4])
    b.share(b.op("GatherElements", [_high_tensor(b, dims), _indices(b, shape, dims[axis])], axis=axis))


@plant("Replace6dOps")
def scattering(b: Builder) -> None:
    """The indices alone may have rank 6."""
    shape = [1] * b.pick([2, 3, 5, 5, 6])
    shape[0] = 2
    depth = b.pick([1, 2])
    places = [[0] * depth, [2] * depth]
    indices = b.constant([_nested(place, len(shape) - 2) for place in places], "i32")
    dims = [3] * depth
    b.op("plain ScatterNd", [b.tensor(dims), indices, b.random_constant(shape[:-1])])


@plant("Replace6dOps")
def transposition_of_high_rank(b: Builder) -> None:
    rank = b.pick([6, 6, 6, 7, 7, 8])
    dims = _high_dims(b, rank) if b.chance(0.9) else [1] * rank
    order = list(range(rank))
    for _ in range(b.pick([1, 1, 2])):  # blocks change places: neighbours stay together
        cuts = sorted(b.rng.sample(range(rank + 1), 3))
        order[cuts[0] : cuts[2]] = order[cuts[1] : cuts[2]] + order[cuts[0] : cuts[1]]
    if b.chance(0.4):
        order = b.permutation(rank)
    y = b.transpose(_high_tensor(b, dims), order)
    b.share(y)
    if b.chance(0.3):
        b.transpose(y, b.inverse(order))


@plant("Replace6dOps")
def padding(b: Builder) -> None:
    rank = b.pick([6, 6, 7, 7, 5])
    dims = _high_dims(b, rank)
    amounts = [[0, 0] for _ in dims]
    for axis in range(max(rank - 5, 0), rank):
        if b.chance(0.5):
            amounts[axis] = [b.pick([0, 1, 2]), b.pick([0, 1])]
    if b.chance(0.1):
        amounts[0] = [0, 1]
    x = _high_tensor(b, dims)
    scheme = b.pick([0, 0, 0, 2])
    y = b.op("Pad", [x], pad_amount=amounts, scheme=scheme, pad_constant_value=0.5)
    b.share(y)
    if b.chance(0.3):
        b.op("Softmax", [y], axis=0)


@plant("Replace6dOps")
def slicing(b: Builder) -> None:
    rank = b.pick([6, 6, 7, 7, 8])
    dims = _high_dims(b, rank)
    ranges = [[0, size, 1] for size in dims]
    for axis in range(rank - 5, rank):
        if dims[axis] > 1 and b.chance(0.5):
            size = dims[axis]
            ranges[axis] = b.pick([[0, size, 2], [1, size, 1], [size - 1, -1, -1], [0, 1, 1]])
    if b.chance(0.1):
        ranges[0][2] = 2
    masks = {
        name: f"{b.rng.randrange(1 << rank)}:u32" for name in ("begin_mask", "end_mask") if b.chance(0.15)
    }
    if masks:  # a set bit says that the whole axis is meant, as the rows have to say too
        ranges = [[0, size, 1] for size in dims]
    y = b.op("StridedSlice", [_high_tensor(b, dims)], ranges=ranges, **masks)
    b.share(y)


@plant("Replace6dOps")
def shared_reshape(b: Builder) -> None:
    """A tensor of high rank that several ops read, one beside its source, which others may read too."""
    dims = _high_dims(b)
    x = _high_tensor(b, b.shuffled(dims) if b.chance(0.4) else b.refactored(dims))
    if b.chance(0.4):
        b.op("Softmax", [x], axis=0)
    high = b.reshape(x, dims)
    for _ in range(b.pick([1, 2, 2, 3])):
        b.op("Softmax", [high], axis=b.rng.randrange(len(dims)))
    if b.chance(0.3):
        b.eltwise(MULTIPLY, high, high)
    if b.chance(0.3):
        b.eltwise(ADD, high, x)
    b.share(high, 0.15)


def _indices(b: Builder, shape: list[int], size: int) -> str:
    count = 1
    for length in shape:
        count *= length
    return b.constant(_shaped([b.rng.randrange(size) for _ in range(count)], shape), "i32")


def _shaped(values: list[int], shape: list[int]) -> object:
    if not shape:
        return values[0]
    step = len(values) // shape[0]
    return [_shaped(values[place * step : (place + 1) * step], shape[1:]) for place in range(shape[0])]


def _nested(values: list[int], levels: int) -> object:
    return values if levels <= 0 else [_nested(values, levels - 1)]
