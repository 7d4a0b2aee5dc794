"""What an import did with the nodes of a model."""

from __future__ import annotations

import weakref
from collections import Counter
from dataclasses import dataclass, field


@dataclass
class ImportAccount:
    """Figures of one import.

    `typed_ops` counts the IR ops by type that stand for operators of the catalogue, `plain_ops` the ops
    that kept their ONNX name, `plain_reasons` says for each node that went there why. `folded_nodes`
    were computed at import time, `dropped_nodes` contribute to no graph output, `merged_nodes` hand
    their input on unchanged. `layout_transposes` counts the Transposes that the layout asked for.
    `refused` holds the reason of a failed import.
    """

    typed_ops: Counter[str] = field(default_factory=Counter)
    plain_ops: Counter[str] = field(default_factory=Counter)
    plain_reasons: dict[str, str] = field(default_factory=dict)
    folded_nodes: list[str] = field(default_factory=list)
    dropped_nodes: list[str] = field(default_factory=list)
    merged_nodes: list[str] = field(default_factory=list)
    layout_transposes: int = 0
    refused: list[str] = field(default_factory=list)

    def lines(self) -> list[str]:
        """The account as text, one line per kind of figure that isn't empty."""
        result = []
        for label, counts in (("typed ops", self.typed_ops), ("plain ops", self.plain_ops)):
            if counts:
                listed = ", ".join(f"{name} ({count})" for name, count in sorted(counts.items()))
                result.append(f"{label}: {listed}")
        if self.layout_transposes:
            result.append(f"transposes for the layout: {self.layout_transposes}")
        for label, names in (
            ("folded nodes", self.folded_nodes),
            ("merged nodes", self.merged_nodes),
            ("dropped nodes", self.dropped_nodes),
        ):
            if names:
                result.append(f"{label}: {len(names)}")
        result.extend(f"refused: {reason}" for reason in self.refused)
        return result


_accounts: weakref.WeakKeyDictionary[object, ImportAccount] = weakref.WeakKeyDictionary()


def attach(graph: object, account: ImportAccount) -> None:
    _accounts[graph] = account


def import_account(graph: object) -> ImportAccount | None:
    """The account of the import that made this graph; None for a graph that was built otherwise."""
    return _accounts.get(graph)
