"""Writers of the ops that work element by element."""

from __future__ import annotations

import math
from collections.abc import Callable, Sequence

import numpy as np

from netforge.onnx_export.element_types import BOOL, FLOATS, INT32, INT64, INTEGERS, UNSIGNED, numpy_type
from netforge.onnx_export.op_writer import OpWriter
from netforge.onnx_export.registry import writer
from netforge.onnx_export.sparse_form import carry_common_places, finish_at_places, is_sparse

_UNARY = {
    0: "Abs", 1: "Asin", 2: "Atan", 3: "Ceil", 4: "Cos", 5: "Exp", 6: "Floor", 7: "Log", 8: "Neg", 9: "Not",
    11: "Round", 13: "Sign", 14: "Sin", 15: "Sqrt",
}  # fmt: skip
_RSQRT = 12
_UNARY_NAMES = {
    "ElementWiseAbs": 0, "ElementWiseAsin": 1, "ElementWiseAtan": 2, "ElementWiseCeil": 3,
    "ElementWiseCos": 4, "ElementWiseExp": 5, "ElementWiseFloor": 6, "ElementWiseLog": 7,
    "ElementWiseNeg": 8, "ElementWiseNot": 9, "ElementWiseRound": 11, "ElementWiseRsqrt": _RSQRT,
    "ElementWiseSign": 13, "ElementWiseSin": 14, "ElementWiseSquareRoot": 15,
}  # fmt: skip
# On whole numbers these change nothing.
_ROUNDING = frozenset((3, 6, 11))


def operation_of(op: OpWriter, names: dict[str, int], named: str) -> int:
    """The code of "operation", or the one that the older attribute names by a string."""
    if op.op.attributes.hasAttr("operation"):
        return int(op.attribute("operation"))
    name = str(op.attribute(named))
    if name not in names:
        raise op.fail(f"{named} is '{name}'")
    return names[name]


@writer("Eltwise_Unary", "ElementWiseUnary")
def unary(op: OpWriter) -> None:
    if op.attribute("eltwise_type", "") == "ElementWiseSoftplus":
        op.result(softplus(op, op.x))
        return
    operation = operation_of(op, _UNARY_NAMES, "eltwise_type")
    x = op.x
    if operation == 9:
        op.result(op.node("Not", [op.as_bool(x)], kind=BOOL))
        return
    if op.kind(x) == BOOL:
        x = op.cast(x, INT32)
    if operation == 8 and op.kind(x) in UNSIGNED:
        x = op.cast(x, INT64)
    if operation in _ROUNDING and op.kind(x) in INTEGERS:
        op.result(x)
    elif operation == _RSQRT:
        op.result(op.node("Reciprocal", [op.node("Sqrt", [op.require_float(x)])]))
    elif operation in _UNARY:
        exact = _UNARY[operation] in ("Abs", "Neg", "Sign")
        op.result(op.node(_UNARY[operation], [x if exact else op.require_float(x)]))
    else:
        raise op.fail(f"operation {operation} isn't known")


ADD, AND, DIVIDE, EQUAL, FLOOR_DIVIDE, FMOD = range(6)
MOD, NOT_EQUAL = 12, 14
_LOGICAL = {AND: "And", 15: "Or", 19: "Xor"}
_COMPARING = {
    EQUAL: "Equal",
    6: "Greater",
    7: "GreaterOrEqual",
    8: "Less",
    9: "LessOrEqual",
    NOT_EQUAL: "Equal",
}
_ARITHMETIC = {ADD: "Add", DIVIDE: "Div", 10: "Max", 11: "Min", 13: "Mul", 16: "Pow", 18: "Sub"}
_BINARY_NAMES = {
    "ElementWiseAdd": ADD, "ElementWiseAnd": AND, "ElementWiseDivide": DIVIDE, "ElementWiseEqual": EQUAL,
    "ElementWiseFloorDiv": FLOOR_DIVIDE, "ElementWiseFmod": FMOD, "ElementWiseGreater": 6,
    "ElementWiseGreaterEqual": 7, "ElementWiseLess": 8, "ElementWiseLessEqual": 9, "ElementWiseMaximum": 10,
    "ElementWiseMinimum": 11, "ElementWiseMod": MOD, "ElementWiseMultiply": 13,
    "ElementWiseNotEqual": NOT_EQUAL,
    "ElementWiseOr": 15, "ElementWisePower": 16, "ElementWiseSubtract": 18, "ElementWiseXor": 19,
}  # fmt: skip


@writer("Eltwise_Binary")
def binary(op: OpWriter) -> None:
    operation = operation_of(op, _BINARY_NAMES, "eltwise_type")
    if operation in _LOGICAL:
        op.result(op.node(_LOGICAL[operation], [op.as_bool(name) for name in op.inputs[:2]], kind=BOOL))
        return
    left, right = same_kind(op, op.inputs[:2], keep_bool=operation in (EQUAL, NOT_EQUAL))
    if operation in _COMPARING:
        compared = op.node(_COMPARING[operation], [left, right], kind=BOOL)
        op.result(op.node("Not", [compared]) if operation == NOT_EQUAL else compared)
    elif operation in _ARITHMETIC:
        op.result(op.node(_ARITHMETIC[operation], [left, right]))
        carry_common_places(op)
    elif operation == FLOOR_DIVIDE:
        op.result(_floor_divide(op, left, right))
    elif operation == FMOD:
        op.result(op.node("Mod", [left, right], {"fmod": 1}))
    elif operation == MOD:
        op.result(_modulo(op, left, right))
    else:
        raise op.fail(f"operation {operation} isn't known")


def same_kind(op: OpWriter, values: Sequence[str], keep_bool: bool = False) -> list[str]:
    """Operands in one type that holds the values of all; bools count as the numbers 0 and 1."""
    kinds = {op.kind(value) for value in values}
    if len(kinds) > 1:
        common = np.result_type(*(numpy_type(kind) for kind in sorted(kinds)))
        target = next((kind for kind in (*FLOATS, *INTEGERS) if numpy_type(kind) == common), INT64)
        kinds = {target}
    (kind,) = kinds
    if kind == BOOL and not keep_bool:
        kind = INT32
    return [op.cast(value, kind) for value in values]


def _floor_divide(op: OpWriter, left: str, right: str) -> str:
    if op.kind(left) in FLOATS:
        return op.node("Floor", [op.node("Div", [left, right])])
    if op.kind(left) in UNSIGNED:
        return op.node("Div", [left, right])
    # Taking the remainder of the divisor's sign away leaves a quotient without remainder.
    rest = op.node("Mod", [left, right])
    return op.node("Div", [op.node("Sub", [left, rest]), right])


def _modulo(op: OpWriter, left: str, right: str) -> str:
    if op.kind(left) not in FLOATS:
        return op.node("Mod", [left, right])
    # The remainder has the dividend's sign; where that isn't the divisor's, one divisor more brings it over.
    rest = op.node("Mod", [left, right], {"fmod": 1})
    zero = op.like(right, 0.0, "zero")
    signs = [op.node("Less", [value, zero], kind=BOOL) for value in (rest, right)]
    moved = op.node("And", [op.node("Xor", signs), op.as_bool(rest)])
    return select(op, moved, op.node("Add", [rest, right]), rest)


@writer("Eltwise_Ternary")
def ternary(op: OpWriter) -> None:
    if op.attribute("eltwise_type") != "ElementWiseSelect":
        raise op.fail(f"eltwise_type is '{op.attribute('eltwise_type')}'")
    then, otherwise = same_kind(op, op.inputs[1:3], keep_bool=True)
    op.result(select(op, op.as_bool(op.x), then, otherwise))


def select(op: OpWriter, condition: str, then: str, otherwise: str) -> str:
    """Where, whose kernels are chosen by the type of the operands and not by that of the condition."""
    from netforge.onnx_export.element_types import computing_type

    kind = op.kind(then)
    computing = computing_type("Where", kind)
    names = [condition, op.cast(then, computing), op.cast(otherwise, computing)]
    return op.cast(op.node("Where", names, kind=computing), kind)


@writer("ElementWiseMux")
def mux(op: OpWriter) -> None:
    """Input 0 says, element by element, which of the others is taken."""
    if len(op.inputs) < 2:
        raise op.fail("it has nothing to choose from")
    selector = op.cast(op.x, INT32) if op.kind(op.x) == BOOL else op.x
    choices = same_kind(op, op.inputs[1:], keep_bool=True)
    result = choices[-1]
    for number in reversed(range(len(choices) - 1)):
        chosen = op.node("Equal", [selector, op.like(selector, number, "choice")], kind=BOOL)
        result = select(op, chosen, choices[number], result)
    if len(choices) == 1 and op.out_dims() != op.dims(result):
        result = op.node("Expand", [result, op.node("Shape", [selector], kind=INT64)])
    op.result(result)


@writer("Mean")
def mean(op: OpWriter) -> None:
    names = [op.require_float(name) for name in same_kind(op, op.inputs)]
    op.result(op.node("Mean", names))


_NEURON_NAMES = {"Elu": 0, "Tanh": 8, "ReluMinMax": 5, "Relu": 4, "Sigmoid": 6, "HardSwish": 3}


def _tanh(op: OpWriter, x: str) -> str:
    """alpha * tanh(beta * x); both are 1 where they aren't given."""
    return scaled(
        op,
        op.node("Tanh", [scaled(op, x, float(op.attribute("beta", 1.0)))]),
        float(op.attribute("alpha", 1.0)),
    )


def scaled(op: OpWriter, x: str, factor: float) -> str:
    return x if factor == 1.0 else op.node("Mul", [x, op.like(x, factor, "factor")])


def softplus(op: OpWriter, x: str) -> str:
    """log(1 + exp(beta x)) / beta, and x itself where beta x is above a positive threshold."""
    beta, threshold = float(op.attribute("beta", 1.0)), float(op.attribute("threshold", -1.0))
    argument = scaled(op, x, beta)
    smooth = op.node("Softplus", [argument])
    if beta != 1.0:
        smooth = op.node("Div", [smooth, op.like(x, beta, "beta")])
    if threshold <= 0.0:
        return smooth
    linear = op.node("Greater", [argument, op.like(x, threshold, "threshold")], kind=BOOL)
    return select(op, linear, x, smooth)


def gelu(op: OpWriter, x: str) -> str:
    if op.graph.opset >= 20:
        return op.node("Gelu", [x])
    error = op.node("Erf", [op.node("Mul", [x, op.like(x, math.sqrt(0.5), "root")])])
    half = op.node("Mul", [x, op.like(x, 0.5, "half")])
    return op.node("Mul", [half, op.node("Add", [error, op.like(x, 1.0, "one")])])


def _clip(op: OpWriter, x: str) -> str:
    bounds = [op.like(x, float(op.attribute(name)), name) for name in ("min_value", "max_value")]
    return op.node("Clip", [x, *bounds])


_NEURONS: dict[int, Callable[[OpWriter, str], str]] = {
    0: lambda op, x: op.node("Elu", [x], {"alpha": float(op.attribute("alpha", 1.0))}),
    1: gelu,
    2: lambda op, x: op.node(
        "HardSigmoid",
        [x],
        {"alpha": float(op.attribute("alpha", 0.2)), "beta": float(op.attribute("beta", 0.5))},
    ),
    3: lambda op, x: op.node("HardSwish", [x]),
    4: lambda op, x: op.node("Relu", [x]),
    5: _clip,
    6: lambda op, x: op.node("Sigmoid", [x]),
    7: softplus,
    8: _tanh,
}


@writer("ElementWiseNeuron", "Neuron")
def neuron(op: OpWriter) -> None:
    operation = operation_of(op, _NEURON_NAMES, "neuron_type")
    if operation not in _NEURONS:
        raise op.fail(f"operation {operation} isn't known")
    x = op.x
    if op.kind(x) not in FLOATS and (operation != 4 or op.kind(x) in UNSIGNED | {BOOL}):
        x = op.require_float(x)
    y = _NEURONS[operation](op, x)
    if is_sparse(op):
        finish_at_places(op, y)
    else:
        op.result(y)


@writer("Gelu")
def gelu_op(op: OpWriter) -> None:
    op.result(gelu(op, op.require_float(op.x)))


@writer("ThresholdedRelu")
def thresholded_relu(op: OpWriter) -> None:
    op.result(op.node("ThresholdedRelu", [op.require_float(op.x)], {"alpha": float(op.attribute("alpha"))}))


@writer("Prelu")
def prelu(op: OpWriter) -> None:
    x = op.require_float(op.x)
    op.result(op.node("PRelu", [x, op.cast(op.input(1), op.kind(x))]))


@writer("Cast", "Identity")
def cast(op: OpWriter) -> None:
    """The target type is that of the output tensor, which `result` casts to."""
    op.result(op.x)
