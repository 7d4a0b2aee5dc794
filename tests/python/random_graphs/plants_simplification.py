"""Plants for casts, negations, ops on constants and uniform slopes."""

from __future__ import annotations

from random_graphs.builder import ADD, MULTIPLY, SUBTRACT, Builder
from random_graphs.plants import plant

NEGATE = 8


def _dims_text(dims: list[int]) -> str:
    return f"[{','.join(str(size) for size in dims)}]"


@plant("RemoveCastIdentity", "ForcePruneCast")
def casts(b: Builder) -> None:
    x = b.tensor(b.dims_of_rank(b.pick([1, 2, 3])))
    b.share(x, 0.2)
    for _ in range(b.pick([1, 1, 2])):
        x = b.op("Cast", [x], [f"{_dims_text(b.dims(x))} {b.pick(['f32', 'f32', 'f16', 'i32', 'bool'])}"])
        b.share(x, 0.2)
    if b.chance(0.6):
        b.read(x)


@plant("OptimizeNegation")
def negations(b: Builder) -> None:
    dims = b.dims_of_rank(b.pick([1, 2, 3]))

    def negated(x: str) -> str:
        """By a negation, or a product with -1 that may be another number, or broadcast."""
        if b.chance(0.5):
            return b.op("Eltwise_Unary", [x], operation=NEGATE if b.chance(0.95) else 0)
        size = b.pick([[1], b.dims(x)[-1:], b.dims(x), [2, *b.dims(x)]])
        count = 1
        for length in size:
            count *= length
        values = [-1.0] * count
        if b.chance(0.1):
            values[-1] = -2.0
        flat = b.constant(values) if len(size) == 1 else b.reshape(b.constant(values), size)
        return b.eltwise(MULTIPLY, *b.shuffled([x, flat]))

    def operand() -> str:
        x = b.tensor(b.pick([dims, dims, dims[-1:]]))
        if b.chance(0.6):
            x = negated(x)
            b.share(x, 0.1)
        return x

    left = operand()
    right = left if b.chance(0.1) else operand()
    y = b.eltwise(ADD if b.chance(0.9) else SUBTRACT, left, right)
    if b.chance(0.5):
        b.read(y)


@plant("SquashConstantInput")
def computed_constants(b: Builder) -> None:
    dims = b.dims_of_rank(b.pick([1, 2, 3, 4]))
    if b.chance(0.7):
        c = b.random_constant(dims)
    else:
        c = b.constant(
            [b.rng.randint(0, 4) for _ in range(dims[0])], b.pick(["f16", "i32", "u32", "i8", "u8"])
        )
    b.share(c, 0.1)
    for _ in range(b.pick([1, 1, 2])):
        if b.chance(0.5):
            c = b.op("ElementWiseNeuron", [c], operation=b.pick([1, 1, 1, 4]))
        else:
            c = b.transpose(c, b.permutation(len(b.dims(c))))
        b.share(c, 0.15)
    if b.chance(0.6):
        b.read(c)


@plant("FlattenPReluAlpha")
def slopes(b: Builder) -> None:
    x = b.tensor(b.dims_of_rank(b.pick([1, 2, 3, 4])))
    dims = b.dims(x)
    size = b.pick([dims[-1:], [1], [1] * len(dims), [1] * (len(dims) - 1) + dims[-1:]])
    values = [0.25] * (size[-1] if size else 1)
    if b.chance(0.2):
        values[0] = 0.5
    nested: object = values
    for _ in size[1:]:
        nested = [nested]
    alpha = b.constant(nested)
    b.share(alpha, 0.1)
    y = b.op("Prelu", [x, alpha])
    if b.chance(0.2):
        b.op("Prelu", [y, alpha])
