"""ONNX models as graphs of the IR."""

from netforge.onnx_import.account import ImportAccount, import_account
from netforge.onnx_import.errors import OnnxImportError
from netforge.onnx_import.importer import from_onnx

__all__ = ["ImportAccount", "OnnxImportError", "from_onnx", "import_account"]
