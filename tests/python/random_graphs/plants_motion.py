"""Plants for the passes that move Transposes."""

from __future__ import annotations

from random_graphs.builder import ADD, MAXIMUM, MULTIPLY, SUBTRACT, Builder
from random_graphs.plants import plant

CHANNEL_LAST = [0, 2, 3, 1]


@plant("HoistTranspose")
def image_region(b: Builder) -> None:
    x = _image(b)
    branches = [x]
    for _ in range(b.rng.randint(0, 5)):
        branches += _layout_free_ops(b, b.pick(branches))
    if b.chance(0.3):
        branches.append(_joined(b, b.pick(branches), b.pick(branches)))
    # What a branch ends in: mostly a Transpose of the order that is moved, seldom of another.
    for name in branches:
        readers = [op for op in b.graph.ops if name in [tensor.name for tensor in op.inputs]]
        if readers and b.chance(0.7):
            continue
        order = CHANNEL_LAST if b.chance(0.95) else b.permutation(4)
        if len(b.dims(name)) == 4 and b.chance(0.97):
            last = b.transpose(name, order)
            b.share(last, 0.15)
            if b.chance(0.5):
                b.op("Eltwise_Unary", [last], operation=b.pick([0, 8]))


def _image(b: Builder) -> str:
    """A graph input with few channels, seldom a constant or an input with too many."""
    channels = b.pick([1, 1, 2])
    rows, columns = (b.rng.randint(channels + 1, channels + 3) for _ in range(2))
    dims = [b.pick([1, 1, 2]), channels, rows, columns]
    if b.chance(0.05):
        dims[1] = max(rows, columns)
    return b.random_constant(dims) if b.chance(0.1) else b.input(dims)


def _layout_free_ops(b: Builder, x: str) -> list[str]:
    """Outputs of one op that doesn't mind the layout."""
    dims = b.dims(x)
    axis = b.rng.randrange(len(dims))
    kind = b.rng.randrange(8)
    if kind == 0:
        return [b.relu(x)]
    if kind == 1:
        other = _operand(b, dims)
        return [b.eltwise(b.pick([ADD, MULTIPLY, SUBTRACT, MAXIMUM]), *b.shuffled([x, other]))]
    if kind == 2:
        return [b.op("Concat", [x, x], axis=axis)]
    if kind == 3 and dims[axis] > 1:
        return list(b.op("Split", [x], 2, axis=axis, split_index=[b.rng.randrange(1, dims[axis])]))
    if kind == 4:
        return [b.op("Pad", [x], pad_amount=[[b.pick([0, 0, 1]), b.pick([0, 1, 2])] for _ in dims])]
    if kind == 5:
        return [b.op("Tile", [x], multiples=[b.pick([1, 1, 2]) for _ in dims])]
    if kind == 6:
        ranges = [[b.rng.randrange(size), size, b.pick([1, 1, 2])] for size in dims]
        masks = {"shrink_axes": 2, "new_axes_mask": b.pick([1, 4, 8])} if b.chance(0.15) else {}
        return [b.op("StridedSlice", [x], ranges=ranges, **masks)]
    return [b.op("Prelu", [x, b.random_constant(b.pick([[1], dims[-1:], [1, *dims[1:]]]))])]


def _operand(b: Builder, dims: list[int]) -> str:
    kept = [size if b.chance(0.6) else 1 for size in dims]
    shape = kept[b.pick([0, 1, 2, len(dims) - 1]) :] if b.chance(0.9) else [1]
    if b.chance(0.15):
        return b.relu(b.random_constant(kept if b.chance(0.7) else shape))
    return b.random_constant(shape)


def _joined(b: Builder, x: str, y: str) -> str:
    fits = b.dims(x) == b.dims(y)
    return b.eltwise(b.pick([ADD, SUBTRACT]), x, y if fits else _operand(b, b.dims(x)))


@plant("HoistTransposeAboveElementWiseMux")
def transposed_mux(b: Builder) -> None:
    rank = b.pick([2, 3, 4])
    dims = b.dims_of_rank(rank)
    order = b.permutation(rank)
    operands = [_mux_operand(b, dims) for _ in range(b.pick([2, 2, 3]))]
    for _ in range(b.pick([1, 1, 2])):
        selector = b.constant([b.pick([0, 1])], "i32")
        mux = b.op("ElementWiseMux", [selector, *b.shuffled(operands)])
        b.share(mux, 0.1)
        if len(b.dims(mux)) == rank:
            b.transpose(mux, order if b.chance(0.8) else b.permutation(rank))


def _mux_operand(b: Builder, dims: list[int]) -> str:
    kind = b.rng.randrange(6)
    if kind == 0:
        return b.random_constant([1] if b.chance(0.7) else dims[1:])
    if kind == 1:
        return b.random_constant(dims)
    if kind == 2:
        return b.tensor([size if b.chance(0.7) else 1 for size in dims])
    return b.tensor(dims)


@plant("SinkTransposeBelowSum")
def sum_of_transposes(b: Builder) -> None:
    rank = b.pick([2, 3, 4])
    dims = b.dims_of_rank(rank)
    order = b.permutation(rank)
    x = b.tensor(dims)
    first = b.transpose(x, order)
    second = first
    if b.chance(0.8):
        other = b.pick([x, b.tensor(dims), b.random_constant(dims)])
        second = b.transpose(other, order if b.chance(0.85) else b.permutation(rank))
    b.share(first, 0.1)
    total = b.eltwise(ADD if b.chance(0.9) else SUBTRACT, first, second)
    b.share(total)
    if b.chance(0.4):
        b.transpose(total, b.inverse(order))


@plant("ReduceEltwiseBinTranspose")
def eltwise_between_inverses(b: Builder) -> None:
    rank = b.pick([2, 3, 4, 4])
    dims = b.dims_of_rank(rank)
    order = b.permutation(rank)
    x = b.tensor(dims)
    inner = b.transpose(x, order)
    turned = b.dims(inner)
    kind = b.rng.randrange(8)
    if kind == 0:
        other = inner
    elif kind == 1 and turned == dims:
        other = x
    elif kind == 2:
        other = b.transpose(b.tensor(dims), order)
    elif kind == 3:
        other = b.random_constant([size if b.chance(0.7) else 1 for size in turned])
    elif kind == 4:
        other = b.random_constant(turned[1:])
    else:
        other = b.tensor(turned)
    if b.chance(0.2) and len(b.dims(other)) == rank:
        b.transpose(other, b.inverse(order))
    operation = b.pick([ADD, MULTIPLY, SUBTRACT, MAXIMUM])
    result = b.eltwise(operation, *b.shuffled([inner, other]))
    b.share(inner, 0.1)
    b.share(result, 0.1)
    if len(b.dims(result)) == rank:
        b.transpose(result, b.inverse(order) if b.chance(0.9) else order)


@plant("PermuteAxisToLast")
def softmax(b: Builder) -> None:
    rank = b.pick([2, 3, 4, 4, 5, 5])
    x = b.tensor(b.dims_of_rank(rank))
    for _ in range(b.pick([1, 1, 2])):
        axis = b.rng.randrange(rank) - (rank if b.chance(0.1) else 0)
        y = b.op(b.pick(["Softmax", "Softmax", "LogSoftmax"]), [x], axis=axis)
        b.share(y, 0.2)
    if b.chance(0.3):
        b.transpose(x, CHANNEL_LAST if rank == 4 else b.permutation(rank))
