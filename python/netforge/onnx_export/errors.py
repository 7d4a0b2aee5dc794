"""The error of an export."""

from __future__ import annotations


class OnnxExportError(ValueError):
    """A graph, or an op of it, that ONNX can't state. `op` names the op, empty where none is to blame."""

    def __init__(self, text: str, op: str = "") -> None:
        super().__init__(f"op {op}: {text}" if op else text)
        self.op = op
