"""Element types: what the IR's data types are in ONNX, and which of them the runtime's kernels take."""

from __future__ import annotations

import numpy as np
from onnx import TensorProto, helper

import netforge
from netforge.onnx_export.errors import OnnxExportError

FLOAT, DOUBLE, HALF, BFLOAT = TensorProto.FLOAT, TensorProto.DOUBLE, TensorProto.FLOAT16, TensorProto.BFLOAT16
INT8, INT16, INT32, INT64 = TensorProto.INT8, TensorProto.INT16, TensorProto.INT32, TensorProto.INT64
UINT8, UINT16, UINT32, UINT64 = TensorProto.UINT8, TensorProto.UINT16, TensorProto.UINT32, TensorProto.UINT64
BOOL = TensorProto.BOOL

FLOATS = frozenset((FLOAT, DOUBLE, HALF, BFLOAT))
SIGNED = frozenset((INT8, INT16, INT32, INT64))
UNSIGNED = frozenset((UINT8, UINT16, UINT32, UINT64))
INTEGERS = SIGNED | UNSIGNED

# Fixed-point tensors hold integers; what number one stands for is told by the tensor's encoding.
_BY_NAME = {
    "FLOAT_32": FLOAT, "FLOAT_64": DOUBLE, "FLOAT_16": HALF, "BFLOAT_16": BFLOAT,
    "INT_8": INT8, "INT_16": INT16, "INT_32": INT32, "INT_64": INT64,
    "UINT_8": UINT8, "UINT_16": UINT16, "UINT_32": UINT32, "UINT_64": UINT64, "BOOL_8": BOOL,
    "SFIXED_POINT_8": INT8, "SFIXED_POINT_16": INT16, "SFIXED_POINT_32": INT32,
    "UFIXED_POINT_8": UINT8, "UFIXED_POINT_16": UINT16, "UFIXED_POINT_32": UINT32,
    "INT_4": TensorProto.INT4, "UINT_4": TensorProto.UINT4,
}  # fmt: skip
_BY_NAME.update(
    (f"{name[:-1]}_2", getattr(TensorProto, name)) for name in ("INT2", "UINT2") if hasattr(TensorProto, name)
)
_ELEMENT_TYPES = {
    int(getattr(netforge.DataType, f"ORLO_DATATYPE_{name}")): kind for name, kind in _BY_NAME.items()
}


def element_type(data_type: netforge.DataType) -> int:
    """ONNX element type of an IR data type; raises OnnxExportError for a type that has none."""
    found = _ELEMENT_TYPES.get(int(data_type))
    if found is None:
        raise OnnxExportError(f"tensors of data type {netforge.getDataTypeName(data_type)} can't be exported")
    return found


def numpy_type(kind: int) -> np.dtype:
    return np.dtype(helper.tensor_dtype_to_np_dtype(kind))


# Which types the runtime computes an operator in on a CPU. What isn't listed is computed in the next larger
# type that is, between Casts. Operators without an entry take what ONNX lets them take.
_ALL_FLOATS = frozenset((FLOAT, DOUBLE, HALF))
_SHORT_FLOATS = frozenset((FLOAT, HALF))
_WIDE = frozenset((INT32, INT64))
_ARITHMETIC = _ALL_FLOATS | INTEGERS
_KERNELS: dict[str, frozenset[int]] = {
    **dict.fromkeys(
        ("Asin", "Atan", "Cos", "Elu", "Gelu", "HardSigmoid", "HardSwish", "Softplus", "Erf",
         "ThresholdedRelu", "Mean", "PRelu", "Conv", "ConvTranspose", "AveragePool", "LpPool", "LRN",
         "InstanceNormalization"),
        _SHORT_FLOATS,
    ),
    **dict.fromkeys(
        ("Ceil", "Exp", "Floor", "Log", "Round", "Reciprocal", "Sin", "Sqrt", "Sigmoid", "Tanh", "Softmax",
         "Gemm", "LogSoftmax", "LpNormalization", "SpaceToDepth", "LayerNormalization"),
        _ALL_FLOATS,
    ),
    **dict.fromkeys(("Abs", "Add", "Div", "Mod", "Mul", "Sub", "Sign"), _ARITHMETIC),
    **dict.fromkeys(("Greater", "GreaterOrEqual", "Less", "LessOrEqual"), _ARITHMETIC),
    **dict.fromkeys(
        ("ReduceSum", "ReduceMean", "ReduceProd", "ReduceL2", "CumSum", "TopK"), _ALL_FLOATS | _WIDE
    ),
    **dict.fromkeys(("ReduceMax", "ReduceMin", "ArgMax", "ArgMin"), _ALL_FLOATS | _WIDE | {INT8, UINT8}),
    **dict.fromkeys(("Max", "Min", "MatMul"), _ALL_FLOATS | _WIDE | {UINT32, UINT64}),
    "Equal": _ARITHMETIC | {BOOL},
    "Clip": _ALL_FLOATS | _WIDE | {INT8, UINT8, UINT32, UINT64},
    "DepthToSpace": _ALL_FLOATS | {UINT8},
    "Expand": _ARITHMETIC | {BOOL},
    "MaxPool": _ALL_FLOATS | {INT8, UINT8},
    "Neg": _ALL_FLOATS | SIGNED,
    "Pad": (_ARITHMETIC | {BOOL}) - {INT16, UINT16},
    "Pow": _ALL_FLOATS | _WIDE,
    "Relu": _ALL_FLOATS | {INT8, INT32},
    "Resize": _SHORT_FLOATS | {INT8, UINT8, INT32},
    "Tile": _ARITHMETIC | {BOOL},
    "Where": frozenset((FLOAT, UINT8, INT32, INT64, BOOL, DOUBLE)),
    "ScatterND": _ARITHMETIC | {BOOL},
}  # fmt: skip
_LARGER = {
    BOOL: (UINT8, INT32, INT64, FLOAT), INT8: (INT32, INT64, FLOAT), UINT8: (INT32, INT64, FLOAT),
    INT16: (INT32, INT64, FLOAT), UINT16: (INT32, INT64, FLOAT), INT32: (INT64, DOUBLE, FLOAT),
    UINT32: (INT64, DOUBLE, FLOAT), INT64: (DOUBLE, FLOAT), UINT64: (INT64, DOUBLE, FLOAT),
    BFLOAT: (FLOAT,), HALF: (FLOAT,), FLOAT: (DOUBLE,), DOUBLE: (FLOAT,),
}  # fmt: skip


def computing_type(op_type: str, kind: int) -> int:
    """The type in which the runtime computes an operator for operands of type `kind`."""
    kernels = _KERNELS.get(op_type)
    if kernels is None or kind in kernels:
        return kind
    return next((larger for larger in _LARGER.get(kind, ()) if larger in kernels), kind)
