"""Writers of the ops between floats and the integers that stand for them.

A tensor of a fixed-point type holds integers q that stand for scale (q - zero point). Its encoding says
what the smallest of them stands for, or, where that is left at 0, an offset that is the zero point's
negative. ONNX has operators for these conversions, DequantizeLinear and QuantizeLinear, but no zero point
outside of the integers of the type: such conversions are written as arithmetic.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

import netforge
from netforge.onnx_export.element_types import FLOAT, FLOATS, INT8, INT16, INT32, UINT8, UINT16, numpy_type
from netforge.onnx_export.op_writer import OpWriter
from netforge.onnx_export.registry import writer

_FIRST_OPSET_OF_16_BITS = 21


@dataclass
class Encoding:
    scale: float
    zero_point: float


def encoding_of(op: OpWriter, tensor: netforge.IrTensor, kind: int) -> Encoding | None:
    """None for a tensor whose elements stand for themselves."""
    info = tensor.quantInfo
    if kind in FLOATS or int(info.encoding) == int(netforge.QuantEncodingKind.Undefined):
        return None
    if int(info.encoding) not in (
        int(netforge.QuantEncodingKind.ScaleOffset),
        int(netforge.QuantEncodingKind.BwScaleOffset),
    ):
        raise op.fail(f"the encoding of tensor '{tensor.name}' is none of one scale")
    found = info.scaleOffset
    if not found.scale:
        raise op.fail(f"the scale of tensor '{tensor.name}' is 0")
    if found.minimum or found.maximum:
        lowest = int(np.iinfo(numpy_type(kind)).min)
        return Encoding(found.scale, float(round(lowest - found.minimum / found.scale)))
    return Encoding(found.scale, -found.offset)


def _linear_zero_point(op: OpWriter, encoding: Encoding, kind: int) -> str | None:
    """The zero point as operand of a DequantizeLinear or QuantizeLinear; None where there is none such."""
    kinds = (INT8, UINT8, INT16, UINT16) if op.graph.opset >= _FIRST_OPSET_OF_16_BITS else (INT8, UINT8)
    limits = np.iinfo(numpy_type(kind))
    if kind not in kinds or not limits.min <= encoding.zero_point <= limits.max:
        return None
    return op.constant(int(encoding.zero_point), kind, "zero_point")


@writer("Dequantize")
def dequantize(op: OpWriter) -> None:
    kind = op.kind(op.x)
    if op.op.attributes.hasAttr("scale"):
        _dequantize_by_attributes(op, kind)
        return
    encoding = encoding_of(op, op.op.inputs[0], kind)
    op.result(op.x if encoding is None else _to_float(op, encoding))


def _dequantize_by_attributes(op: OpWriter, kind: int) -> None:
    scale = op.op.attributes.getStaticTensor("scale").numpy().reshape(-1)
    zero_point = np.array(op.integers("zero_point", [0] * len(scale)))
    per_axis = op.op.attributes.hasAttr("axis")
    shape = (-1,) if per_axis else ()
    names = [op.x, op.graph.constant(scale.reshape(shape).copy(), f"{op.op.name}_scale")]
    if zero_point.any():
        array = zero_point.reshape(shape).astype(numpy_type(kind))
        names.append(op.graph.constant(array, f"{op.op.name}_zero_point"))
    attributes = {"axis": op.axis(op.rank(op.x))} if per_axis else None
    op.result(op.node("DequantizeLinear", names, attributes, kind=FLOAT))


def _to_float(op: OpWriter, encoding: Encoding) -> str:
    zero_point = _linear_zero_point(op, encoding, op.kind(op.x))
    if zero_point is not None:
        scale = op.constant(encoding.scale, FLOAT, "scale")
        return op.node("DequantizeLinear", [op.x, scale, zero_point], kind=FLOAT)
    value = op.cast(op.x, FLOAT)
    if encoding.zero_point:
        value = op.node("Sub", [value, op.like(value, encoding.zero_point, "zero_point")])
    return op.node("Mul", [value, op.like(value, encoding.scale, "scale")])


@writer("Convert")
def convert(op: OpWriter) -> None:
    """From the encoding of the input to that of the output."""
    kind, out_kind = op.kind(op.x), op.out_kind()
    before = encoding_of(op, op.op.inputs[0], kind)
    after = encoding_of(op, op.op.outputs[0], out_kind)
    value = op.x if before is None else _to_float(op, before)
    if after is None:
        op.result(value)
        return
    value = op.cast(value, FLOAT)
    zero_point = _linear_zero_point(op, after, out_kind)
    if zero_point is not None:
        names = [value, op.like(value, after.scale, "scale"), zero_point]
        op.result(op.node("QuantizeLinear", names, kind=out_kind))
        return
    limits = np.iinfo(numpy_type(out_kind))
    value = op.node("Round", [op.node("Div", [value, op.like(value, after.scale, "scale")])])
    value = op.node("Add", [value, op.like(value, after.zero_point, "zero_point")])
    # The largest float below the bound: a bound itself may round up and over.
    highest = (
        float(limits.max)
        if out_kind not in (INT32,)
        else float(np.nextafter(np.float32(limits.max), np.float32(0)))
    )
    bounds = [op.like(value, float(limits.min), "lowest"), op.like(value, highest, "highest")]
    op.result(op.node("Clip", [value, *bounds]))
