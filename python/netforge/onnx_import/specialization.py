"""A model with the shapes of some inputs settled, or with constants in the place of some inputs."""

from __future__ import annotations

from collections.abc import Iterable, Mapping, Sequence

import numpy as np
import onnx
from onnx import helper, numpy_helper

from netforge.onnx_import.errors import OnnxImportError


def specialize(
    model: onnx.ModelProto,
    input_shapes: Mapping[str, Sequence[int]],
    constant_inputs: Mapping[str, object],
) -> onnx.ModelProto:
    """A copy of the model; the model itself where there is nothing to do.

    A symbol that gets a size in one place gets it in all inputs, outputs and declared values. Raises
    OnnxImportError for names that aren't inputs, and for what doesn't fit an input's type and shape.
    """
    if not input_shapes and not constant_inputs:
        return model
    result = onnx.ModelProto()
    result.CopyFrom(model)
    graph = result.graph
    initialized = {tensor.name for tensor in graph.initializer}
    inputs = {info.name: info for info in graph.input if info.name not in initialized}
    for name in (*input_shapes, *constant_inputs):
        if name not in inputs:
            raise OnnxImportError(f"the model has no input '{name}'; it has {', '.join(inputs)}")

    arrays = {name: _array(inputs[name], value) for name, value in constant_inputs.items()}
    shapes = {name: tuple(shape) for name, shape in input_shapes.items()}
    shapes.update((name, array.shape) for name, array in arrays.items())
    sizes: dict[str, int] = {}
    for name, shape in shapes.items():
        _settle(inputs[name], shape, sizes)
    _replace_symbols((*graph.input, *graph.output, *graph.value_info), sizes)

    for name, array in arrays.items():
        graph.input.remove(inputs[name])
        graph.initializer.append(numpy_helper.from_array(array, name))
    return result


def _array(info: onnx.ValueInfoProto, value: object) -> np.ndarray:
    dtype = helper.tensor_dtype_to_np_dtype(info.type.tensor_type.elem_type)
    given = np.asarray(value)
    try:
        array = given.astype(dtype)
        # Floats may be rounded, integers may not.
        fits = dtype.kind in "fV" or np.array_equal(array, given)
    except (TypeError, ValueError):
        fits = False
    if not fits:
        raise OnnxImportError(f"input '{info.name}' of type {dtype} can't have the value {value!r}")
    return array


def _settle(info: onnx.ValueInfoProto, shape: tuple[int, ...], sizes: dict[str, int]) -> None:
    dims = info.type.tensor_type.shape.dim
    if len(dims) != len(shape) and info.type.tensor_type.HasField("shape"):
        raise OnnxImportError(f"input '{info.name}' is of rank {len(dims)}, not {len(shape)}")
    while len(dims) < len(shape):
        dims.add()
    for axis, (dim, size) in enumerate(zip(dims, shape, strict=True)):
        if size < 0:
            raise OnnxImportError(f"axis {axis} of input '{info.name}' can't be of size {size}")
        known = dim.dim_value if dim.HasField("dim_value") else sizes.get(dim.dim_param, size)
        if known != size:
            raise OnnxImportError(f"axis {axis} of input '{info.name}' is of size {known}, not {size}")
        if dim.dim_param:
            sizes[dim.dim_param] = size
        dim.dim_value = size


def _replace_symbols(infos: Iterable[onnx.ValueInfoProto], sizes: Mapping[str, int]) -> None:
    for info in infos:
        for dim in info.type.tensor_type.shape.dim if info.type.HasField("tensor_type") else ():
            if dim.dim_param in sizes:
                dim.dim_value = sizes[dim.dim_param]
