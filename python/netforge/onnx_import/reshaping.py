"""Reshapes: the target dims that hold for every run of the model, and the ops that carry them out."""

from __future__ import annotations

import numpy as np

from netforge.onnx_import.builder import Builder
from netforge.onnx_import.errors import NotTyped
from netforge.onnx_import.values import Dims

INFERRED = -1  # the size that the element count leaves
COPIED = 0  # the size of the same axis of the input


def reshape_target(before: Dims, after: Dims) -> np.ndarray:
    """Values of the attribute "shape"; raises NotTyped where sizes that aren't known can't be told by it."""
    if any(size == 0 for size in (*before, *after)):
        raise NotTyped("a reshape of a tensor without elements")
    unknown = [axis for axis, size in enumerate(after) if not isinstance(size, int)]
    values = [size if isinstance(size, int) else INFERRED for size in after]
    if len(unknown) > 1:
        for axis in unknown:
            if axis < len(before) and before[axis] == after[axis]:
                values[axis] = COPIED
    if values.count(INFERRED) > 1:
        raise NotTyped(f"several sizes of the target {list(after)} aren't known")
    return np.array(values, np.int64).astype(np.uint32)


def add_reshape(builder: Builder, held: str, output: str, target: np.ndarray, suffix: str = "") -> None:
    builder.add("Reshape", [held], [output], {"shape": target}, suffix)


def add_expand_dims(builder: Builder, held: str, output: str, axes: list[int], suffix: str = "") -> None:
    """Unit axes at these places of the result, ascending.

    One op takes axes up to the rank of its input, so those that lie further back go in one by one.
    """
    tensor = builder.plan.tensors[held]
    rank = len(tensor.dims)
    if all(axis <= rank for axis in axes):
        builder.add("ExpandDims", [held], [output], {"axes": np.array(axes, np.uint32)}, suffix)
        return
    dims = list(tensor.dims)
    for index, axis in enumerate(axes):
        last = index == len(axes) - 1
        dims.insert(axis, 1)
        step = f"{suffix}_axis_{axis}" if suffix else f"axis_{axis}"
        result = output if last else builder.temporary(step, tensor.elem_type, tuple(dims))
        builder.add(
            "ExpandDims", [held], [result], {"axes": np.array([axis], np.uint32)}, suffix if last else step
        )
        held = result
