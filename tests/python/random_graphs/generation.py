"""Draws graphs from seeds."""

from __future__ import annotations

import contextlib
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
    chosen = [plants[name] for name in plants if not passes or name in passes]
    # Each once, though it may be for several passes.
    functions = list(dict.fromkeys(function for group in chosen for function in group))
    for _ in range(rng.choice((1, 1, 2, 2, 3, 4))):
        steps = [background_op] * rng.choice((0, 1, 2))
        if functions:
            steps.append(rng.choice(functions))
        for step in steps:
            with contextlib.suppress(Refused):
                step(builder)
    if not builder.graph.ops:
        builder.relu(builder.input([2, 3]))
    return builder.finish()
