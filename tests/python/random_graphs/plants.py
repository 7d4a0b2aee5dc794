"""The registry of plants and the modules that they come from."""

from __future__ import annotations

import importlib
import pkgutil
from collections.abc import Callable
from pathlib import Path
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from random_graphs.builder import Builder

Plant = Callable[["Builder"], None]

# Plants by the pass that they are for, in order of registration.
_plants: dict[str, list[Plant]] = {}


def plant(*passes: str) -> Callable[[Plant], Plant]:
    """Registers a function for passes by name."""

    def register(function: Plant) -> Plant:
        for name in passes:
            _plants.setdefault(name, []).append(function)
        return function

    return register


def all_plants() -> dict[str, list[Plant]]:
    """Plants of each pass; loads every module of plants first."""
    for module in sorted(found.name for found in pkgutil.iter_modules([str(Path(__file__).parent)])):
        if module.startswith("plants_"):
            importlib.import_module(f"random_graphs.{module}")
    return {name: _plants[name] for name in sorted(_plants)}
