"""Inputs to run a model on: several regimes, each drawn from a seed."""

from __future__ import annotations

import zlib
from collections.abc import Mapping

import numpy as np
import onnx
from onnx import TensorProto, helper

REGIMES = ("normal", "small", "large", "zeros", "ones", "integers")
_SMALL, _LARGE, _LARGEST_INTEGER = 1e-3, 1e2, 8
# Operators that read an index in their second input, and where the axis that it counts stands.
_INDEXED = ("Gather", "GatherElements", "GatherND", "ScatterND", "ScatterElements")
_PASSING = frozenset(
    [
        "Cast",
        "Concat",
        "Expand",
        "Flatten",
        "Gather",
        "GatherElements",
        "Identity",
        "Pad",
        "Reshape",
        "Slice",
        "Split",
        "Squeeze",
        "Tile",
        "Transpose",
        "Unsqueeze",
        "Where",
    ]
)


def feeds_of(
    model: onnx.ModelProto, sizes: Mapping[str, int], regime: str, seed: int
) -> dict[str, np.ndarray]:
    """One array per graph input. `sizes` gives the symbols, or "" for all that it doesn't name.

    Indices of the model stay below the axis that they count, wherever that is known.
    """
    bounds = index_bounds(model)
    constants = {tensor.name for tensor in model.graph.initializer}
    feeds = {}
    for info in model.graph.input:
        if info.name in constants:
            continue
        kind = info.type.tensor_type
        dims = [_size(dim, sizes) for dim in kind.shape.dim]
        random = np.random.default_rng([seed, zlib.crc32(info.name.encode()), REGIMES.index(regime)])
        feeds[info.name] = _draw(
            random, regime, kind.elem_type, tuple(dims), bounds.get(info.name, _LARGEST_INTEGER)
        )
    return feeds


def _size(dim: onnx.TensorShapeProto.Dimension, sizes: Mapping[str, int]) -> int:
    if dim.HasField("dim_value"):
        return dim.dim_value
    return sizes.get(dim.dim_param, sizes.get("", 1))


def _draw(
    random: np.random.Generator, regime: str, elem_type: int, dims: tuple[int, ...], bound: int
) -> np.ndarray:
    dtype = helper.tensor_dtype_to_np_dtype(elem_type)
    if regime in ("zeros", "ones"):
        return np.full(dims, min(regime == "ones", bound - 1), dtype)
    if elem_type == TensorProto.BOOL:
        return random.integers(0, 2, dims).astype(dtype)
    if dtype.kind in "iu":
        return random.integers(0, bound, dims).astype(dtype)
    if regime == "integers":
        return random.integers(-_LARGEST_INTEGER, _LARGEST_INTEGER + 1, dims).astype(dtype)
    factor = {"normal": 1.0, "small": _SMALL, "large": _LARGE}[regime]
    return (random.standard_normal(dims) * factor).astype(dtype)


def index_bounds(model: onnx.ModelProto) -> dict[str, int]:
    """For graph inputs that end as indices: the size of the smallest axis that they count, if known."""
    readers: dict[str, list[onnx.NodeProto]] = {}
    for node in model.graph.node:
        for name in node.input:
            readers.setdefault(name, []).append(node)
    dims = {tensor.name: list(tensor.dims) for tensor in model.graph.initializer}
    for info in (*model.graph.input, *model.graph.value_info):
        sizes = [dim.dim_value if dim.HasField("dim_value") else 0 for dim in info.type.tensor_type.shape.dim]
        dims.setdefault(info.name, sizes)
    bounds = {}
    for info in model.graph.input:
        elem_type = info.type.tensor_type.elem_type
        if elem_type not in (TensorProto.INT32, TensorProto.INT64, TensorProto.UINT8, TensorProto.UINT32):
            continue
        found = _bound(info.name, readers, dims)
        if found:
            bounds[info.name] = found
    return bounds


def _bound(name: str, readers: dict[str, list[onnx.NodeProto]], dims: dict[str, list[int]]) -> int:
    seen, waiting, smallest = {name}, [name], 0
    while waiting:
        value = waiting.pop()
        for node in readers.get(value, ()):
            if node.op_type in _INDEXED and len(node.input) > 1 and node.input[1] == value:
                size = _counted(node, dims.get(node.input[0], []))
                smallest = min(filter(None, (smallest, size)), default=0)
            elif node.op_type in _PASSING:
                fresh = [output for output in node.output if output not in seen]
                seen.update(fresh)
                waiting.extend(fresh)
    return smallest


def _counted(node: onnx.NodeProto, dims: list[int]) -> int:
    if node.op_type in ("GatherND", "ScatterND"):
        return min(filter(None, dims), default=0)
    axis = next((attribute.i for attribute in node.attribute if attribute.name == "axis"), 0)
    return dims[axis] if -len(dims) <= axis < len(dims) else 0
