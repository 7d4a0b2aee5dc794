"""Reading a model: the file, the check, the version, functions of its own."""

from __future__ import annotations

import mmap
import os
from dataclasses import dataclass, field
from pathlib import Path

import onnx
from google.protobuf.message import DecodeError

from netforge.onnx_import.errors import OnnxImportError
from netforge.onnx_import.values import Constant, ExternalBytes
from netforge.onnx_import.wire import Place, split_constants

OLDEST_OPSET = 7
# Serialising beyond this size fails, so such models are checked by their path alone.
_LARGEST_MESSAGE = (1 << 31) - 1
_MAPPED_FROM_BYTES = 1 << 20


@dataclass
class LoadedModel:
    """A model whose larger constants still lie in its file.

    `places` tells by tensor name where in the file at `path` the constants lie that `proto` lacks. `folder`
    is where external files lie; None when the model has no place on disk.
    """

    proto: onnx.ModelProto
    folder: str | None = None
    path: str = ""
    places: dict[str, Place] = field(default_factory=dict)

    def constant(self, tensor: onnx.TensorProto) -> Constant:
        place = self.places.get(tensor.name)
        if place is None:
            return Constant.from_proto(tensor, self.folder)
        return Constant.from_file(tensor, ExternalBytes(self.path, place.offset, place.length))


def load_model(
    source: str | os.PathLike[str] | onnx.ModelProto, external_data_dir: str | os.PathLike[str] | None
) -> LoadedModel:
    """The model, valid and free of functions of its own.

    External data stays in its files; `external_data_dir` says where they lie, by default beside the
    model's file. Raises OnnxImportError for what is no valid model, and the operating system's own errors
    for a file that can't be opened.
    """
    loaded = LoadedModel(source) if isinstance(source, onnx.ModelProto) else _parse(Path(source))
    if external_data_dir is not None:
        loaded.folder = os.fspath(external_data_dir)
    opset_versions(loaded.proto)
    _check(loaded)
    loaded.proto = _inline_functions(loaded.proto)
    return loaded


def opset_versions(model: onnx.ModelProto) -> dict[str, int]:
    """Versions by domain; the default domain is "". Raises OnnxImportError for none or one too old."""
    versions = {_domain(entry.domain): int(entry.version) for entry in model.opset_import}
    if not versions:
        raise OnnxImportError("the model names no opset version: it is no ONNX model, or a broken one")
    newest = onnx.defs.onnx_opset_version()
    version = versions.get("", OLDEST_OPSET)
    if version < OLDEST_OPSET:
        raise OnnxImportError(f"opset version {version} is not supported; the oldest is {OLDEST_OPSET}")
    if version > newest:
        raise OnnxImportError(f"opset version {version} is newer than {newest}, the newest known here")
    return versions


def _domain(name: str) -> str:
    return "" if name == "ai.onnx" else name


def _parse(path: Path) -> LoadedModel:
    """Parses all but the larger constants, which are so never in memory twice."""
    with path.open("rb") as file:
        if os.fstat(file.fileno()).st_size < _MAPPED_FROM_BYTES:
            reduced, places = split_constants(file.read())
        else:
            with mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ) as data:
                reduced, places = split_constants(data)
    proto = onnx.ModelProto()
    try:
        proto.ParseFromString(reduced)
    except (DecodeError, ValueError) as error:
        raise OnnxImportError("the file is no ONNX model, or it is truncated") from error
    return LoadedModel(proto, str(path.resolve().parent), str(path), places)


def _check(loaded: LoadedModel) -> None:
    """The checker sees constants whose bytes are elsewhere as inputs: their bytes are checked when read."""
    elsewhere = {
        tensor.name
        for tensor in loaded.proto.graph.initializer
        if tensor.name in loaded.places or tensor.data_location == onnx.TensorProto.EXTERNAL
    }
    model = _checkable(loaded.proto, elsewhere)
    if model.ByteSize() > _LARGEST_MESSAGE:
        return
    try:
        onnx.checker.check_model(model)
    except Exception as error:
        text = " ".join(str(error).split())
        raise OnnxImportError(f"the model isn't valid: {text}") from error


def _checkable(proto: onnx.ModelProto, elsewhere: set[str]) -> onnx.ModelProto:
    """The model, or a copy with the initializers of `elsewhere` as inputs and with shapes for all outputs."""
    types = [info.type for info in proto.graph.output]
    shapeless = [kind.HasField("tensor_type") and not kind.tensor_type.HasField("shape") for kind in types]
    if not elsewhere and not any(shapeless):
        return proto
    model = onnx.ModelProto()
    model.CopyFrom(proto)
    for info, lacks_shape in zip(model.graph.output, shapeless, strict=True):
        if lacks_shape:
            info.type.tensor_type.shape.SetInParent()
    inputs = {info.name for info in model.graph.input}
    del model.graph.initializer[:]
    for tensor in proto.graph.initializer:
        if tensor.name not in elsewhere:
            model.graph.initializer.append(tensor)
        elif tensor.name not in inputs:
            value = onnx.helper.make_tensor_type_proto(tensor.data_type, tensor.dims)
            model.graph.input.append(onnx.helper.make_value_info(tensor.name, value))
    return model


def _inline_functions(model: onnx.ModelProto) -> onnx.ModelProto:
    if not model.functions:
        return model
    import onnx.inliner

    try:
        return onnx.inliner.inline_local_functions(model)
    except Exception as error:
        names = ", ".join(function.name for function in model.functions)
        raise OnnxImportError(f"the model's functions ({names}) can't be inlined: {error}") from error
