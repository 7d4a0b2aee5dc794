"""Draws graphs from seeds."""

from __future__ import annotations

import random
from collections.abc import Sequence

from random_graphs.background import background_op
from random_graphs.builder import ORDERS, Builder, Refused
from random_graphs.plants import all_plants


def generate(seed: int, passes: Sequence[str] = ()) -> str:
    """The graph of a seed in text form, with plants of the given passes, else of any. The same text in every
    process."""
    rng = random.Random(seed)
    builder = Builder(rng, rng.choice(ORDERS))
    plants = all_plants()
    names = [name for name in plants if name in passes] if passes else list(plants)
    for _ in range(rng.choice((1, 1, 2, 2, 3, 4))):
        steps = [background_op] * rng.choice((0, 1, 2))
        if names:
            steps.append(rng.choice(plants[rng.choice(names)]))
        for step in steps:
            try:
                step(builder)
            except Refused:
                pass
    if not builder.graph.ops:
        builder.relu(builder.input([2, 3]))
    return builder.finish()
