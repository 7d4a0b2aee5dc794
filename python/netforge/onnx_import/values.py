"""Element types, value types and constants of a model."""

from __future__ import annotations

import math
import os
from collections.abc import Callable
from dataclasses import dataclass

import numpy as np
from onnx import TensorProto, helper, numpy_helper

from netforge.onnx_import.errors import OnnxImportError

Dim = int | str  # a size, or the symbol of a size that isn't known
Dims = tuple[Dim, ...]

# ONNX element type -> (name of the IR data type, NumPy type of the stored bytes; None: not whole bytes)
_STORAGE: dict[int, tuple[str, np.dtype | None]] = {
    TensorProto.FLOAT: ("ORLO_DATATYPE_FLOAT_32", np.dtype("<f4")),
    TensorProto.DOUBLE: ("ORLO_DATATYPE_FLOAT_64", np.dtype("<f8")),
    TensorProto.FLOAT16: ("ORLO_DATATYPE_FLOAT_16", np.dtype("<f2")),
    TensorProto.BFLOAT16: ("ORLO_DATATYPE_BFLOAT_16", np.dtype("<u2")),
    TensorProto.INT8: ("ORLO_DATATYPE_INT_8", np.dtype("i1")),
    TensorProto.INT16: ("ORLO_DATATYPE_INT_16", np.dtype("<i2")),
    TensorProto.INT32: ("ORLO_DATATYPE_INT_32", np.dtype("<i4")),
    TensorProto.INT64: ("ORLO_DATATYPE_INT_64", np.dtype("<i8")),
    TensorProto.UINT8: ("ORLO_DATATYPE_UINT_8", np.dtype("u1")),
    TensorProto.UINT16: ("ORLO_DATATYPE_UINT_16", np.dtype("<u2")),
    TensorProto.UINT32: ("ORLO_DATATYPE_UINT_32", np.dtype("<u4")),
    TensorProto.UINT64: ("ORLO_DATATYPE_UINT_64", np.dtype("<u8")),
    TensorProto.BOOL: ("ORLO_DATATYPE_BOOL_8", np.dtype("?")),
    TensorProto.INT4: ("ORLO_DATATYPE_INT_4", None),
    TensorProto.UINT4: ("ORLO_DATATYPE_UINT_4", None),
}
for _name, _ir in (("INT2", "ORLO_DATATYPE_INT_2"), ("UINT2", "ORLO_DATATYPE_UINT_2")):
    if hasattr(TensorProto, _name):
        _STORAGE[getattr(TensorProto, _name)] = (_ir, None)

FLOAT_TYPES = (TensorProto.FLOAT, TensorProto.DOUBLE, TensorProto.FLOAT16, TensorProto.BFLOAT16)
UNSIGNED_TYPES = (TensorProto.UINT8, TensorProto.UINT16, TensorProto.UINT32, TensorProto.UINT64)
SIGNED_TYPES = (TensorProto.INT8, TensorProto.INT16, TensorProto.INT32, TensorProto.INT64)


def elem_type_name(elem_type: int) -> str:
    try:
        return TensorProto.DataType.Name(elem_type).lower()
    except ValueError:
        return f"number {elem_type}"


def ir_type_name(elem_type: int) -> str:
    """The IR data type of an ONNX element type; raises OnnxImportError for one that the IR can't hold."""
    if elem_type not in _STORAGE:
        raise OnnxImportError(f"the IR can't hold tensors of element type {elem_type_name(elem_type)}")
    return _STORAGE[elem_type][0]


def storage_dtype(elem_type: int) -> np.dtype:
    """NumPy type of a constant's bytes; raises OnnxImportError when the IR can't hold such constants."""
    ir_type_name(elem_type)
    dtype = _STORAGE[elem_type][1]
    if dtype is None:
        raise OnnxImportError(f"the IR can't hold constants of element type {elem_type_name(elem_type)}")
    return dtype


@dataclass(frozen=True)
class ValueType:
    """Element type (ONNX number) and dims of a tensor."""

    elem_type: int
    dims: Dims

    @property
    def rank(self) -> int:
        return len(self.dims)

    @property
    def is_static(self) -> bool:
        return all(isinstance(dim, int) for dim in self.dims)


@dataclass(frozen=True)
class ExternalBytes:
    """Where the bytes of a constant lie: in a file beside the model, or in the model's own."""

    path: str
    offset: int
    length: int


class Constant:
    """A constant of the model. Its bytes are read, computed or drawn when they are first asked for.

    `stored()` gives the array that the IR holds: C-contiguous, borrowed from what was loaded wherever the
    model has the bytes as they are. `array()` gives the same elements for computing.
    """

    def __init__(
        self,
        elem_type: int,
        dims: tuple[int, ...],
        make: Callable[[], np.ndarray],
        external: ExternalBytes | None = None,
    ) -> None:
        self.elem_type = elem_type
        self.dims = dims
        self.external = external
        self._make = make
        self._array: np.ndarray | None = None

    @property
    def elements(self) -> int:
        return math.prod(self.dims)

    def array(self) -> np.ndarray:
        if self._array is None:
            self._array = self._make()
        return self._array

    def stored(self) -> np.ndarray:
        array = np.ascontiguousarray(self.array()).reshape(self.dims)
        dtype = storage_dtype(self.elem_type)
        return array if array.dtype == dtype else array.view(dtype)

    @classmethod
    def from_array(cls, array: np.ndarray, elem_type: int | None = None) -> Constant:
        if elem_type is None:
            elem_type = helper.np_dtype_to_tensor_dtype(array.dtype)
        return cls(elem_type, tuple(int(size) for size in array.shape), lambda: array)

    @classmethod
    def from_proto(cls, tensor: TensorProto, folder: str | None) -> Constant:
        """`folder` is where external files lie; None when the model has no place on disk."""
        dims = tuple(int(size) for size in tensor.dims)
        if any(size < 0 for size in dims):
            raise OnnxImportError(f"tensor '{tensor.name}' has a negative dimension")
        if tensor.data_location == TensorProto.EXTERNAL:
            return cls._from_external(tensor, dims, folder)
        if tensor.HasField("raw_data") and tensor.data_type in _STORAGE:
            dtype = _STORAGE[tensor.data_type][1]
            if dtype is not None and tensor.data_type != TensorProto.BFLOAT16:
                return cls(
                    tensor.data_type, dims, lambda: _array_of_bytes(tensor.name, tensor.raw_data, dims, dtype)
                )
        return cls(tensor.data_type, dims, lambda: _read(tensor))

    @classmethod
    def from_file(cls, tensor: TensorProto, place: ExternalBytes) -> Constant:
        """A constant whose bytes are read from a file into memory of their own, aligned, on first use."""
        dims = tuple(int(size) for size in tensor.dims)
        dtype = storage_dtype(tensor.data_type)
        _check_size(tensor.name, place.length, dims, dtype)
        return cls(tensor.data_type, dims, lambda: _read_file(tensor.data_type, dims, place))

    @classmethod
    def _from_external(cls, tensor: TensorProto, dims: tuple[int, ...], folder: str | None) -> Constant:
        dtype = storage_dtype(tensor.data_type)
        ref = _external_bytes(tensor, math.prod(dims) * dtype.itemsize, folder)

        # Bytes of half tensors that lie in a file count as 32-bit floats for the IR: those are read here.
        by_ir = tensor.data_type != TensorProto.FLOAT16 and ref.length > 0
        return cls(
            tensor.data_type, dims, lambda: _read_file(tensor.data_type, dims, ref), ref if by_ir else None
        )


def _check_size(name: str, length: int, dims: tuple[int, ...], dtype: np.dtype) -> None:
    expected = math.prod(dims) * dtype.itemsize
    if length != expected or min(dims, default=0) < 0:
        raise OnnxImportError(
            f"tensor '{name}' of dims {list(dims)} has {length} bytes of data, expected {expected}"
        )


def _array_of_bytes(name: str, raw: bytes, dims: tuple[int, ...], dtype: np.dtype) -> np.ndarray:
    _check_size(name, len(raw), dims, dtype)
    return np.frombuffer(raw, dtype).reshape(dims)


def _read_file(elem_type: int, dims: tuple[int, ...], place: ExternalBytes) -> np.ndarray:
    dtype = storage_dtype(elem_type)
    count = math.prod(dims)
    array = np.fromfile(place.path, dtype, count, offset=place.offset) if count else np.zeros(0, dtype)
    if array.size != count:
        raise OnnxImportError(f"the file '{place.path}' was cut off while it was read")
    array = array.reshape(dims)
    if elem_type == TensorProto.BFLOAT16:
        return array.view(helper.tensor_dtype_to_np_dtype(elem_type))
    return array


def _read(tensor: TensorProto) -> np.ndarray:
    try:
        return numpy_helper.to_array(tensor)
    except Exception as error:
        raise OnnxImportError(f"data of tensor '{tensor.name}' can't be read: {error}") from error


def _external_bytes(tensor: TensorProto, expected: int, folder: str | None) -> ExternalBytes:
    entries = {entry.key: entry.value for entry in tensor.external_data}
    location = entries.get("location", "")
    if folder is None:
        raise OnnxImportError(
            f"tensor '{tensor.name}' lies in the file '{location}', and the model has no place on disk"
        )
    root = os.path.realpath(folder)
    path = os.path.realpath(os.path.join(root, location))
    if not location or os.path.isabs(location) or os.path.commonpath((root, path)) != root:
        raise OnnxImportError(
            f"tensor '{tensor.name}' names the file '{location}' outside the model's folder"
        )
    if not os.path.isfile(path):
        raise OnnxImportError(f"tensor '{tensor.name}' lies in the file '{location}', which doesn't exist")
    try:
        offset = int(entries.get("offset", 0))
        length = int(entries.get("length", expected))
    except ValueError as error:
        raise OnnxImportError(f"tensor '{tensor.name}' has a bad place in '{location}'") from error
    if length != expected:
        raise OnnxImportError(
            f"tensor '{tensor.name}' has {length} bytes in '{location}', expected {expected}"
        )
    if offset < 0 or offset + length > os.path.getsize(path):
        raise OnnxImportError(f"tensor '{tensor.name}' ends beyond the end of the file '{location}'")
    return ExternalBytes(path, offset, length)
