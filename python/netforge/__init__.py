"""Graphs of neural networks in memory: build, import, read and dump them.

The classes come from the extension module `netforge._core`; `libPyGraphRefiner312` optimizes the graphs.
"""

from netforge._core import *  # noqa: F403

__version__ = "0.1.0"

# Loaded when they are first used: the onnx package takes its time.
_LAZY = {
    **dict.fromkeys(("ImportAccount", "OnnxImportError", "from_onnx", "import_account"), "onnx_import"),
    **dict.fromkeys(("CustomIOError", "custom_io_entries", "read_custom_io", "set_custom_io"), "custom_io"),
    **dict.fromkeys(("OnnxExportError", "save_onnx", "to_onnx"), "onnx_export"),
    **dict.fromkeys(("CheckReport", "Checker", "Verdict", "check", "check_each_pass"), "checking"),
}


def __getattr__(name: str) -> object:
    if name in _LAZY:
        import importlib

        return getattr(importlib.import_module(f"netforge.{_LAZY[name]}"), name)
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")


def __dir__() -> list[str]:
    return sorted([*globals(), *_LAZY])
