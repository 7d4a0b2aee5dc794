"""Plants for the passes that write one op as several."""

from __future__ import annotations

from random_graphs.builder import ADD, SUBTRACT, Builder
from random_graphs.plants import plant


@plant("ExpandThresholdedRelu")
def thresholded_relu(b: Builder) -> None:
    x = b.tensor(b.dims_of_rank(b.pick([1, 2, 3, 4])))
    y = b.op("ThresholdedRelu", [x], alpha=b.pick([0.0, 0.25, 1.0, -0.5]))
    b.share(y, 0.4)


@plant("ExpandReduceL2Op")
def euclidean_norm(b: Builder) -> None:
    rank = b.pick([1, 2, 3, 4, 5])
    x = b.tensor(b.dims_of_rank(rank))
    axes = b.rng.sample(range(rank), b.rng.randint(1, rank))
    if b.chance(0.3):
        axes = [axis - rank for axis in axes]
    y = b.op("ReduceL2", [x], axes=axes, keep_dims=b.chance(0.5))
    b.share(y, 0.4)


@plant("ExpandElementwiseMean")
def mean(b: Builder) -> None:
    dims = b.dims_of_rank(b.pick([1, 2, 3, 4]))
    inputs = [b.tensor(dims)]
    for _ in range(b.pick([0, 1, 1, 2, 3])):
        smaller = [size if b.chance(0.7) else 1 for size in dims][b.rng.randrange(len(dims)) :]
        inputs.append(b.pick([inputs[0], b.tensor(dims), b.random_constant(smaller)]))
    # Broadcasting from the first input on, or only later: the output has the dims of all together.
    y = b.op("Mean", b.shuffled(inputs), [f"[{','.join(map(str, dims))}]"])
    b.share(y, 0.4)


@plant("ExpandInverse")
def inverse(b: Builder) -> None:
    batch = b.dims_of_rank(b.pick([0, 1, 2, 3]))
    x = b.tensor([*batch, 2, 2])
    # Away from the matrices without an inverse.
    x = b.eltwise(ADD, b.op("ElementWiseNeuron", [x], operation=8), b.constant([[3.0, 0.0], [0.0, 3.0]]))
    y = b.op("Inverse", [x])
    b.share(y, 0.4)


def _sparse(b: Builder, dims: list[int]) -> tuple[str, int, str]:
    """A sparse tensor without a specified row of zeros, the number of its rows, and the words of its kind."""
    rows = [[n, h, w] for n in range(dims[0]) for h in range(dims[1]) for w in range(dims[2])]
    places = sorted(b.rng.sample(rows, b.rng.randint(1, len(rows))))
    indices = b.constant(places, "i32")
    words = f"[{','.join(map(str, dims))}] f32 sparse={len(places)}/3"
    values = b.op("ElementWiseNeuron", [b.input([len(places), dims[-1]])], operation=8)
    return b.op("CreateSparse", [indices, values], [words]), len(places), words


@plant("ExpandSparseOpStructure")
def sparse_activation(b: Builder) -> None:
    x, _, words = _sparse(b, b.dims_of_rank(4))
    for _ in range(b.pick([1, 1, 2])):
        x = b.op("ElementWiseNeuron", [x], [words], operation=b.pick([0, 6, 8]))
        b.share(x, 0.2)


@plant("ExpandSparseOpStructure")
def sparse_residual(b: Builder) -> None:
    if not b.spatial_first:
        return
    channels = b.rng.randint(1, 3)
    x, count, words = _sparse(b, [1, b.rng.randint(1, 3), b.rng.randint(2, 4), channels])

    def activated(source: str) -> str:
        indices = b.op("GetSparseIndices", [source], num_specified_elements=count)
        values = b.op("GetSparseValues", [source], num_specified_elements=count)
        return b.op("CreateSparse", [indices, b.op("ElementWiseNeuron", [values], operation=8)], [words])

    reuses = [b.chance(0.9), b.chance(0.9)]
    dense = words.split(" sparse")[0]

    def conv(source: str, reuse: bool) -> str:
        weight = b.random_constant([3, 3, channels, channels])
        # Without the places of its input it has values at more places than a sparse tensor would say.
        return b.op(
            "Conv2d", [source, weight], [words if reuse else dense], stride=[1, 1],
            pad_amount=[[1, 1], [1, 1]], reuse_sparse_indices=reuse,
        )  # fmt: skip

    a = activated(x)
    inner = conv(a, reuses[0])
    y = conv(activated(inner), reuses[1])
    other = a if b.chance(0.85) else activated(x)
    b.share(inner, 0.1)
    b.share(y, 0.1)
    operation = ADD if b.chance(0.9) else SUBTRACT
    total = b.op(
        "Eltwise_Binary", b.shuffled([other, y]), [words if all(reuses) else dense], operation=operation
    )
    b.share(total, 0.3)
