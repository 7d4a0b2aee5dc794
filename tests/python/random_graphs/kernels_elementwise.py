"""Kernels of the ops that work element by element, and of normalisations."""

from __future__ import annotations

import math

import numpy as np

from random_graphs.evaluator import Inconsistent, Node, kernel, total

_erf = np.vectorize(math.erf, otypes=[np.float64])


def sigmoid(x: np.ndarray) -> np.ndarray:
    return 1.0 / (1.0 + np.exp(-x))


def gelu(x: np.ndarray) -> np.ndarray:
    return 0.5 * x * (1.0 + _erf(x * math.sqrt(0.5)))


UNARY = {
    0: np.abs, 1: np.arcsin, 2: np.arctan, 3: np.ceil, 4: np.cos, 5: np.exp, 6: np.floor, 7: np.log,
    8: np.negative, 9: lambda x: (x == 0) * 1.0, 11: np.round, 12: lambda x: 1.0 / np.sqrt(x), 13: np.sign,
    14: np.sin, 15: np.sqrt,
}  # fmt: skip
BINARY = {
    0: np.add, 1: np.logical_and, 2: np.divide, 3: np.equal, 4: np.floor_divide, 5: np.fmod, 6: np.greater,
    7: np.greater_equal, 8: np.less, 9: np.less_equal, 10: np.maximum, 11: np.minimum, 12: np.mod,
    13: np.multiply, 14: np.not_equal, 15: np.logical_or, 16: np.power, 18: np.subtract, 19: np.logical_xor,
}  # fmt: skip


@kernel("Eltwise_Unary", "ElementWiseUnary")
def unary(node: Node, x: np.ndarray) -> np.ndarray:
    if not node.has("operation"):
        if node.value("eltwise_type", "") != "ElementWiseSoftplus":
            raise Inconsistent("no operation")
        return softplus(node, x)
    return UNARY[int(node.value("operation"))](x)  # type: ignore[no-any-return]


@kernel("Eltwise_Binary")
def binary(node: Node, x: np.ndarray, y: np.ndarray) -> np.ndarray:
    return np.asarray(BINARY[int(node.value("operation"))](x, y), dtype=np.float64)


@kernel("Eltwise_Ternary")
def select(node: Node, condition: np.ndarray, then: np.ndarray, otherwise: np.ndarray) -> np.ndarray:
    return np.where(condition != 0, then, otherwise)


@kernel("ElementWiseMux")
def mux(node: Node, selector: np.ndarray, *choices: np.ndarray) -> np.ndarray:
    arrays = np.broadcast_arrays(selector, *choices)
    result = arrays[-1]
    for number in reversed(range(len(choices) - 1)):
        result = np.where(arrays[0] == number, arrays[number + 1], result)
    return result


@kernel("Mean")
def mean(node: Node, *inputs: np.ndarray) -> np.ndarray:
    result = inputs[0]
    for x in inputs[1:]:
        result = result + x
    return result / len(inputs)


def softplus(node: Node, x: np.ndarray) -> np.ndarray:
    beta, threshold = float(node.value("beta", 1.0)), float(node.value("threshold", -1.0))
    smooth = np.logaddexp(0.0, beta * x) / beta
    return np.where(beta * x > threshold, x, smooth) if threshold > 0 else smooth


def hard_sigmoid(x: np.ndarray, alpha: float = 0.2, beta: float = 0.5) -> np.ndarray:
    return np.clip(alpha * x + beta, 0.0, 1.0)


@kernel("ElementWiseNeuron", "Neuron")
def neuron(node: Node, x: np.ndarray) -> np.ndarray:
    """Of a sparse tensor the rows that aren't specified stay 0."""
    y = _activated(node, x)
    if node.op.inputs[0].getSparseParams().layout == 0:
        y = y * (x != 0).any(axis=-1, keepdims=True)
    return y


def _activated(node: Node, x: np.ndarray) -> np.ndarray:
    operation = int(node.value("operation"))
    alpha, beta = (float(node.value(name, 1.0)) for name in ("alpha", "beta"))
    if operation == 0:
        return np.where(x > 0, x, alpha * np.expm1(np.minimum(x, 0.0)))
    if operation == 2:
        return hard_sigmoid(x, float(node.value("alpha", 0.2)), float(node.value("beta", 0.5)))
    if operation == 5:
        return np.clip(x, float(node.value("min_value")), float(node.value("max_value")))
    if operation == 7:
        return softplus(node, x)
    if operation == 8:
        return alpha * np.tanh(beta * x)
    if operation == 3:
        return x * hard_sigmoid(x, 1.0 / 6.0)
    return {1: gelu, 4: lambda v: np.maximum(v, 0.0), 6: sigmoid}[operation](x)


@kernel("Gelu")
def gelu_op(node: Node, x: np.ndarray) -> np.ndarray:
    return gelu(x)


@kernel("ThresholdedRelu")
def thresholded_relu(node: Node, x: np.ndarray) -> np.ndarray:
    return np.where(x > float(node.value("alpha")), x, 0.0)


@kernel("Prelu")
def prelu(node: Node, x: np.ndarray, slope: np.ndarray) -> np.ndarray:
    return np.where(x < 0, slope * x, x)


@kernel("Cast", "Identity")
def cast(node: Node, x: np.ndarray) -> np.ndarray:
    output = node.op.outputs[0]
    name = output.dataType.name
    if "BOOL" in name:
        return (x != 0) * 1.0
    if "INT" not in name or "POINT" in name:
        return x
    bits = int(name.rsplit("_", 1)[1])
    whole = np.trunc(np.nan_to_num(x, posinf=0.0, neginf=0.0))
    wrapped = np.mod(whole, 2.0**bits)
    negative = (wrapped >= 2.0 ** (bits - 1)) & ("UINT" not in name)
    return np.where(negative, wrapped - 2.0**bits, wrapped)


@kernel("Convert", "Dequantize")
def convert(node: Node, x: np.ndarray) -> np.ndarray:
    return x


@kernel("Relu")
def relu(node: Node, x: np.ndarray) -> np.ndarray:
    return np.maximum(x, 0.0)


@kernel("Batchnorm")
def batchnorm(node: Node, x: np.ndarray, gamma: np.ndarray, beta: np.ndarray | None = None) -> np.ndarray:
    shape = [1] * x.ndim
    shape[-1 if node.channels_last or x.ndim < 2 else 1] = -1
    scaled = x * gamma.reshape(shape)
    return scaled if beta is None else scaled + beta.reshape(shape)


def _over(node: Node, x: np.ndarray) -> tuple[list[int], list[int]]:
    """The normalised axes, and the dims with 1 in their places."""
    axes = node.axes(x.ndim)
    return axes, [1 if axis in axes else size for axis, size in enumerate(x.shape)]


def _parameter(value: np.ndarray, x: np.ndarray, axes: list[int]) -> np.ndarray:
    """Laid out over the normalised dims in the order of `axes`."""
    if value.size == 1:
        return value.reshape([1] * x.ndim)
    shaped = value.reshape([x.shape[axis] for axis in axes])
    ascending = shaped.transpose(np.argsort(axes))
    return ascending.reshape([size if axis in axes else 1 for axis, size in enumerate(x.shape)])


@kernel("LayerNorm", "RmsNorm")
def norm(node: Node, x: np.ndarray, *parameters: np.ndarray) -> np.ndarray:
    axes, kept = _over(node, x)
    count = math.prod(x.shape[axis] for axis in axes)
    centred = x - total(x, axes).reshape(kept) / count if node.type == "LayerNorm" else x
    variance = total(centred * centred, axes).reshape(kept) / count
    y = centred / np.sqrt(variance + float(node.value("epsilon", 0.001)))
    if len(parameters) > 0 and parameters[0].size:
        y = y * _parameter(parameters[0], x, axes)
    return y + _parameter(parameters[1], x, axes) if len(parameters) > 1 and parameters[1].size else y


@kernel("L2Norm")
def l2_norm(node: Node, x: np.ndarray) -> np.ndarray:
    axes = node.axes(x.ndim) if node.has("axes") else [node.axis(x.ndim, default=-1)]
    kept = [1 if axis in axes else size for axis, size in enumerate(x.shape)]
    return x / np.sqrt(total(x * x, axes).reshape(kept) + float(node.value("epsilon", 1e-12)))


@kernel("InstanceNorm")
def instance_norm(node: Node, x: np.ndarray, gamma: np.ndarray, beta: np.ndarray) -> np.ndarray:
    x = node.channels_first(x)
    axes = list(range(2, x.ndim))
    kept = [*x.shape[:2], *[1] * len(axes)]
    count = math.prod(x.shape[2:])
    centred = x - total(x, axes).reshape(kept) / count
    variance = total(centred * centred, axes).reshape(kept) / count
    deviation = np.sqrt(variance + float(node.value("epsilon", 1e-5)))
    shape = [1, -1, *[1] * len(axes)]
    return node.from_channels_first(centred / deviation * gamma.reshape(shape) + beta.reshape(shape))


@kernel("Softmax", "LogSoftmax")
def softmax(node: Node, x: np.ndarray) -> np.ndarray:
    axis = node.axis(x.ndim, default=-1)
    scaled = x * float(node.value("beta", 1.0))
    raised = np.exp(scaled - scaled.max(axis=axis, keepdims=True))
    kept = [1 if place == axis else size for place, size in enumerate(x.shape)]
    shares = raised / total(raised, [axis]).reshape(kept)
    return np.log(shares) if node.type == "LogSoftmax" else shares
