"""Takes the bytes of large constants out of a serialised model, so that they need not be parsed and copied.

A serialised message is a row of fields, each a tag (field number and wire type) and a value; messages inside
a message are values with their length in front. See the encoding of Protocol Buffers.
"""

from __future__ import annotations

import mmap
from collections.abc import Iterator
from dataclasses import dataclass

from netforge.onnx_import.errors import OnnxImportError

Buffer = bytes | mmap.mmap

_VARINT, _FIXED64, _BYTES, _FIXED32 = 0, 1, 2, 5
_MODEL_GRAPH, _GRAPH_INITIALIZER, _TENSOR_NAME, _TENSOR_RAW_DATA = 7, 5, 8, 9
_SMALLEST = 1024  # constants below this size stay in the message


@dataclass(frozen=True)
class Place:
    """Where the bytes of a constant lie in the serialised model."""

    offset: int
    length: int


@dataclass(frozen=True)
class _Field:
    number: int
    wire_type: int
    begin: int  # of the tag
    value: int  # of the value, behind its length
    end: int


def split_constants(data: Buffer) -> tuple[bytes, dict[str, Place]]:
    """The model without the raw data of its larger initializers, and the places of these by tensor name.

    Raises OnnxImportError when the fields don't fit into one another, as in a truncated file.
    """
    graphs = [field for field in _fields(data, 0, len(data)) if field.number == _MODEL_GRAPH]
    if len(graphs) != 1 or graphs[0].wire_type != _BYTES:
        return bytes(data[:]), {}
    graph = graphs[0]
    places: dict[str, Place] = {}
    parts: list[bytes] = []
    copied = graph.value
    for field in _fields(data, graph.value, graph.end):
        if field.number != _GRAPH_INITIALIZER or field.end - field.value < _SMALLEST:
            continue
        reduced = _without_raw_data(data, field, places)
        if reduced is not None:
            parts += [data[copied : field.begin], reduced]
            copied = field.end
    if not places:
        return bytes(data[:]), {}
    parts.append(data[copied : graph.end])
    inner = b"".join(parts)
    return b"".join((data[: graph.begin], _message(_MODEL_GRAPH, inner), data[graph.end :])), places


def _without_raw_data(data: Buffer, tensor: _Field, places: dict[str, Place]) -> bytes | None:
    """The tensor's field without its bytes; None when it has none, or no name to find them by."""
    name = ""
    raw: list[_Field] = []
    for field in _fields(data, tensor.value, tensor.end):
        if field.number == _TENSOR_NAME:
            name = data[field.value : field.end].decode("utf-8", "replace")
        elif field.number == _TENSOR_RAW_DATA:
            raw.append(field)
    if len(raw) != 1 or raw[0].wire_type != _BYTES or not name or name in places:
        return None
    places[name] = Place(raw[0].value, raw[0].end - raw[0].value)
    return _message(_GRAPH_INITIALIZER, data[tensor.value : raw[0].begin] + data[raw[0].end : tensor.end])


def _message(number: int, content: bytes) -> bytes:
    return _varint(number << 3 | _BYTES) + _varint(len(content)) + content


def _varint(value: int) -> bytes:
    result = bytearray()
    while value > 0x7F:
        result.append(value & 0x7F | 0x80)
        value >>= 7
    result.append(value)
    return bytes(result)


def _fields(data: Buffer, begin: int, end: int) -> Iterator[_Field]:
    at = begin
    while at < end:
        tag, value = _read_varint(data, at, end)
        wire_type = tag & 7
        if wire_type == _VARINT:
            _, after = _read_varint(data, value, end)
        elif wire_type == _BYTES:
            length, value = _read_varint(data, value, end)
            after = value + length
        elif wire_type in (_FIXED64, _FIXED32):
            after = value + (8 if wire_type == _FIXED64 else 4)
        else:
            raise _broken()
        if after > end or tag >> 3 == 0:
            raise _broken()
        yield _Field(tag >> 3, wire_type, at, value, after)
        at = after


def _read_varint(data: Buffer, at: int, end: int) -> tuple[int, int]:
    value = 0
    for shift in range(0, 70, 7):
        if at >= end:
            break
        byte = data[at]
        at += 1
        value |= (byte & 0x7F) << shift
        if byte < 0x80:
            return value, at
    raise _broken()


def _broken() -> OnnxImportError:
    return OnnxImportError("the file is no ONNX model, or it is truncated")
