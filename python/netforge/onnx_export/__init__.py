"""Export of graphs to ONNX."""

from netforge.onnx_export.errors import OnnxExportError
from netforge.onnx_export.exporter import save_onnx, to_onnx

__all__ = ["OnnxExportError", "save_onnx", "to_onnx"]
