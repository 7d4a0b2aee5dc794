"""Converters of the operators that work element by element."""

from __future__ import annotations

import numpy as np
from onnx import TensorProto, helper

from netforge.onnx_import.builder import Builder
from netforge.onnx_import.errors import NotTyped
from netforge.onnx_import.layout import LAST, SOURCE, SPATIAL_FORMATS, TO_LAST
from netforge.onnx_import.preparation import Node
from netforge.onnx_import.registry import converter
from netforge.onnx_import.values import FLOAT_TYPES, UNSIGNED_TYPES, Dims

# Codes of "operation".
ADD, AND, DIVIDE, EQUAL, FLOOR_DIVIDE, FMOD = 0, 1, 2, 3, 4, 5
GREATER, GREATER_EQUAL, LESS, LESS_EQUAL, MAXIMUM, MINIMUM = 6, 7, 8, 9, 10, 11
MOD, MULTIPLY, OR, POWER, SUBTRACT, XOR = 12, 13, 15, 16, 18, 19

UNARY = {
    "Abs": 0, "Asin": 1, "Atan": 2, "Ceil": 3, "Cos": 4, "Exp": 5, "Floor": 6, "Log": 7, "Neg": 8, "Not": 9,
    "Round": 11, "Sign": 13, "Sin": 14, "Sqrt": 15,
}  # fmt: skip
SQUARE_ROOT = UNARY["Sqrt"]

_BINARY = {
    "Add": ADD, "And": AND, "Equal": EQUAL, "Greater": GREATER, "GreaterOrEqual": GREATER_EQUAL, "Less": LESS,
    "LessOrEqual": LESS_EQUAL, "Mul": MULTIPLY, "Or": OR, "Sub": SUBTRACT, "Xor": XOR,
}  # fmt: skip
_VARIADIC = {"Max": MAXIMUM, "Min": MINIMUM, "Sum": ADD}

ELU, GELU, HARD_SIGMOID, HARD_SWISH, RELU, RELU_MIN_MAX, SIGMOID, SOFTPLUS, TANH = range(9)
_NEURON = {"HardSwish": HARD_SWISH, "Relu": RELU, "Sigmoid": SIGMOID, "Softplus": SOFTPLUS, "Tanh": TANH}


@converter(*UNARY)
def unary(builder: Builder, node: Node) -> None:
    add_unary(builder, UNARY[node.op_type], builder.get(node.inputs[0]), builder.output(node))


def add_unary(builder: Builder, operation: int, operand: str, output: str, suffix: str = "") -> None:
    builder.add("Eltwise_Unary", [operand], [output], {"operation": np.uint32(operation)}, suffix)


def add_binary(
    builder: Builder, operation: int, left: str, right: str, output: str, suffix: str = ""
) -> None:
    builder.add("Eltwise_Binary", [left, right], [output], {"operation": np.uint32(operation)}, suffix)


@converter(*_NEURON)
def neuron(builder: Builder, node: Node) -> None:
    _add_neuron(builder, node, {"operation": np.uint32(_NEURON[node.op_type])})


@converter("Elu")
def elu(builder: Builder, node: Node) -> None:
    _add_neuron(
        builder, node, {"operation": np.uint32(ELU), "alpha": float(node.attributes.get("alpha", 1.0))}
    )


@converter("HardSigmoid")
def hard_sigmoid(builder: Builder, node: Node) -> None:
    alpha, beta = float(node.attributes.get("alpha", 0.2)), float(node.attributes.get("beta", 0.5))
    _add_neuron(builder, node, {"operation": np.uint32(HARD_SIGMOID), "alpha": alpha, "beta": beta})


@converter("Gelu")
def gelu(builder: Builder, node: Node) -> None:
    if node.attributes.get("approximate", "none") != "none":
        raise NotTyped("the catalogue's GELU is the exact one")
    _add_neuron(builder, node, {"operation": np.uint32(GELU)})


@converter("ThresholdedRelu")
def thresholded_relu(builder: Builder, node: Node) -> None:
    _require_float32(builder, node)
    alpha = float(node.attributes.get("alpha", 1.0))
    builder.add("ThresholdedRelu", [builder.get(node.inputs[0])], [builder.output(node)], {"alpha": alpha})


def _add_neuron(builder: Builder, node: Node, attributes: dict) -> None:
    builder.add("ElementWiseNeuron", [builder.get(node.inputs[0])], [builder.output(node)], attributes)


def _require_float32(builder: Builder, node: Node) -> None:
    """Some ops are taken apart later with constants of 32-bit floats."""
    if builder.type_of(node.inputs[0]).elem_type != TensorProto.FLOAT:
        raise NotTyped("the catalogue's op is for 32-bit floats")


@converter(*_BINARY)
def binary(builder: Builder, node: Node) -> None:
    _no_legacy_broadcast(node)
    left, right = operands(builder, node.inputs[:2])
    add_binary(builder, _BINARY[node.op_type], left, right, builder.output(node))


@converter("Div")
def divide(builder: Builder, node: Node) -> None:
    _no_legacy_broadcast(node)
    elem_type = builder.type_of(node.inputs[0]).elem_type
    if elem_type in FLOAT_TYPES:
        operation = DIVIDE
    elif elem_type in UNSIGNED_TYPES:
        operation = FLOOR_DIVIDE
    else:
        raise NotTyped(
            "division of signed integers cuts towards zero, and the catalogue has no such division"
        )
    left, right = operands(builder, node.inputs[:2])
    add_binary(builder, operation, left, right, builder.output(node))


@converter("Mod")
def modulo(builder: Builder, node: Node) -> None:
    operation = FMOD if node.attributes.get("fmod", 0) else MOD
    left, right = operands(builder, node.inputs[:2])
    add_binary(builder, operation, left, right, builder.output(node))


@converter("Pow")
def power(builder: Builder, node: Node) -> None:
    _no_legacy_broadcast(node)
    types = {builder.type_of(name).elem_type for name in node.inputs}
    if len(types) > 1:
        raise NotTyped("base and exponent are of different types")
    left, right = operands(builder, node.inputs)
    add_binary(builder, POWER, left, right, builder.output(node))


@converter("Reciprocal")
def reciprocal(builder: Builder, node: Node) -> None:
    kind = builder.type_of(node.inputs[0])
    operand = builder.get(node.inputs[0])
    if not kind.dims:
        raise NotTyped("the operand is of rank 0")
    one = builder.new_constant("one", *one_element(1.0, kind.elem_type))
    add_binary(builder, DIVIDE, one, operand, builder.output(node))


@converter(*_VARIADIC)
def variadic(builder: Builder, node: Node) -> None:
    if len(node.inputs) == 1:
        builder.add("Identity", [builder.get(node.inputs[0])], [builder.output(node)])
        return
    names = operands(builder, node.inputs)
    chain(builder, node, _VARIADIC[node.op_type], names, builder.output(node))


@converter("Mean")
def mean(builder: Builder, node: Node) -> None:
    out = builder.type_of(node.outputs[0])
    if out.elem_type not in FLOAT_TYPES:
        raise NotTyped("the mean is for floats")
    same_dims = all(builder.type_of(name).dims == out.dims for name in node.inputs)
    if same_dims and out.elem_type == TensorProto.FLOAT and out.dims:
        builder.add("Mean", [builder.get(name) for name in node.inputs], [builder.output(node)])
        return
    names = operands(builder, node.inputs)
    total = builder.temporary("sum", out.elem_type, out.dims)
    count = builder.new_constant("count", *one_element(len(names), out.elem_type))
    if not out.dims:
        raise NotTyped("the operands are of rank 0")
    if len(names) == 1:
        total = names[0]
    else:
        chain(builder, node, ADD, names, total, "sum")
    add_binary(builder, DIVIDE, total, count, builder.output(node))


def chain(
    builder: Builder, node: Node, operation: int, names: list[str], output: str, suffix: str = ""
) -> None:
    """Folds operands from the left; the last op writes the output and has the node's name, or the suffix."""
    elem_type = builder.plan.tensors[names[0]].elem_type
    running = names[0]
    dims = builder.plan.tensors[running].dims
    for index, name in enumerate(names[1:], 1):
        last = index == len(names) - 1
        dims = broadcast(dims, builder.plan.tensors[name].dims)
        result = output if last else builder.temporary(f"partial_{index}", elem_type, dims)
        add_binary(builder, operation, running, name, result, suffix if last else f"partial_{index}")
        running = result


def broadcast(left: Dims, right: Dims) -> Dims:
    """Dims of a broadcast. Two unlike symbols, which may turn out equal, or one of them 1, refuse."""
    rank = max(len(left), len(right))
    left = (1,) * (rank - len(left)) + tuple(left)
    right = (1,) * (rank - len(right)) + tuple(right)
    result = []
    for a, b in zip(left, right, strict=True):
        if a == b or b == 1:
            result.append(a)
        elif a == 1:
            result.append(b)
        elif isinstance(a, int) != isinstance(b, int):
            result.append(a if isinstance(a, int) else b)
        else:
            raise NotTyped(f"operands of dims {list(left)} and {list(right)} can't be joined for certain")
    return tuple(result)


@converter("Where")
def where(builder: Builder, node: Node) -> None:
    names = operands(builder, node.inputs)
    builder.add("Eltwise_Ternary", names, [builder.output(node)], {"eltwise_type": "ElementWiseSelect"})


@converter("Clip")
def clip(builder: Builder, node: Node) -> None:
    kind = builder.type_of(node.inputs[0])
    if node.opset < 11:
        low = node.attributes.get("min")
        high = node.attributes.get("max")
        bounds = [None if b is None else np.array(b, np.float32) for b in (low, high)]
    else:
        bounds = [builder.constant(node.input(position)) for position in (1, 2)]
    given = [(node.opset < 11 and bounds[i] is not None) or bool(node.input(i + 1)) for i in (0, 1)]
    exact = kind.elem_type in (TensorProto.FLOAT, TensorProto.FLOAT16)
    if all(given) and all(b is not None for b in bounds) and exact:
        low, high = (float(b.reshape(-1)[0]) for b in bounds)
        if low <= high and np.isfinite([low, high]).all():
            operation = np.uint32(RELU_MIN_MAX)
            _add_neuron(builder, node, {"operation": operation, "min_value": low, "max_value": high})
            return
    steps = [
        (operation, position, suffix)
        for operation, position, suffix in ((MAXIMUM, 0, "min"), (MINIMUM, 1, "max"))
        if given[position]
    ]
    if not steps:
        builder.add("Identity", [builder.get(node.inputs[0])], [builder.output(node)])
        return
    if not kind.dims:
        raise NotTyped("the operand is of rank 0")
    running = builder.get(node.inputs[0])
    for operation, position, suffix in steps:
        if node.opset < 11:
            bound = builder.new_constant(suffix, *one_element(float(bounds[position]), kind.elem_type))
        else:
            bound = builder.get_operand(node.inputs[position + 1])
        last = (operation, position, suffix) == steps[-1]
        result = builder.output(node) if last else builder.temporary(suffix, kind.elem_type, kind.dims)
        add_binary(builder, operation, running, bound, result, "" if last else suffix)
        running = result


@converter("Cast", "CastLike")
def cast(builder: Builder, node: Node) -> None:
    """The target type is the type of the output tensor."""
    builder.add("Cast", [builder.get(node.inputs[0])], [builder.output(node)])


@converter("PRelu")
def prelu(builder: Builder, node: Node) -> None:
    data, slope = (builder.type_of(name) for name in node.inputs)
    if not data.dims or slope.rank > data.rank:
        raise NotTyped("the slope is of higher rank than the data, or both are of rank 0")
    if slope.elem_type != data.elem_type:
        raise NotTyped("slope and data are of different types")
    layout = SOURCE
    if not builder.is_constant(node.inputs[1]):
        if slope.rank != data.rank:
            raise NotTyped("the slope is no constant and of lower rank than the data")
        coefficients = builder.get(node.inputs[1])
    elif all(size == 1 for size in slope.dims):
        coefficients = builder.get_with_dims(node.inputs[1], (1,))
    else:
        # One value per channel moves with the channels.
        layout = builder.op_layout if data.rank in SPATIAL_FORMATS else SOURCE
        coefficients = builder.get_with_dims(node.inputs[1], (1,) * (data.rank - slope.rank) + slope.dims)
        if layout == LAST:
            after = SPATIAL_FORMATS[data.rank][1]
            coefficients = builder.get_tensor_permuted(coefficients, TO_LAST[data.rank], after)
    data_name = builder.get(node.inputs[0], layout)
    builder.add("Prelu", [data_name, coefficients], [builder.output(node, 0, layout)])


@converter("LeakyRelu")
def leaky_relu(builder: Builder, node: Node) -> None:
    kind = builder.type_of(node.inputs[0])
    if not kind.dims:
        raise NotTyped("the operand is of rank 0")
    alpha = float(node.attributes.get("alpha", 0.01))
    operand = builder.get(node.inputs[0])
    slope = builder.new_constant("slope", *one_element(alpha, kind.elem_type))
    builder.add("Prelu", [operand, slope], [builder.output(node)])


def operands(builder: Builder, values: list[str]) -> list[str]:
    """Tensors of the operands of a broadcasting op; refuses when only constants of rank 0 are left."""
    ranks = [builder.type_of(value).rank for value in values]
    if max(ranks) == 0 and any(builder.is_constant(value) for value in values):
        raise NotTyped("the operands are of rank 0")
    return [builder.get_operand(value) for value in values]


def one_element(value: float, elem_type: int) -> tuple[np.ndarray, int]:
    """A constant of dims [1] in an element type, with that type."""
    dtype = helper.tensor_dtype_to_np_dtype(elem_type)
    return np.array([value]).astype(dtype), elem_type


def _no_legacy_broadcast(node: Node) -> None:
    if "axis" in node.attributes or node.attributes.get("broadcast"):
        raise NotTyped("it broadcasts along an axis of its own")
