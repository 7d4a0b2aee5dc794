"""Reading a model: the file, the check, the version, functions of its own."""

from __future__ import annotations

import os
from pathlib import Path

import onnx
from google.protobuf.message import DecodeError

from netforge.onnx_import.errors import OnnxImportError

OLDEST_OPSET = 7
# Serialising beyond this size fails, so such models are checked by their path alone.
_LARGEST_MESSAGE = (1 << 31) - 1


def load_model(
    source: str | os.PathLike[str] | onnx.ModelProto, external_data_dir: str | os.PathLike[str] | None
) -> tuple[onnx.ModelProto, str | None]:
    """The model, valid and free of functions of its own, and the folder of its external files.

    External data stays in its files; `external_data_dir` says where they lie, by default beside the
    model's file. Raises OnnxImportError for what is no valid model, and the
    operating system's own errors for a file that can't be opened.
    """
    if isinstance(source, onnx.ModelProto):
        model, path, folder = source, None, None
    else:
        path = Path(source)
        folder = str(path.resolve().parent)
        model = _parse(path)
    if external_data_dir is not None:
        folder = os.fspath(external_data_dir)
    opset_versions(model)
    _check(model, path)
    return _inline_functions(model), folder


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


def _parse(path: Path) -> onnx.ModelProto:
    data = path.read_bytes()
    model = onnx.ModelProto()
    try:
        model.ParseFromString(data)
    except DecodeError as error:
        raise OnnxImportError("the file is no ONNX model, or it is truncated") from error
    return model


def _check(model: onnx.ModelProto, path: Path | None) -> None:
    try:
        if path is not None:
            onnx.checker.check_model(str(path))
        elif model.ByteSize() <= _LARGEST_MESSAGE and not _has_external_data(model):
            onnx.checker.check_model(model)
    except Exception as error:
        text = " ".join(str(error).split())
        raise OnnxImportError(f"the model isn't valid: {text}") from error


def _has_external_data(model: onnx.ModelProto) -> bool:
    """The checker looks for external files from the current directory, which says nothing about the model."""
    return any(tensor.data_location == onnx.TensorProto.EXTERNAL for tensor in model.graph.initializer)


def _inline_functions(model: onnx.ModelProto) -> onnx.ModelProto:
    if not model.functions:
        return model
    import onnx.inliner

    try:
        return onnx.inliner.inline_local_functions(model)
    except Exception as error:
        names = ", ".join(function.name for function in model.functions)
        raise OnnxImportError(f"the model's functions ({names}) can't be inlined: {error}") from error
