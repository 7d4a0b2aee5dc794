"""The graph to be built, as records that can still be changed: ops in order, tensors by name."""

from __future__ import annotations

from dataclasses import dataclass, field

import numpy as np

from netforge.onnx_import.values import Constant, Dims

# Values of attributes. The NumPy types say which 32-bit or 8-bit type the IR gets; an array becomes a tensor.
Attribute = bool | float | str | np.uint8 | np.int32 | np.uint32 | np.ndarray


@dataclass
class PlannedTensor:
    """`role` is one of "input", "output", "native", "null" and "static"; a static one has its `constant`."""

    name: str
    elem_type: int
    dims: Dims
    format: str
    source_format: str
    role: str = "native"
    constant: Constant | None = None
    source: str = ""  # the model's value that it holds; empty for what a converter made up


@dataclass
class PlannedOp:
    type: str
    name: str
    attributes: dict[str, Attribute]
    inputs: list[str]
    outputs: list[str]
    node: str  # name of the node that it stands for; empty where there is none
    plain: bool = False
    for_layout: bool = False


@dataclass
class Plan:
    ops: list[PlannedOp] = field(default_factory=list)
    tensors: dict[str, PlannedTensor] = field(default_factory=dict)

    def remove_dead(self) -> None:
        """Takes out ops none of whose outputs is read, and constants that nobody reads."""
        needed = {name for name, tensor in self.tensors.items() if tensor.role == "output"}
        kept = []
        for op in reversed(self.ops):
            if any(name in needed for name in op.outputs):
                kept.append(op)
                needed.update(op.inputs)
        kept.reverse()
        self.ops = kept
        needed.update(name for op in kept for name in op.outputs)
        self.tensors = {
            name: tensor for name, tensor in self.tensors.items() if tensor.role == "input" or name in needed
        }
