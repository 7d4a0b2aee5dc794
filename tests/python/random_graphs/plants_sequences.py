"""Plants for the passes that match sequences of a source framework: concats, pads, gathers and blocks."""

from __future__ import annotations

from random_graphs.builder import ADD, MULTIPLY, Builder
from random_graphs.plants import plant


@plant("FoldConcats")
def concats(b: Builder) -> None:
    rank = b.pick([2, 3, 4])
    dims = b.dims_of_rank(rank)
    axis = b.rng.randrange(rank)
    last = b.tensor(dims)
    for _ in range(b.pick([1, 2, 2, 3])):
        if b.chance(0.1):
            axis = b.rng.randrange(rank)
        other = b.dims(last)
        other[axis] = b.rng.randint(1, 3)
        parts = [last, b.tensor(other), *b.pick([[], [last], [b.random_constant(other)]])]
        b.rng.shuffle(parts)
        last = b.op("Concat", parts, axis=axis)
        b.share(last, 0.1)
    if b.chance(0.8):
        b.read(last)


@plant("SquashPad")
def pad(b: Builder) -> None:
    rank = b.pick([1, 2, 3, 4])
    x = b.tensor(b.dims_of_rank(rank)) if b.chance(0.8) else b.random_constant(b.dims_of_rank(rank))
    amounts = [[0, 0] for _ in range(rank)]
    if b.chance(0.2):
        amounts[b.rng.randrange(rank)][b.rng.randrange(2)] = 1
    y = b.op("Pad", [x], pad_amount=amounts, scheme=0)
    b.share(x, 0.1)
    if b.chance(0.8):
        b.read(y)


@plant("FoldSoftmax")
def scaled_softmax(b: Builder) -> None:
    rank = b.pick([1, 2, 3, 4])
    x = b.tensor(b.dims_of_rank(rank))
    dims = b.pick([[], [1], [1], [1] * rank, [1] * (rank + 1), b.dims(x)])
    value: object = b.pick([0.125, 0.5, 2.0, 2.0, -1.0, 0.0])
    for size in reversed(dims):
        value = [value] * size
    operands = b.shuffled([x, b.constant(value)])
    y = b.eltwise(b.pick([MULTIPLY] * 9 + [ADD]), *operands)
    b.share(y, 0.1)
    attributes = {"beta": b.pick([0.5, 1.0, 3.0])} if b.chance(0.5) else {}
    b.op("Softmax", [y], axis=b.rng.randrange(len(b.dims(y))), **attributes)


def _index_constant(b: Builder, length: int, type: str, negative: bool) -> str:
    dims = b.pick([[1], [2], [3], [2, 2]])
    low = -length if negative else 0
    values = [b.rng.randrange(low, length) for _ in range(dims[0] * (dims[1] if len(dims) > 1 else 1))]
    nested = [values[:2], values[2:]] if len(dims) > 1 else values
    return b.constant(nested, type)


@plant("HandleGatherNegativeIndices", "InjectCastForGather")
def gathers(b: Builder) -> None:
    rank = b.pick([1, 2, 3])
    axis = b.rng.randrange(rank)
    x = b.tensor(b.dims_of_rank(rank))
    type = b.pick(["i32", "i32", "i32", "i64", "u8", "f32"])
    indices = _index_constant(b, b.dims(x)[axis], type, type in ("i32", "i64", "f32"))
    for _ in range(b.pick([1, 1, 2, 3])):
        y = b.op("Gather", [x, indices], axis=axis)
        b.share(y, 0.2)
        if b.chance(0.2):
            b.output(indices)
        if b.chance(0.4):
            # Another length may stand on the axis: indices from the end then mean other places.
            other = b.dims(x)
            other[axis] += b.rng.randint(0, 2)
            x = b.tensor(other)


@plant("OptimizeGatherND")
def flat_gather(b: Builder) -> None:
    n, c, height, width = 1, b.rng.randint(1, 2), b.rng.randint(2, 3), b.rng.randint(3, 5)
    rows, columns = b.rng.randint(1, 3), b.rng.randint(2, 4)
    data = b.transpose(b.tensor([n, c, height, width]), [2, 3, 0, 1])
    flat = b.reshape(data, [height * width, n, c])

    def index(limit: int) -> str:
        values = [[b.rng.randrange(limit) for _ in range(columns)] for _ in range(rows)]
        constant = b.constant(values, "i32")
        return b.op("Cast", [constant], ["[" + f"{rows},{columns}" + "] i32"]) if b.chance(0.3) else constant

    scale = b.constant([width], "i32")
    words = f"[{rows},{columns}] i32"
    product = b.op("Eltwise_Binary", b.shuffled([index(height), scale]), [words], operation=MULTIPLY)
    b.share(product, 0.05)
    total = b.op("Eltwise_Binary", b.shuffled([product, index(width)]), [words], operation=ADD)
    b.share(total, 0.05)
    picked = b.op("Gather", [flat, total], axis=0)
    b.share(picked, 0.05)
    turned = b.transpose(b.reshape(picked, [rows * columns, n, c]), [1, 2, 0])
    y = b.reshape(turned, [n, c, rows, columns])
    b.share(y, 0.3)


@plant("MatchSpaceToDepth")
def blocks_to_channels(b: Builder) -> None:
    n, c, block = b.pick([1, 2]), b.rng.randint(1, 3), b.pick([1, 2, 2, 3])
    height, width = b.rng.randint(1, 2), b.rng.randint(1, 3)
    x = b.tensor([n, c, height * block, width * block])
    y = x
    for _ in range(b.pick([1, 1, 2])):
        y = b.transpose(b.reshape(x, [n, c, height, block, width, block]), [0, 3, 5, 1, 2, 4])
        y = b.transpose(b.reshape(y, [n, block, block, c, height, width]), [0, 1, 2, 3, 4, 5])
        y = b.transpose(b.reshape(y, [n, block, block, c * height, width]), [0, 1, 2, 3, 4])
        y = b.reshape(y, [n, c * block * block, height, width])
        b.read(y)
    if b.chance(0.2):
        b.output(y)


@plant("OptimizeDepthToSpace")
def thirds_to_space(b: Builder) -> None:
    bh, bw = b.pick([1, 2]), b.pick([2, 3])
    part = bh * bw
    height, width = b.rng.randint(2, 3), 3 * b.rng.randint(1, 2)
    if b.spatial_first:
        x, weights, cut = [1, height, width, 2], [1, 1, 2, 3 * part], part
    else:  # the cuts go through the width then
        x, weights, cut = [1, 2, height, width], [3 * part, 2, 1, 1], width // 3
    operands = [b.tensor(x), b.random_constant(weights)]
    if b.chance(0.6):
        operands.append(b.random_constant([3 * part]))
    b.share(operands[-1], 0.1)
    conv = b.op("Conv2d", operands, stride=[1, 1], pad_amount=[[0, 0], [0, 0]])
    b.share(conv, 0.1)
    pieces = b.op("Split", [conv], 3, axis=3, split_index=[cut, 2 * cut])
    b.share(pieces[1], 0.05)
    blocks = [b.op("DepthToSpace", [piece], block_size=[bh, bw], mode=0) for piece in pieces]
    b.share(blocks[2], 0.05)
    y = b.op("Concat", blocks if b.chance(0.9) else [*blocks, blocks[0]], axis=3)
    b.share(y)
