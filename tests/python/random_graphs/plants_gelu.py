"""Plants for the fusion of GELU."""

from __future__ import annotations

import math

from random_graphs.builder import ADD, DIVIDE, MULTIPLY, POWER, Builder
from random_graphs.plants import plant


@plant("MatchGeluApprox")
def gelu(b: Builder) -> None:
    x = b.tensor(b.dims_of_rank(b.pick([1, 2, 3, 4])))
    if b.chance(0.3):
        x = b.eltwise(ADD, x, b.random_constant(b.dims(x)[-1:]))

    def other() -> str:
        """x, seldom another tensor of its dims."""
        return x if b.chance(0.96) else b.tensor(b.dims(x))

    def scalar(value: float) -> str:
        factor = b.pick([1.0] * 12 + [1.0005, 1.01])
        return b.constant([value * factor] if b.chance(0.7) else value * factor)

    def both(operation: int, left: str, right: str) -> str:
        return b.eltwise(operation, *b.shuffled([left, right]))

    if b.chance(0.5):
        cube = b.eltwise(POWER, other(), scalar(3.0))
    else:
        cube = both(MULTIPLY, b.eltwise(MULTIPLY, x, other()), other())
    b.share(cube, 0.05)
    inner = both(ADD, other(), both(MULTIPLY, cube, scalar(0.044715)))
    scaled = both(MULTIPLY, inner, scalar(math.sqrt(2 / math.pi)))
    hyperbolic = b.op("ElementWiseNeuron", [scaled], operation=8)
    b.share(hyperbolic, 0.05)
    t = both(ADD, hyperbolic, scalar(1.0))
    arrangement = b.rng.randrange(4)
    if arrangement == 0:
        y = both(MULTIPLY, both(MULTIPLY, other(), scalar(0.5)), t)
    elif arrangement == 1:
        y = both(MULTIPLY, both(MULTIPLY, t, scalar(0.5)), other())
    elif arrangement == 2:
        y = both(MULTIPLY, b.eltwise(DIVIDE, t, scalar(2.0)), other())
    else:
        y = both(MULTIPLY, both(MULTIPLY, other(), t), scalar(0.5))
    if b.chance(0.5):
        b.read(y)
