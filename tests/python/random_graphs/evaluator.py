"""Computes the values of a graph in double precision, op by op.

Data types, layouts and quantisation are left aside: only comparisons (0 and 1) and Casts to whole numbers and
bools convert. Sums run over the reduced axes in row-major order, so that a rewrite that only moves elements
gives the same bits.
"""

from __future__ import annotations

import math
import zlib
from collections.abc import Callable, Sequence
from typing import Any

import netforge
import numpy as np

Values = dict[str, np.ndarray]
Hook = Callable[["Node", list[np.ndarray]], list[np.ndarray]]
Kernel = Callable[..., Any]
_kernels: dict[str, Kernel] = {}


class UnknownOp(Exception):
    """There is no kernel for an op's type."""


class Inconsistent(Exception):
    """An op's operands don't fit together, or its result doesn't fit its output."""


def kernel(*types: str) -> Callable[[Kernel], Kernel]:
    """Registers a function of a node and its input arrays that gives the output array, or a list of them."""

    def register(function: Kernel) -> Kernel:
        _kernels.update(dict.fromkeys(types, function))
        return function

    return register


class Node:
    """An op, with its attributes as Python values."""

    def __init__(self, op: netforge.IrOp, channels_last: bool) -> None:
        self.op = op
        self.type = op.type
        self.channels_last = channels_last

    def has(self, name: str) -> bool:
        return self.op.attributes.hasAttr(name)

    def value(self, name: str, default: Any = None) -> Any:
        if self.has(name):
            return self.op.attributes.get(name)
        if default is None:
            raise Inconsistent(f"op '{self.op.name}' lacks the attribute '{name}'")
        return default

    def integers(self, name: str, default: Sequence[int] | None = None) -> list[int]:
        """Signed: a negative axis may be stored in 32 unsigned bits."""
        if not self.has(name) and default is not None:
            return list(default)
        found = self.value(name)
        flat = found.numpy().reshape(-1).tolist() if isinstance(found, netforge.IrTensor) else [found]
        return [int(item) - (1 << 32) if item >= 1 << 31 else int(item) for item in flat]

    def axis(self, rank: int, name: str = "axis", default: int | None = None) -> int:
        axis = self.integers(name, None if default is None else [default])[0]
        return axis + rank if axis < 0 else axis

    def axes(self, rank: int) -> list[int]:
        return [axis + rank if axis < 0 else axis for axis in self.integers("axes")]

    def out_dims(self, position: int = 0) -> tuple[int, ...]:
        return tuple(self.op.outputs[position].dims)

    def channels_first(self, x: np.ndarray) -> np.ndarray:
        return np.moveaxis(x, -1, 1) if self.channels_last and x.ndim > 2 else x

    def from_channels_first(self, x: np.ndarray) -> np.ndarray:
        return np.moveaxis(x, 1, -1) if self.channels_last and x.ndim > 2 else x


def rows_of(x: np.ndarray, axes: Sequence[int]) -> np.ndarray:
    """The elements along `axes` in row-major order as a last axis, behind the axes that stay."""
    kept = [axis for axis in range(x.ndim) if axis not in axes]
    moved = np.ascontiguousarray(x.transpose([*kept, *sorted(axes)]))
    count = math.prod(x.shape[axis] for axis in set(axes))
    return moved.reshape([*(x.shape[axis] for axis in kept), count])


def total(x: np.ndarray, axes: Sequence[int]) -> np.ndarray:
    return np.add.reduce(rows_of(x, axes), axis=-1)


def contract(left: np.ndarray, right: np.ndarray) -> np.ndarray:
    """The sums over the last axes of what broadcasts."""
    return np.add.reduce(np.ascontiguousarray(left * right), axis=-1)


def data_of(tensor: netforge.IrStaticTensor) -> np.ndarray:
    return np.asarray(tensor.numpy(), dtype=np.float64).reshape(tensor.dims)


def random_inputs(graph: netforge.IrGraph, seed: int) -> Values:
    """By name, so that a reduced graph gets the same ones. Whole numbers are 0, 1 and 2. A sparse
    tensor has as many rows that aren't 0 as it specifies."""
    values = {}
    for tensor in graph.graphInputs:
        rng = np.random.default_rng([seed, zlib.crc32(tensor.name.encode())])
        whole = not tensor.isQuantized() and "FLOAT" not in tensor.dataType.name
        limit = 2 if "BOOL" in tensor.dataType.name else 3
        drawn = rng.integers(0, limit, tensor.dims) if whole else rng.standard_normal(tensor.dims)
        values[tensor.name] = np.asarray(drawn, dtype=np.float64)
        sparse = tensor.getSparseParams()
        if sparse.layout == 0:
            rows = values[tensor.name].reshape(-1, tensor.dims[-1])
            rows[rng.permutation(len(rows))[sparse.numSpecifiedElements :]] = 0.0
    return values


def opaque(node: Node, *inputs: np.ndarray) -> list[np.ndarray]:
    """Stands for an op of a type that tests made up: every output depends on all elements of all operands,
    on their order and their dims. It keeps to the type of the output: bools are 0 and 1, integers whole."""
    flat = np.concatenate([np.array([len(node.type)]), *(x.reshape(-1) for x in inputs)])
    shape = sum((place + 2) * size for x in inputs for place, size in enumerate(x.shape))
    mixed = float(np.dot(flat, np.cos(np.arange(1, len(flat) + 1)))) + 0.01 * shape
    results = []
    for number, tensor in enumerate(node.op.outputs):
        result = np.sin(np.resize(flat, tensor.dims) + 0.1 * mixed + number)
        name = tensor.dataType.name
        results.append(
            result if "FLOAT" in name else (result > 0) * 1.0 if "BOOL" in name else np.round(result)
        )
    return results


def evaluate(
    graph: netforge.IrGraph, inputs: Values, hook: Hook | None = None, made_up_types: bool = False
) -> Values:
    """The values of all tensors by name. `hook` sees the results of each op and gives what counts as such."""
    values = dict(inputs)
    for name, tensor in graph.tensors.items():
        if tensor.isStatic():
            values[name] = data_of(tensor)  # type: ignore[arg-type]
        elif tensor.tensorType == netforge.TensorType.Null:
            values[name] = np.zeros([0])
    channels_last = isinstance(graph.axisOrder, netforge.SpatialFirstAxisOrder)
    with np.errstate(all="ignore"):
        for op in graph.ops:
            node = Node(op, channels_last)
            results = _results(node, values, made_up_types)
            if hook is not None:
                results = hook(node, results)
            values.update({tensor.name: result for tensor, result in zip(op.outputs, results, strict=False)})
    return values


def _results(node: Node, values: Values, made_up_types: bool) -> list[np.ndarray]:
    op = node.op
    missing = [tensor.name for tensor in op.inputs if tensor.name not in values]
    if missing:
        raise Inconsistent(f"op '{op.name}' reads {missing} before they are made")
    operands = [values[tensor.name] for tensor in op.inputs]
    function = _kernels.get(op.type)
    if function is None:
        if not made_up_types:
            raise UnknownOp(op.type)
        function = opaque
    try:
        found = function(node, *operands)
    except (ValueError, IndexError, TypeError) as failure:
        raise Inconsistent(f"op '{op.name}' ({op.type}): {failure}") from failure
    results = found if isinstance(found, list) else [found]
    results = [np.ascontiguousarray(result) for result in results]
    if len(results) < len(op.outputs):
        raise Inconsistent(f"op '{op.name}' ({op.type}) has {len(op.outputs)} outputs")
    for tensor, result in zip(op.outputs, results, strict=False):
        if list(result.shape) != list(tensor.dims):
            raise Inconsistent(
                f"op '{op.name}' ({op.type}) gives '{tensor.name}' dims {list(result.shape)}, "
                f"but the tensor has {list(tensor.dims)}"
            )
    return results


# The modules register their kernels.
from random_graphs import (  # noqa: E402, F401
    kernels_elementwise,
    kernels_matrix,
    kernels_movement,
    kernels_sparse,
    kernels_window,
)
