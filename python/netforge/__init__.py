"""Graphs of neural networks in memory: build, import, read and dump them.

The classes come from the extension module `netforge._core`; `libPyGraphRefiner312` optimizes the graphs.
"""

from netforge._core import *  # noqa: F403

__version__ = "0.1.0"

# Loaded when they are first used: the onnx package takes its time.
_FROM_ONNX_IMPORT = ("ImportAccount", "OnnxImportError", "from_onnx", "import_account")


def __getattr__(name: str) -> object:
    if name in _FROM_ONNX_IMPORT:
        from netforge import onnx_import

        return getattr(onnx_import, name)
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")


def __dir__() -> list[str]:
    return sorted([*globals(), *_FROM_ONNX_IMPORT])
