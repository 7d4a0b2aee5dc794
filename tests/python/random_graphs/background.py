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


def _chosen(b: Builder, x: str) -> None:
    """Select, Mux, TopK, Arg and Mean."""
    dims = b.dims(x)
    kind = b.rng.randrange(5)
    if kind == 0:
        b.op("Eltwise_Ternary", [b.input(dims, "bool"), x, b.tensor(dims)], eltwise_type="ElementWiseSelect")
    elif kind == 1:
        selector = b.input(b.pick([dims, [1] * len(dims)]), "i32")
        b.op("ElementWiseMux", [selector, x, b.tensor(dims), b.tensor(dims)])
    elif kind == 2:
        b.op("TopK", [x], ["", " i32"], k=b.rng.randint(1, dims[-1]), largest=b.chance(0.7))
    elif kind == 3:
        axis = b.rng.randrange(len(dims))
        kept = [*dims[:axis], 1, *dims[axis + 1 :]]
        b.op("Arg", [x], [f"{kept} i32".replace(", ", ",")], arg_type="Argmax", axis=axis, keep_dims=True)
    else:
        b.op("Mean", [x, b.tensor(dims), b.random_constant(_broadcastable(b, dims))])


def _cut(b: Builder, x: str) -> None:
    """Pad, StridedSlice, Expand and Prelu."""
    dims = b.dims(x)
    kind = b.rng.randrange(4)
    if kind == 0:
        amounts = [[b.pick([0, 0, 1]), b.pick([0, 0, 2])] for _ in dims]
        b.op("Pad", [x], pad_amount=amounts, scheme=0, pad_constant_value=b.pick([0.0, 0.5]))
    elif kind == 1:
        begins = [b.rng.randrange(size) for size in dims]
        rows = [[begin, size, b.pick([1, 1, 2])] for begin, size in zip(begins, dims, strict=True)]
        b.op("StridedSlice", [x], ranges=rows)
    elif kind == 2:
        b.op("Expand", [x], shape=[2, *(size if size > 1 else b.pick([1, 3]) for size in dims)])
    else:
        slope = [1 if b.chance(0.5) else size for size in dims]
        b.op("Prelu", [x, b.random_constant(b.pick([slope, dims[-1:]]))])


def _image(b: Builder, rank: int, channels: int) -> str:
    sizes = [b.rng.randint(3, 5) for _ in range(rank - 2)]
    batch = b.pick([1, 2])
    return b.tensor([batch, *sizes, channels] if b.spatial_first else [batch, channels, *sizes])


def convolution(b: Builder, bias: float) -> str:
    """The output of one of any kind, which has a bias with that probability."""
    spatial, group = b.pick([2, 2, 3]), b.pick([1, 1, 2])
    inputs, outputs = group * b.pick([1, 2]), group * b.pick([1, 3])
    transposed = b.chance(0.3)
    depthwise = not transposed and spatial == 2 and b.chance(0.2)
    kernel = [b.pick([1, 2, 3]) for _ in range(spatial)]
    ends = [inputs // group, outputs]
    if transposed:
        ends = [inputs, outputs // group]
    elif depthwise:
        ends, outputs = [1, inputs], inputs
    leading = ends if transposed else ends[::-1]
    weight = b.random_constant([*kernel, *ends] if b.spatial_first else [*leading, *kernel])
    name = "TransposeConv" if transposed else "DepthWiseConv" if depthwise else "Conv"
    attributes: dict[str, object] = {} if depthwise else {"group": group}
    if not transposed:
        attributes["dilation"] = [b.pick([1, 1, 2]) if size < 3 else 1 for size in kernel]
    y: str = b.op(
        f"{name}{spatial}d",
        [_image(b, spatial + 2, inputs), weight] + ([b.random_constant([outputs])] if b.chance(bias) else []),
        stride=[b.pick([1, 2]) for _ in kernel],
        pad_amount=[[b.pick([0, 1]), b.pick([0, 1])] for _ in kernel],
        **attributes,
    )
    return y


def _convolution(b: Builder, x: str) -> None:
    y = convolution(b, 0.6)
    if b.chance(0.3):
        channels = b.dims(y)[-1 if b.spatial_first else 1]
        b.op("Batchnorm", [y, b.random_constant([channels]), b.random_constant([channels])])


def _pooling(b: Builder, x: str) -> None:
    """Pooling, blocks of space and depth, and the fast Hadamard transform."""
    kind = b.rng.randrange(3)
    if kind == 0:
        image = _image(b, 4, 2)
        dims = b.dims(image)
        sizes = [size - 1 for size in (dims[1:3] if b.spatial_first else dims[2:])]
        out = [dims[0], *sizes, 2] if b.spatial_first else [dims[0], 2, *sizes]
        words = [f"{out}".replace(", ", ",")]
        b.op("Pool", [image], words, pool_type=b.pick(["MaxPool2d", "AveragePool2d"]), kernel_shape=[2, 2])
    elif kind == 1:
        block, mode = b.pick([[2, 2], [1, 2]]), b.pick([0, 1])
        dims = [2, 2, 4, 8] if b.spatial_first else [2, 8, 2, 4]
        b.op(b.pick(["DepthToSpace", "SpaceToDepth"]), [b.tensor(dims)], block_size=block, mode=mode)
    else:
        dims = b.dims_of_rank(b.pick([1, 2, 3]))
        b.op("HadamardTransform", [b.tensor([*dims, b.pick([2, 4])])], scale=b.pick([1.0, 0.5]))


_KINDS = (
    _unary, _unary, _binary, _binary, _reduce, _move, _move, _normalise, _product, _gather, _quantised,
    _chosen, _cut, _convolution, _pooling,
)  # fmt: skip
