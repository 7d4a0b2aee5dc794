"""Converters of normalisations and of softmax."""

from __future__ import annotations

import numpy as np
from onnx import TensorProto, helper

from netforge.onnx_import.builder import Builder
from netforge.onnx_import.errors import NotTyped
from netforge.onnx_import.layout import SOURCE, SPATIAL_FORMATS
from netforge.onnx_import.ops_elementwise import (
    ADD,
    DIVIDE,
    MULTIPLY,
    SQUARE_ROOT,
    SUBTRACT,
    add_binary,
    add_unary,
    one_element,
)
from netforge.onnx_import.preparation import Node
from netforge.onnx_import.registry import converter
from netforge.onnx_import.reshaping import add_reshape, reshape_target
from netforge.onnx_import.values import FLOAT_TYPES


@converter("BatchNormalization")
def batch_normalization(builder: Builder, node: Node) -> None:
    """y = gamma * x + beta per channel, gamma = scale / sqrt(var + epsilon), beta = bias - mean * gamma."""
    kind = builder.type_of(node.inputs[0])
    if node.attributes.get("training_mode", 0) or any(
        builder.is_read(node, i) for i in range(1, len(node.outputs))
    ):
        raise NotTyped("it is in training mode")
    if node.opset < 9 and not node.attributes.get("spatial", 1):
        raise NotTyped("it normalises each place by itself")
    if kind.rank < 2 or kind.elem_type not in FLOAT_TYPES:
        raise NotTyped("the data have no channel axis")
    types = {builder.type_of(name).elem_type for name in node.inputs}
    if len(types) > 1:
        raise NotTyped("data and parameters are of different types")
    epsilon = float(node.attributes.get("epsilon", 1e-5))
    layout = builder.op_layout if kind.rank in SPATIAL_FORMATS else SOURCE
    if kind.rank > 5:
        raise NotTyped("the channel axis of tensors of this rank depends on the layout")
    parameters = [builder.constant(name) for name in node.inputs[1:5]]
    if all(values is not None for values in parameters):
        scale, bias, mean, variance = (np.asarray(values).astype(np.float64) for values in parameters)
        factor = scale / np.sqrt(variance + epsilon)
        dtype = helper.tensor_dtype_to_np_dtype(kind.elem_type)
        gamma = builder.new_constant("gamma", factor.astype(dtype), kind.elem_type)
        beta = builder.new_constant("beta", (bias - mean * factor).astype(dtype), kind.elem_type)
    else:
        gamma, beta = _computed_parameters(builder, node, epsilon, kind.elem_type)
    names = [builder.get(node.inputs[0], layout), gamma, beta]
    builder.add("Batchnorm", names, [builder.output(node, 0, layout)])


def _computed_parameters(builder: Builder, node: Node, epsilon: float, elem_type: int) -> tuple[str, str]:
    scale, bias, mean, variance = (builder.get(name) for name in node.inputs[1:5])
    dims = builder.type_of(node.inputs[1]).dims

    def step(suffix: str) -> str:
        return builder.temporary(suffix, elem_type, dims)

    shifted, deviation, gamma, offset, beta = map(step, ("shifted", "deviation", "gamma", "offset", "beta"))
    small = builder.new_constant("epsilon", *one_element(epsilon, elem_type))
    add_binary(builder, ADD, variance, small, shifted, "shifted")
    add_unary(builder, SQUARE_ROOT, shifted, deviation, "deviation")
    add_binary(builder, DIVIDE, scale, deviation, gamma, "gamma")
    add_binary(builder, MULTIPLY, mean, gamma, offset, "offset")
    add_binary(builder, SUBTRACT, bias, offset, beta, "beta")
    return gamma, beta


@converter("InstanceNormalization")
def instance_normalization(builder: Builder, node: Node) -> None:
    kind = builder.type_of(node.inputs[0])
    if kind.rank not in SPATIAL_FORMATS:
        raise NotTyped("the data don't have one to three spatial axes")
    layout = builder.op_layout
    epsilon = float(node.attributes.get("epsilon", 1e-5))
    names = [builder.get(node.inputs[0], layout), *(builder.get(name) for name in node.inputs[1:3])]
    builder.add("InstanceNorm", names, [builder.output(node, 0, layout)], {"epsilon": epsilon})


@converter("LRN")
def local_response_normalization(builder: Builder, node: Node) -> None:
    kind = builder.type_of(node.inputs[0])
    if kind.rank not in SPATIAL_FORMATS:
        raise NotTyped("the data don't have one to three spatial axes")
    attributes = {
        "size": np.uint32(int(node.attributes["size"])),
        "alpha": float(node.attributes.get("alpha", 1e-4)),
        "beta": float(node.attributes.get("beta", 0.75)),
        "bias": float(node.attributes.get("bias", 1.0)),
    }
    layout = builder.op_layout
    builder.add("Lrn", [builder.get(node.inputs[0], layout)], [builder.output(node, 0, layout)], attributes)


@converter("LayerNormalization", "RMSNormalization")
def layer_normalization(builder: Builder, node: Node) -> None:
    kind = builder.type_of(node.inputs[0])
    if any(builder.is_read(node, position) for position in range(1, len(node.outputs))):
        raise NotTyped("its mean or deviation is read")
    if node.attributes.get("stash_type", 1) != TensorProto.FLOAT or kind.elem_type == TensorProto.DOUBLE:
        raise NotTyped("it computes in another type than 32-bit floats")
    axis = int(node.attributes.get("axis", -1))
    axis += kind.rank if axis < 0 else 0
    normalised = kind.dims[axis:]
    names = []
    for name in filter(None, node.inputs[1:3]):
        dims = builder.type_of(name).dims
        if builder.type_of(name).elem_type != kind.elem_type:
            raise NotTyped("data and parameters are of different types")
        if dims != normalised:
            raise NotTyped("scale or bias doesn't have the dims of the normalised axes")
        names.append(name)
    attributes = {
        "axes": np.arange(axis, kind.rank, dtype=np.uint32),
        "epsilon": float(node.attributes.get("epsilon", 1e-5)),
    }
    type_name = "LayerNorm" if node.op_type == "LayerNormalization" else "RmsNorm"
    builder.add(
        type_name,
        [builder.get(name) for name in (node.inputs[0], *names)],
        [builder.output(node)],
        attributes,
    )


@converter("LpNormalization")
def lp_normalization(builder: Builder, node: Node) -> None:
    kind = builder.type_of(node.inputs[0])
    if int(node.attributes.get("p", 2)) != 2:
        raise NotTyped("the catalogue normalises by the Euclidean norm")
    axis = int(node.attributes.get("axis", -1)) % kind.rank
    builder.add("L2Norm", [builder.get(node.inputs[0])], [builder.output(node)], {"axis": np.uint32(axis)})


@converter("Softmax", "LogSoftmax")
def softmax(builder: Builder, node: Node) -> None:
    kind = builder.type_of(node.inputs[0])
    if not kind.rank:
        raise NotTyped("the operand is of rank 0")
    axis = int(node.attributes.get("axis", -1 if node.opset >= 13 else 1))
    axis += kind.rank if axis < 0 else 0
    held = node.inputs[0]
    if node.opset >= 13 or axis == kind.rank - 1 or all(size == 1 for size in kind.dims[axis + 1 :]):
        attributes = {"axis": np.uint32(axis), "beta": 1.0}
        builder.add(node.op_type, [builder.get(held)], [builder.output(node)], attributes)
        return
    # Before version 13 all axes from this one on count as one.
    if not kind.is_static:
        raise NotTyped("axes of unknown size count as one")
    flat = (int(np.prod(kind.dims[:axis])), int(np.prod(kind.dims[axis:])))
    into, back = reshape_target(kind.dims, flat), reshape_target(flat, kind.dims)
    before = builder.temporary("flat", kind.elem_type, flat)
    after = builder.temporary("flat_result", kind.elem_type, flat)
    add_reshape(builder, builder.get(held), before, into, "flat")
    builder.add(node.op_type, [before], [after], {"axis": np.uint32(1), "beta": 1.0})
    add_reshape(builder, after, builder.output(node), back, "unflat")
