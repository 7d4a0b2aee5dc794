"""The bytes of constants: inside the model, or in a file beside it."""

from __future__ import annotations

import os
from collections.abc import Iterable
from pathlib import Path
from typing import BinaryIO

import numpy as np
import onnx
from onnx import TensorProto

from netforge.onnx_export.element_types import numpy_type
from netforge.onnx_export.errors import OnnxExportError
from netforge.onnx_export.graph_writer import Initializer

# A model whose constants take more than this lies beyond what one message may hold.
LARGEST_INSIDE = (1 << 31) - (64 << 20)
# Smaller constants stay inside the model, where shape inference sees them.
SMALLEST_OUTSIDE = 1024
_ALIGNMENT = 4096  # so that a reader can map a constant into memory


def total_bytes(initializers: Iterable[Initializer]) -> int:
    return sum(_bytes_of(found) for found in initializers)


def _bytes_of(found: Initializer) -> int:
    count = 1
    for size in found.dims:
        count *= size
    return count * numpy_type(found.kind).itemsize


def inside(found: Initializer) -> TensorProto:
    proto = _empty(found)
    proto.raw_data = _little_endian(_array(found)).tobytes()
    return proto


def outside(initializers: Iterable[Initializer], path: str | os.PathLike[str]) -> list[TensorProto]:
    """Writes the larger constants to a file, one after the other; the model finds it by its file name."""
    path = Path(path)
    protos = []
    with open(path, "wb") as file:
        for found in initializers:
            length = _bytes_of(found)
            if length < SMALLEST_OUTSIDE:
                protos.append(inside(found))
                continue
            offset = _append(file, _little_endian(_array(found)))
            proto = _empty(found)
            proto.data_location = TensorProto.EXTERNAL
            for key, value in (("location", path.name), ("offset", str(offset)), ("length", str(length))):
                proto.external_data.append(onnx.StringStringEntryProto(key=key, value=value))
            protos.append(proto)
    return protos


def _empty(found: Initializer) -> TensorProto:
    return TensorProto(name=found.name, data_type=found.kind, dims=found.dims)


def _append(file: BinaryIO, array: np.ndarray) -> int:
    offset = -(-file.tell() // _ALIGNMENT) * _ALIGNMENT
    file.seek(offset)
    file.write(np.ascontiguousarray(array).reshape(-1).view(np.uint8).data)
    return offset


def _array(found: Initializer) -> np.ndarray:
    array = found.array()
    if array.shape != tuple(found.dims) or array.dtype.itemsize != numpy_type(found.kind).itemsize:
        raise OnnxExportError(f"constant '{found.name}' has {array.shape} elements, expected {tuple(found.dims)}")
    return array


def _little_endian(array: np.ndarray) -> np.ndarray:
    return array.astype(array.dtype.newbyteorder("<"), copy=False)
