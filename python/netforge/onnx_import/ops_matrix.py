"""Converters of matrix products."""

from __future__ import annotations

import numpy as np

from netforge.onnx_import.builder import Builder
from netforge.onnx_import.errors import NotTyped
from netforge.onnx_import.layout import LAST
from netforge.onnx_import.ops_elementwise import ADD, MULTIPLY, add_binary, one_element
from netforge.onnx_import.preparation import Node
from netforge.onnx_import.registry import converter
from netforge.onnx_import.reshaping import add_reshape, reshape_target
from netforge.onnx_import.values import FLOAT_TYPES


@converter("MatMul")
def matmul(builder: Builder, node: Node) -> None:
    left, right = (builder.type_of(name) for name in node.inputs)
    out = builder.type_of(node.outputs[0])
    names = []
    if min(left.rank, right.rank) >= 2:
        builder.add("MatMul", [builder.get(name) for name in node.inputs], [builder.output(node)], _flags())
        return
    # A vector counts as a row on the left and as a column on the right; its axis leaves the result.
    matrix_dims = list(out.dims)
    if right.rank == 1:
        matrix_dims.append(1)
    if left.rank == 1:
        matrix_dims.insert(len(matrix_dims) - 1, 1)
    target = reshape_target(tuple(matrix_dims), out.dims)
    for name, kind, axis in ((node.inputs[0], left, 0), (node.inputs[1], right, 1)):
        if kind.rank > 1:
            names.append(builder.get(name))
            continue
        dims = (1, *kind.dims) if axis == 0 else (*kind.dims, 1)
        side = "left" if axis == 0 else "right"
        matrix = builder.temporary(f"{side}_matrix", kind.elem_type, dims)
        builder.add(
            "ExpandDims",
            [builder.get(name)],
            [matrix],
            {"axes": np.array([axis], np.uint32)},
            f"{side}_matrix",
        )
        names.append(matrix)
    product = builder.temporary("product", out.elem_type, tuple(matrix_dims))
    builder.add("MatMul", names, [product], _flags())
    add_reshape(builder, product, builder.output(node), target, "vector")


def _flags(left: bool = False, right: bool = False) -> dict:
    return {"transpose_in0": left, "transpose_in1": right}


@converter("Gemm")
def gemm(builder: Builder, node: Node) -> None:
    attributes = node.attributes
    alpha, beta = float(attributes.get("alpha", 1.0)), float(attributes.get("beta", 1.0))
    transposed_a, transposed_b = bool(attributes.get("transA", 0)), bool(attributes.get("transB", 0))
    out = builder.type_of(node.outputs[0])
    if out.elem_type not in FLOAT_TYPES:
        raise NotTyped("the product is of integers")
    bias = node.input(2) if beta != 0.0 else ""
    plain_product = alpha == 1.0 and not transposed_a and builder.is_constant(node.inputs[1])
    if plain_product and (not bias or (beta == 1.0 and _is_feature_bias(builder, bias, out.dims[1]))):
        _fully_connected(builder, node, bias, transposed_b)
        return
    _matrix_product(builder, node, bias, alpha, beta, _flags(transposed_a, transposed_b))


def _is_feature_bias(builder: Builder, name: str, features: object) -> bool:
    """Whether the bias is a constant with one value per output feature."""
    kind = builder.type_of(name)
    return builder.is_constant(name) and kind.dims in ((features,), (1, features))


def _fully_connected(builder: Builder, node: Node, bias: str, transposed: bool) -> None:
    """Weights stand as [outputs, inputs] under the spatial-first order, else as [inputs, outputs]."""
    outputs_first = builder.op_layout == LAST
    weight = node.inputs[1]
    if transposed == outputs_first:
        held = builder.get(weight)
    else:
        held = builder.get_tensor_permuted(builder.get(weight), (1, 0), "NONTRIVIAL", "transposed")
    names = [builder.get(node.inputs[0]), held]
    if bias:
        names.append(builder.get_with_dims(bias, (builder.type_of(bias).dims[-1],)))
    attributes = {"keep_dims": False, "transpose_a": False, "transpose_b": not outputs_first}
    builder.add("FullyConnected", names, [builder.output(node)], attributes)


def _matrix_product(builder: Builder, node: Node, bias: str, alpha: float, beta: float, flags: dict) -> None:
    out = builder.type_of(node.outputs[0])
    steps = ["product"] + ["scaled"] * (alpha != 1.0) + ["sum"] * bool(bias)
    addend = builder.get_operand(bias) if bias else ""
    names = [builder.get(name) for name in node.inputs[:2]]

    def target(step: str) -> tuple[str, str]:
        """The last step writes the output and bears the node's name."""
        if step == steps[-1]:
            return builder.output(node), ""
        return builder.temporary(step, out.elem_type, out.dims), step

    result, suffix = target("product")
    builder.add("MatMul", names, [result], flags, suffix)
    if alpha != 1.0:
        factor = builder.new_constant("alpha", *one_element(alpha, out.elem_type))
        product = result
        result, suffix = target("scaled")
        add_binary(builder, MULTIPLY, product, factor, result, suffix)
    if bias:
        if beta != 1.0:
            factor = builder.new_constant("beta", *one_element(beta, out.elem_type))
            dims = builder.plan.tensors[addend].dims or (1,)
            scaled = builder.temporary("scaled_bias", out.elem_type, dims)
            add_binary(builder, MULTIPLY, addend, factor, scaled, "scaled_bias")
            addend = scaled
        product = result
        result, suffix = target("sum")
        add_binary(builder, ADD, product, addend, result, suffix)
