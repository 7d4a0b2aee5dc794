"""Inputs and outputs that a model takes and gives as integers, where the model that it is checked against has
the numbers that they stand for.

What an integer stands for is told by the model itself: by the DequantizeLinear that reads an input and the
QuantizeLinear that makes an output.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import onnx
from onnx import helper, numpy_helper


@dataclass(frozen=True)
class LinearEncoding:
    """An integer q stands for scale (q - zero point)."""

    scale: float
    zero_point: int
    dtype: np.dtype

    def quantise(self, values: np.ndarray) -> np.ndarray:
        """The nearest integers, of two the even one; numbers beyond the ends become the ends."""
        limits = np.iinfo(self.dtype)
        with np.errstate(invalid="ignore", over="ignore"):
            steps = np.rint(values.astype(np.float32) / np.float32(self.scale)).astype(np.float64)
        steps = np.nan_to_num(steps, nan=0.0) + self.zero_point
        return np.clip(steps, limits.min, limits.max).astype(self.dtype)

    def dequantise(self, integers: np.ndarray) -> np.ndarray:
        return (integers.astype(np.float32) - np.float32(self.zero_point)) * np.float32(self.scale)


def input_encodings(model: onnx.ModelProto) -> dict[str, LinearEncoding]:
    return _encodings(model, "DequantizeLinear", lambda node: node.input[0], model.graph.input)


def output_encodings(model: onnx.ModelProto) -> dict[str, LinearEncoding]:
    return _encodings(model, "QuantizeLinear", lambda node: node.output[0], model.graph.output)


def _encodings(model: onnx.ModelProto, op_type: str, boundary: object, infos: object) -> dict:
    constants = {tensor.name: tensor for tensor in model.graph.initializer}
    dtypes = {
        info.name: np.dtype(helper.tensor_dtype_to_np_dtype(info.type.tensor_type.elem_type))
        for info in infos
        if info.type.tensor_type.elem_type
    }
    found = {}
    for node in model.graph.node:
        if node.op_type != op_type or node.domain or boundary(node) not in dtypes:
            continue
        operands = [constants.get(name) for name in node.input[1:]]
        if not operands or None in operands:
            continue
        values = [numpy_helper.to_array(tensor).reshape(-1) for tensor in operands]
        name = boundary(node)
        if dtypes[name].kind in "iu" and all(value.size == 1 for value in values):
            zero_point = int(values[1][0]) if len(values) > 1 else 0
            found.setdefault(name, LinearEncoding(float(values[0][0]), zero_point, dtypes[name]))
    return found


def input_dtypes(model: onnx.ModelProto) -> dict[str, np.dtype]:
    return {
        info.name: np.dtype(helper.tensor_dtype_to_np_dtype(info.type.tensor_type.elem_type))
        for info in model.graph.input
    }
