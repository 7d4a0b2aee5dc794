"""The table of converters, and the way of a node that none of them takes: the plain op."""

from __future__ import annotations

import json
from collections.abc import Callable

import numpy as np
from onnx import AttributeProto

from netforge.onnx_import.account import ImportAccount
from netforge.onnx_import.builder import Builder
from netforge.onnx_import.errors import NotTyped, OnnxImportError
from netforge.onnx_import.plan import Attribute
from netforge.onnx_import.preparation import Node
from netforge.onnx_import.values import Constant, ir_type_name

Converter = Callable[[Builder, Node], None]

_converters: dict[str, Converter] = {}

# Type strings that stand for ops of the catalogue, or that passes know: no plain op may bear one.
RESERVED_TYPES = frozenset((
    "Arg", "Batchnorm", "Cast", "ColorTransform", "Concat", "Conv2d", "Conv3d", "Convert",
    "CreateSparse", "CumulativeSum", "DepthToSpace", "DepthWiseConv2d", "Dequantize", "ElementWiseMux",
    "ElementWiseNeuron", "ElementWiseUnary", "Eltwise_Binary", "Eltwise_Ternary", "Eltwise_Unary",
    "Expand", "ExpandDims", "FullyConnected", "Gather", "GatherElements", "GatherNd", "Gelu",
    "GetSparseIndices", "GetSparseValues", "Gru", "HadamardTransform", "Identity", "InstanceNorm",
    "Inverse", "L2Norm", "LayerNorm", "LogSoftmax", "Lrn", "Lstm", "MatMul", "Mean", "Neuron", "Pack",
    "Pad", "Pool", "Pool3d", "Prelu", "Reduce", "ReduceL2", "Reshape", "Resize", "RmsNorm", "ScatterNd",
    "Softmax", "SpaceToDepth", "Split", "StridedSlice", "ThresholdedRelu", "Tile", "TopK", "Transpose",
    "TransposeConv2d", "TransposeConv3d", "constant", "input",
))  # fmt: skip


def converter(*op_types: str) -> Callable[[Converter], Converter]:
    """Enters a function as the converter of these operators of the default domain.

    A converter reads the node, raises NotTyped when the catalogue can't express it, and plans afterwards.
    """

    def enter(function: Converter) -> Converter:
        for op_type in op_types:
            assert op_type not in _converters, op_type
            _converters[op_type] = function
        return function

    return enter


def convert_node(builder: Builder, node: Node, account: ImportAccount) -> None:
    """Plans the ops of one node. Raises OnnxImportError for what the IR can't hold."""
    builder.node = node
    planned = len(builder.plan.ops)
    function = _converters.get(node.op_type) if not node.domain else None
    try:
        for name in node.outputs:
            if name in builder.model.readers:
                ir_type_name(builder.type_of(name).elem_type)
        if function is None:
            raise NotTyped("no op of the catalogue stands for this operator")
        contradicted = [name for name in node.outputs if builder.model.inference.is_contradicted(name)]
        if contradicted:
            raise NotTyped(f"'{contradicted[0]}' is declared with other sizes than follow from the inputs")
        function(builder, node)
    except NotTyped as reason:
        if any(not op.for_layout for op in builder.plan.ops[planned:]):
            raise AssertionError(
                f"converter of {node.label} planned ops before it refused: {reason}"
            ) from reason
        account.plain_reasons[node.name] = str(reason)
        plain_op(builder, node)
    except OnnxImportError as error:
        error.node = error.node or node.label
        raise
    except (ArithmeticError, LookupError, TypeError, ValueError) as error:
        # The model passed the check and still has something that no operator of its kind has.
        raise OnnxImportError(f"it can't be converted: {error!r}", node=node.label) from error


# Operators that later versions know under another name, with nothing else changed.
_RENAMED = {"Scatter": ("ScatterElements", 11)}


def plain_type(node: Node) -> str:
    """The ONNX name; with "Onnx" in front where the catalogue has another meaning for it, or the domain."""
    if node.domain:
        return f"{node.domain}.{node.op_type}"
    name, _ = _RENAMED.get(node.op_type, (node.op_type, 0))
    return f"Onnx{name}" if name in RESERVED_TYPES else name


def plain_op(builder: Builder, node: Node) -> None:
    """Plans the node under its own name with its own attributes, in the layout of the model."""
    inputs = [(position, name) for position, name in enumerate(node.inputs) if name]
    outputs = [(position, name) for position, name in enumerate(node.outputs) if name and builder.knows(name)]
    if not inputs:
        raise OnnxImportError("the IR can't hold an op without inputs", node=node.label)
    attributes = {name: _attribute(node, name) for name in node.attributes}
    _, oldest = _RENAMED.get(node.op_type, (node.op_type, 0)) if not node.domain else ("", 0)
    attributes["onnx_opset"] = np.uint32(max(node.opset, oldest))
    if node.domain:
        attributes["onnx_domain"] = node.domain
    for key, places in (("onnx_input_positions", inputs), ("onnx_output_positions", outputs)):
        if [position for position, _ in places] != list(range(len(places))):
            attributes[key] = np.array([position for position, _ in places], np.uint32)
    scalars = [position for position, name in inputs if builder.is_scalar_constant(name)]
    if scalars:
        attributes["onnx_scalar_inputs"] = np.array(scalars, np.uint32)
    builder.add(
        plain_type(node),
        [builder.get_operand(name) for _, name in inputs],
        [builder.output(node, position) for position, _ in outputs],
        attributes,
        plain=True,
    )


def _attribute(node: Node, name: str) -> Attribute:
    value = node.attributes[name]
    proto = next(attribute for attribute in node.proto.attribute if attribute.name == name)
    if proto.type == AttributeProto.FLOAT:
        return float(value)
    if proto.type == AttributeProto.INT:
        if -(1 << 31) <= value < 1 << 31:
            return np.int32(value)
        return np.array([value], np.int64)
    if proto.type == AttributeProto.STRING:
        return value
    if proto.type == AttributeProto.STRINGS:
        return json.dumps(value)
    if proto.type == AttributeProto.INTS:
        return np.array(value, np.int64)
    if proto.type == AttributeProto.FLOATS:
        return np.array(value, np.float32)
    if proto.type == AttributeProto.TENSOR:
        return Constant.from_proto(value, None).stored()
    raise OnnxImportError(
        f"attribute '{name}' of kind {AttributeProto.AttributeType.Name(proto.type).lower()} can't be held"
    )
