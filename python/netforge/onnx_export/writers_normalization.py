"""Writers of normalisations and of softmax."""

from __future__ import annotations

import math

from netforge.onnx_export.op_writer import OpWriter
from netforge.onnx_export.registry import writer
from netforge.onnx_export.writers_elementwise import scaled


@writer("Batchnorm")
def batchnorm(op: OpWriter) -> None:
    """gamma x + beta per channel."""
    x = op.require_float(op.x)
    rank = op.rank(x)
    after = rank - 1 - op.channel_axis(rank)

    def per_channel(value: str) -> str:
        value = op.cast(value, op.kind(x))
        dims = op.dims(value)
        return op.reshape(value, (math.prod(op.static_dims(value)), *([1] * after))) if after or len(dims) != 1 else value

    y = op.node("Mul", [x, per_channel(op.input(1))]) if op.input(1) else x
    op.result(op.node("Add", [y, per_channel(op.input(2))]) if op.input(2) else y)


def _axes(op: OpWriter, rank: int) -> list[int]:
    axes = [axis + rank if axis < 0 else axis for axis in op.integers("axes")]
    if not axes or sorted(set(axes)) != sorted(axes) or not all(0 <= axis < rank for axis in axes):
        raise op.fail(f"axes {axes} are none of a tensor of rank {rank}")
    return axes


@writer("LayerNorm", "RmsNorm")
def layer_norm(op: OpWriter) -> None:
    """Over "axes", which scale and offset follow in the given order.

    Other axes than the last ones, in their order, are moved there and back.
    """
    x = op.require_float(op.x)
    rank = op.rank(x)
    axes = _axes(op, rank)
    first = rank - len(axes)
    rest = [axis for axis in range(rank) if axis not in axes]
    order = [*rest, *axes]
    dims = op.dims(x)
    x = op.transpose(x, order)
    normalised = tuple(dims[axis] for axis in axes)
    if op.op.type == "LayerNorm":
        y = _layer_norm(op, x, first, normalised)
    else:
        y = _rms_norm(op, x, list(range(first, rank)), normalised)
    op.result(op.transpose(y, [order.index(axis) for axis in range(rank)]) if order != sorted(order) else y)


def _parameter(op: OpWriter, position: int, kind: int, normalised: tuple) -> str:
    value = op.cast(op.input(position), kind)
    dims = op.dims(value)
    if dims == normalised or None in dims or math.prod(dims) == 1:
        return value
    if None in normalised or math.prod(dims) != math.prod(normalised):
        return value
    return op.reshape(value, normalised)


def _layer_norm(op: OpWriter, x: str, first: int, normalised: tuple) -> str:
    epsilon, kind = float(op.attribute("epsilon", 0.001)), op.kind(x)
    parameters = [_parameter(op, position, kind, normalised) for position in (1, 2) if op.input(position)]
    if op.input(1) and all(op.dims(value) == normalised for value in parameters):
        return op.node("LayerNormalization", [x, *parameters], {"axis": first, "epsilon": epsilon})
    axes = list(range(first, first + len(normalised)))
    centred = op.node("Sub", [x, _mean(op, x, axes)])
    y = _normalised(op, centred, axes, epsilon)
    return _affine(op, y, normalised)


def _rms_norm(op: OpWriter, x: str, axes: list[int], normalised: tuple) -> str:
    return _affine(op, _normalised(op, x, axes, float(op.attribute("epsilon", 0.001))), normalised)


def _mean(op: OpWriter, x: str, axes: list[int]) -> str:
    return op.node("ReduceMean", [x, op.shape(axes, "axes")], {"keepdims": 1})


def _normalised(op: OpWriter, x: str, axes: list[int], epsilon: float) -> str:
    """x over the root of its mean square."""
    variance = _mean(op, op.node("Mul", [x, x]), axes)
    deviation = op.node("Sqrt", [op.node("Add", [variance, op.like(x, epsilon, "epsilon")])])
    return op.node("Div", [x, deviation])


def _affine(op: OpWriter, y: str, normalised: tuple) -> str:
    kind = op.kind(y)
    if op.input(1):
        y = op.node("Mul", [y, _parameter(op, 1, kind, normalised)])
    if op.input(2):
        y = op.node("Add", [y, _parameter(op, 2, kind, normalised)])
    return y


@writer("L2Norm")
def l2_norm(op: OpWriter) -> None:
    x = op.require_float(op.x)
    if op.op.attributes.hasAttr("axes"):
        axes = _axes(op, op.rank(x))
        if len(axes) > 1:
            norm = op.node("ReduceL2", [x, op.shape(axes, "axes")], {"keepdims": 1})
            op.result(op.node("Div", [x, norm]))
            return
        axis = axes[0]
    else:
        axis = op.axis(op.rank(x))
    op.result(op.node("LpNormalization", [x], {"axis": axis, "p": 2}))


@writer("InstanceNorm")
def instance_norm(op: OpWriter) -> None:
    x = op.channel_first(op.require_float(op.x))
    parameters = [op.cast(op.input(position), op.kind(x)) for position in (1, 2)]
    epsilon = {"epsilon": float(op.attribute("epsilon", 1e-5))}
    op.channel_first_result(op.node("InstanceNormalization", [x, *parameters], epsilon))


@writer("Lrn")
def local_response_norm(op: OpWriter) -> None:
    attributes = {name: float(op.attribute(name)) for name in ("alpha", "beta", "bias")}
    x = op.channel_first(op.require_float(op.x))
    op.channel_first_result(op.node("LRN", [x], {"size": int(op.attribute("size")), **attributes}))


@writer("Softmax", "LogSoftmax")
def softmax(op: OpWriter) -> None:
    x = op.require_float(op.x)
    axis = op.axis(op.rank(x), default=-1)
    op.result(op.node(op.op.type, [scaled(op, x, float(op.attribute("beta", 1.0)))], {"axis": axis}))


