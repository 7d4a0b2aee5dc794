"""What the application asks for its buffers: fixed-point forms of graph inputs and outputs.

A custom IO file is a YAML list with a mapping for each tensor:

    - tensor: image
      type: uint8          # or int8, uint16, int16
      scale: 0.0078125     # real value = scale * (integer + offset)
      offset: -128
    - tensor: mask
      optional: true       # the application may leave the buffer out

Without a scale the tensor keeps its form; the type is uint8 and the offset 0 unless they are told.
"""

from __future__ import annotations

import os
from collections.abc import Iterable, Mapping
from pathlib import Path

import numpy as np

import netforge

TYPES = ("uint8", "int8", "uint16", "int16")
_KEYS = ("tensor", "type", "scale", "offset", "optional")
_LARGEST_FILE = 16 << 20


class CustomIOError(ValueError):
    """A custom IO entry or file that can't be used, told in one line."""


def custom_io_entries(
    items: Iterable[Mapping[str, object] | netforge.CustomIOEntry],
) -> list[netforge.CustomIOEntry]:
    """Entries for a graph's `customIOEntries` from mappings with the keys of a custom IO file.

    Raises CustomIOError for an entry with other keys or values and for a second one of a tensor.
    """
    entries = []
    for number, item in enumerate(items, 1):
        entry = (
            item if isinstance(item, netforge.CustomIOEntry) else _entry(item, f"custom IO entry {number}")
        )
        if any(entry.tensorName == other.tensorName for other in entries):
            raise CustomIOError(f"custom IO entry {number} is the second for tensor {entry.tensorName!r}")
        entries.append(entry)
    return entries


def read_custom_io(path: str | os.PathLike[str]) -> list[netforge.CustomIOEntry]:
    """The entries of a custom IO file. Raises CustomIOError, or OSError when it can't be read."""
    path = Path(path)
    if path.is_file() and path.stat().st_size > _LARGEST_FILE:
        raise CustomIOError(f"{path}: {path.stat().st_size} bytes are too many for a custom IO file")
    content = _parse(path.read_bytes(), path)
    if not isinstance(content, list):
        raise CustomIOError(f"{path}: a custom IO file holds a list with a mapping for each tensor")
    try:
        return custom_io_entries(content)
    except CustomIOError as error:
        raise CustomIOError(f"{path}: {error}") from None


def set_custom_io(
    graph: netforge.IrGraph,
    source: str | os.PathLike[str] | Iterable[Mapping[str, object] | netforge.CustomIOEntry],
) -> None:
    """Gives a graph the entries of a custom IO file, or of a list, in place of those that it has.

    The pass ProcessCustomIOQuantInfo carries them out. Raises CustomIOError also for a tensor that the graph
    doesn't have.
    """
    is_path = isinstance(source, (str, os.PathLike))
    entries = read_custom_io(source) if is_path else custom_io_entries(source)
    missing = next((entry.tensorName for entry in entries if not graph.hasTensor(entry.tensorName)), None)
    if missing is not None:
        raise CustomIOError(f"custom IO: the model has no tensor {missing!r}")
    graph.customIOEntries = entries


def _parse(content: bytes, path: Path) -> object:
    import yaml

    class Loader(getattr(yaml, "CSafeLoader", yaml.SafeLoader)):
        """Plain values only. A key that stands twice is an error, and so is a merge of mappings, with which
        a small file makes a huge one."""

        def flatten_mapping(self, node: yaml.MappingNode) -> None:
            pass

        def construct_mapping(self, node: yaml.MappingNode, deep: bool = False) -> dict:
            mapping = super().construct_mapping(node, deep)
            if len(mapping) != len(node.value):
                raise yaml.constructor.ConstructorError(
                    None, None, "a key stands twice in a mapping", node.start_mark
                )
            return mapping

    try:
        return yaml.load(content, Loader)
    except yaml.YAMLError as error:
        raise CustomIOError(f"{path}: no YAML: {' '.join(str(error).split())}") from None
    except RecursionError:
        raise CustomIOError(f"{path}: no custom IO file: it is nested too deep") from None
    except (ValueError, OverflowError) as error:
        # Numbers and dates that look like ones and aren't.
        raise CustomIOError(f"{path}: no YAML: {' '.join(str(error).split())[:200]}") from None


def _entry(item: object, where: str) -> netforge.CustomIOEntry:
    if not isinstance(item, Mapping):
        raise CustomIOError(f"{where} is no mapping")
    unknown = next((key for key in item if key not in _KEYS), None)
    if unknown is not None:
        raise CustomIOError(f"{where} has the key {_short(unknown)}; the keys are {', '.join(_KEYS)}")
    name = item.get("tensor")
    if not isinstance(name, str) or not name:
        raise CustomIOError(f"{where}: the tensor's name is {_short(name)}; write it in quotes")
    where = f"{where}, tensor {name!r}"
    optional = item.get("optional", False)
    if not isinstance(optional, bool):
        raise CustomIOError(f"{where}: optional is {_short(optional)}, not true or false")
    if item.get("scale") is None:
        if item.get("type") is not None or item.get("offset") is not None:
            raise CustomIOError(f"{where}: a type or an offset needs a scale")
        return netforge.CustomIOEntry(name, optional=optional)
    type_name = item.get("type")
    if type_name is not None and type_name not in TYPES:
        raise CustomIOError(f"{where}: the type is {_short(type_name)}; the types are {', '.join(TYPES)}")
    params = netforge.CustomIOQuantParams(_scale(item["scale"], where), _offset(item.get("offset"), where))
    return netforge.CustomIOEntry(name, type_name, params, optional)


def _scale(value: object, where: str) -> float:
    is_number = isinstance(value, (int, float, np.number)) and not isinstance(value, bool)
    # The target keeps scales in single precision.
    if not is_number or not _is_scale(value):
        raise CustomIOError(f"{where}: the scale is {_short(value)}, not a positive 32-bit float")
    return float(value)


def _is_scale(value: float) -> bool:
    limits = np.finfo(np.float32)
    return bool(float(limits.tiny) <= value <= float(limits.max))  # false for NaN


def _offset(value: object, where: str) -> int:
    if value is None:
        return 0
    is_integer = isinstance(value, (int, np.integer)) and not isinstance(value, bool)
    if not is_integer or not -(1 << 31) <= value < 1 << 31:
        raise CustomIOError(f"{where}: the offset is {_short(value)}, not a signed 32-bit integer")
    return int(value)


def _short(value: object) -> str:
    if isinstance(value, (list, dict, set, tuple)):
        return f"a {type(value).__name__}"
    try:
        text = repr(value)
    except ValueError:  # an integer of too many digits
        return "a huge number"
    return text if len(text) <= 60 else f"{text[:57]}..."
