"""Plants for Hadamard transforms and for Expand."""

from __future__ import annotations

import numpy as np

from random_graphs.builder import ADD, MULTIPLY, Builder
from random_graphs.plants import plant


@plant("FullyConnectedToHadamard")
def hadamard_product(b: Builder) -> None:
    side = b.pick([1, 2, 4, 8])
    matrix = np.ones((1, 1))
    while len(matrix) < side:
        matrix = np.block([[matrix, matrix], [matrix, -matrix]])
    if b.chance(0.3):
        row, column = b.rng.randrange(side), b.rng.randrange(side)
        matrix[row, column] *= b.pick([-1.0, 0.5])
    elif b.chance(0.1):
        matrix = matrix * 0.5
    weights = b.constant(matrix)
    if b.chance(0.1):
        b.read(weights)
    x = b.tensor([*b.dims_of_rank(b.pick([0, 1, 1, 2])), side])
    if b.chance(0.1) and side == 2:
        x = b.tensor([2, 2, 2])
    bias = [b.random_constant([side])] if b.chance(0.1) else []
    transposes = not b.spatial_first
    y = b.op("FullyConnected", [x, weights, *bias], keep_dims=b.chance(0.5), transpose_b=transposes)
    b.share(y)


@plant("FoldHadamardWithMul")
def scaled_hadamard(b: Builder) -> None:
    x = b.tensor([*b.dims_of_rank(b.pick([1, 2])), b.pick([2, 4])])
    last = b.op("HadamardTransform", [x], scale=b.pick([0.5, 1.0, 2.0]))
    b.share(last, 0.1)
    if b.chance(0.4):
        last = b.reshape(last, b.refactored(b.dims(last)))
        b.share(last, 0.1)
    for _ in range(b.pick([1, 1, 2])):
        rank = len(b.dims(last))
        shape = b.pick([[1], [1], [1] * rank, [1] * (rank + 1), b.dims(last)])
        value = b.pick([0.25, 3.0, -1.0])
        constant = b.constant(np.full(shape, value))
        last = b.eltwise(b.pick([MULTIPLY] * 9 + [ADD]), *b.shuffled([last, constant]))
        b.share(last, 0.1)


@plant("ExpandExpandOpToEltwise")
def expand(b: Builder) -> None:
    rank = b.pick([1, 2, 3, 4])
    dims = b.dims_of_rank(rank)
    words = b.pick(["", "", "", "i32", "u8", "bool", "f16", "i64"])
    x = b.tensor(dims) if not words else b.input(dims, words)
    target = [b.rng.randint(2, 4) if size == 1 and b.chance(0.7) else size for size in dims]
    target = [b.rng.randint(1, 3) for _ in range(b.pick([0, 0, 1]))] + target
    y = b.op("Expand", [x], shape=target)
    b.share(y)


@plant("SquashTileUnsqueezeToExpand")
def tiled(b: Builder) -> None:
    rank = b.pick([1, 2, 3])
    dims = b.dims_of_rank(rank)
    if b.chance(0.6):
        dims[b.rng.randrange(rank)] = 1
    last = b.tensor(dims)
    steps = b.shuffled(["tile", "unsqueeze"])
    for number, step in enumerate(steps):
        dims = b.dims(last)
        if step == "tile":
            fits = b.chance(0.85)
            multiples = [b.rng.randint(1, 3) if size == 1 or not fits else 1 for size in dims]
            last = b.op("Tile", [last], multiples=multiples)
        elif b.chance(0.5):
            place = 0 if b.chance(0.8) else b.rng.randint(0, len(dims))
            last = b.op("ExpandDims", [last], axes=[place])
        else:
            last = b.reshape(last, [1, *dims] if b.chance(0.8) else b.refactored(dims))
        b.share(last, 0.1 if number == 0 else 0.3)
