"""Plants for the passes that align operands, and the layouts around norms and Concats."""

from __future__ import annotations

from random_graphs.builder import ADD, DIVIDE, MULTIPLY, POWER, SUBTRACT, Builder
from random_graphs.plants import plant


@plant("AlignMatmulRanks")
def unequal_ranks(b: Builder) -> None:
    ranks = b.shuffled([b.pick([2, 2, 3]), b.pick([3, 4, 4, 5])])
    rows, inner, columns = b.pick([2, 3]), b.pick([1, 3, 4]), b.pick([2, 5])
    batch = b.dims_of_rank(max(ranks) - 2)

    def operand(rank: int, matrix: list[int]) -> str:
        dims = [b.pick([size, size, 1]) for size in batch[len(batch) - (rank - 2) :]] + matrix
        return b.random_constant(dims) if b.chance(0.4) else b.tensor(dims)

    left = operand(ranks[0], [rows, inner])
    right = operand(ranks[1], [inner, columns])
    b.share(left, 0.15)
    b.share(right, 0.15)
    operands = [left, right] + ([b.random_constant([columns])] if b.chance(0.2) else [])
    b.op("MatMul", operands)
    if b.chance(0.2):
        b.op("MatMul", [left, right])


@plant("OptimizeUnmatchedMatMul")
def flattened_image(b: Builder) -> None:
    batch, height, width, channels = b.pick([1, 2]), b.pick([2, 3]), b.pick([3, 3, 5]), b.pick([2, 3, 6])
    rows = b.pick([2, 3, 3, height * width])
    image = [batch, height, width, channels]
    if b.chance(0.15):
        image = b.shuffled(image)
    x = b.tensor(image)
    if b.chance(0.2):
        b.transpose(x, [0, 3, 1, 2])
    flat = b.reshape(x, [batch, height * width, channels])
    b.share(flat, 0.1)
    turned = b.transpose(flat, [0, 2, 1])
    a = b.tensor([b.pick([batch, batch, 1]), rows, channels])
    product = b.op("MatMul", [a, turned])
    b.share(product, 0.1)
    b.reshape(product, [batch, rows, *b.pick([(height, width), (height, width), (1, height * width)])])


@plant("OptimizeDepthBroadcastElementwise")
def raised_operand(b: Builder) -> None:
    rank = b.pick([3, 4, 4])
    order = b.permutation(rank)
    dims = b.dims_of_rank(b.pick(range(1, rank)))
    raised = [1] * (rank - len(dims)) + dims
    x = b.tensor(dims) if b.chance(0.8) else b.random_constant(dims)
    r = b.reshape(x, raised if b.chance(0.9) else b.shuffled(raised))
    b.share(r, 0.1)
    t = b.transpose(r, order)
    b.share(t, 0.1)
    other = [size if size > 1 else b.pick([1, 3]) for size in b.dims(t)]
    other[-1] = b.pick([1, 3, other[-1]]) if b.dims(t)[-1] == 1 else b.pick([1, 1, other[-1]])
    y = b.random_constant(other) if b.chance(0.2) else b.tensor(b.pick([other, other, other, other[1:]]))
    if b.chance(0.2):
        b.transpose(y, b.inverse(order))
    out = b.eltwise(b.pick([ADD, MULTIPLY, SUBTRACT, SUBTRACT]), *b.shuffled([t, y]))
    b.share(out)


@plant("FallbackDepthBroadcastEltwiseBin")
def nested_products(b: Builder) -> None:
    dims = b.dims_of_rank(3)
    inner = b.eltwise(b.pick([MULTIPLY, MULTIPLY, MULTIPLY, ADD]), b.tensor(dims), b.tensor(dims))
    b.share(inner, 0.1)
    order = b.permutation(3)
    other = [dims[0], b.pick([dims[1], dims[1], 1]), b.pick([1, 1, dims[2]])]
    turned = b.transpose(b.tensor([other[axis] for axis in b.inverse(order)]), order)
    if b.chance(0.2):
        b.transpose(turned, [0, 2, 1])
    out = b.eltwise(MULTIPLY, *([inner, turned] if b.chance(0.9) else [turned, inner]))
    b.share(out, 0.1)
    b.reshape(out, b.refactored(b.dims(out)))


@plant("OptimizeDepthReduce")
def summed_depth(b: Builder) -> None:
    rank = b.pick([2, 3, 4])
    x = b.tensor([3] * rank if b.chance(0.3) else b.dims_of_rank(rank))
    order = b.permutation(rank)
    back = b.inverse(order)
    t = b.transpose(x, order)
    b.share(t, 0.05)
    dims = [b.pick([size, size, 1]) for size in b.dims(t)]
    fitting = b.pick([dims, dims, dims, dims[1:]])
    y = b.random_constant(fitting) if b.chance(0.3) else b.tensor(fitting)
    if b.dims(x) == b.dims(t) and b.chance(0.2):
        y = b.pick([x, t])
    elif b.chance(0.2):
        b.transpose(y, back)
    unary = b.op("Eltwise_Unary", [b.eltwise(b.pick([SUBTRACT] * 6 + [ADD]), t, y)], operation=0)
    b.share(unary, 0.05)
    axes = b.pick([[rank - 1]] * 4 + [[-1], [0], [0, rank - 1]])
    kind = b.pick(["ReduceSum"] * 5 + ["ReduceMean"])
    total = b.op("Reduce", [unary], axes=axes, reduce_type=kind, keep_dims=b.chance(0.9))
    quotient = b.eltwise(b.pick([DIVIDE, DIVIDE, DIVIDE, POWER]), total, b.constant([2.0]))
    b.share(quotient, 0.05)
    if len(b.dims(quotient)) == rank:
        b.read(b.transpose(quotient, back if b.chance(0.9) else order))


FORMATS = {2: ["NF", "NC"], 3: ["NFC", "NCF", "NTF"], 4: ["NHWC", "NCHW"], 5: ["NDHWC", "NCDHW"]}


@plant("AdjustNormOpBuffers", "AdjustNormOpFlattenLastDims")
def norms(b: Builder) -> None:
    rank = b.pick([2, 3, 3, 4, 4, 4, 5])
    layout = b.pick([*FORMATS[rank], "NONTRIVIAL", ""])
    t = b.tensor(b.dims_of_rank(rank), f"f32 {layout}")
    for _ in range(b.pick([1, 1, 2, 3])):
        count = b.pick([1, 1, 2, rank])
        axes = b.rng.sample(range(rank), min(count, rank))
        if b.chance(0.7):
            axes.sort()
        if b.chance(0.4):
            axes = list(range(rank - len(axes), rank))
        sizes = [b.dims(t)[axis] for axis in axes]
        kind = b.pick(["LayerNorm", "RmsNorm"])
        weights = [b.random_constant(sizes) for _ in range(b.pick([1, 2]))]
        written = b.pick([axes, axes, [axis - rank for axis in axes]])
        y = b.op(kind, [t, *weights], [f" {b.pick([layout, layout, 'NONTRIVIAL'])}"], axes=written)
        b.share(y, 0.2)
        if b.chance(0.5):
            t = y


@plant("OptimizeNonInplaceConcat")
def joined_channels(b: Builder) -> None:
    rank = b.pick([3, 4])
    order = b.permutation(rank)
    axis = b.rng.randrange(rank)
    front = b.dims_of_rank(rank)
    front[order[axis]] = b.pick([8, 8, 12, 32])
    t = b.transpose(b.tensor(front), order)
    b.share(t, 0.05)
    dims = b.dims(t)
    dims[axis] = b.pick([8, 8, 16, 32])
    source = b.tensor(b.shuffled(dims))
    r = b.reshape(source, dims)
    b.share(r, 0.05)
    operands = b.shuffled([t, r]) + ([r] if b.chance(0.1) else [])
    joined = b.op("Concat", operands, axis=axis)
    b.share(joined, 0.1)
    inner = b.reshape(joined, b.refactored(b.dims(joined)))
    b.transpose(inner, b.permutation(len(b.dims(inner))))
