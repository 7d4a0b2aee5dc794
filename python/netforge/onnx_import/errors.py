"""The one error that ends an import, and the signal that sends a node to a plain op."""

from __future__ import annotations


class OnnxImportError(ValueError):
    """A model that can't be imported: broken, of an unsupported version, or beyond what the IR can hold.

    `file` is the model's path (None for a model in memory), `node` names the node at fault as
    "'name' (OpType)" where there is one, and `reason` says what is wrong.
    """

    def __init__(self, reason: str, *, file: str | None = None, node: str | None = None) -> None:
        self.reason = " ".join(str(reason).split())
        self.file = file
        self.node = node
        super().__init__(self.reason)

    def __str__(self) -> str:
        where = self.file or "<model in memory>"
        at = f"node {self.node}: " if self.node else ""
        return f"{where}: {at}{self.reason}"


class NotTyped(Exception):
    """Raised by a converter, before it plans anything, when the catalogue's op can't express the node."""
