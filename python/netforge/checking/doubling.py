"""A model in double precision: its floats become doubles wherever operators allow."""

from __future__ import annotations

import numpy as np
import onnx
from onnx import AttributeProto, TensorProto, defs, helper, numpy_helper

FLOATS = (TensorProto.FLOAT, TensorProto.FLOAT16, TensorProto.BFLOAT16)
_TYPE_ATTRIBUTES = {"to", "dtype", "output_dtype"}


def doubled(model: onnx.ModelProto) -> onnx.ModelProto | None:
    """The same model with all floats as doubles; None where that can't be told, as with subgraphs.

    An input that an operator takes as 32-bit floats only, such as the scales of a Resize, is cast in front.
    `model` has its constants inside.
    """
    if model.functions or any(_has_graph(node) for node in model.graph.node):
        return None
    kinds = _kinds(model)
    if kinds is None:
        return None
    opsets = {entry.domain: entry.version for entry in model.opset_import}
    result = onnx.ModelProto()
    result.CopyFrom(model)
    graph = result.graph
    for info in (*graph.input, *graph.output):
        if info.type.tensor_type.elem_type in FLOATS:
            info.type.tensor_type.elem_type = TensorProto.DOUBLE
    del graph.value_info[:]
    for index, tensor in enumerate(graph.initializer):
        if tensor.data_type in FLOATS:
            graph.initializer[index].CopyFrom(_doubled_tensor(tensor))
    del graph.node[:]
    for node in model.graph.node:
        graph.node.extend(_doubled_node(node, kinds, opsets))
    return result


def _has_graph(node: onnx.NodeProto) -> bool:
    return any(
        attribute.type in (AttributeProto.GRAPH, AttributeProto.GRAPHS) for attribute in node.attribute
    )


def _kinds(model: onnx.ModelProto) -> dict[str, int] | None:
    """Element types of all values of the given model."""
    bare = onnx.ModelProto()
    bare.CopyFrom(model)
    try:
        inferred = onnx.shape_inference.infer_shapes(bare).graph
    except Exception:
        return None
    kinds = {tensor.name: tensor.data_type for tensor in inferred.initializer}
    for info in (*inferred.input, *inferred.value_info, *inferred.output):
        kinds[info.name] = info.type.tensor_type.elem_type
    names = {name for node in model.graph.node for name in node.output if name}
    return kinds if names <= kinds.keys() else None


def _doubled_tensor(tensor: TensorProto) -> TensorProto:
    return numpy_helper.from_array(numpy_helper.to_array(tensor).astype(np.float64), tensor.name)


def _doubled_node(
    node: onnx.NodeProto, kinds: dict[str, int], opsets: dict[str, int]
) -> list[onnx.NodeProto]:
    changed = onnx.NodeProto()
    changed.CopyFrom(node)
    schema = _schema(node, opsets)
    keeps = schema is None or not _doubles_fit(schema, node, kinds)
    before, after = [], []
    if not keeps:
        for attribute in changed.attribute:
            if attribute.type == AttributeProto.TENSOR and attribute.t.data_type in FLOATS:
                attribute.t.CopyFrom(_doubled_tensor(attribute.t))
            elif attribute.name in _TYPE_ATTRIBUTES and attribute.i in FLOATS:
                attribute.i = TensorProto.DOUBLE
        if node.op_type == "Constant":
            _double_constant(changed)
        if node.op_type == "ConstantOfShape" and not node.attribute:
            changed.attribute.append(helper.make_attribute("value", numpy_helper.from_array(np.zeros(1))))
    for position, name in enumerate(node.input):
        if name and kinds.get(name) in FLOATS and (keeps or not _takes_double(schema, position)):
            changed.input[position] = f"{name}__single_{node.output[0]}_{position}"
            before.append(helper.make_node("Cast", [name], [changed.input[position]], to=kinds[name]))
    if keeps:
        for position, name in enumerate(node.output):
            if name and kinds.get(name) in FLOATS:
                changed.output[position] = f"{name}__single"
                after.append(
                    helper.make_node("Cast", [changed.output[position]], [name], to=TensorProto.DOUBLE)
                )
    return [*before, changed, *after]


def _schema(node: onnx.NodeProto, opsets: dict[str, int]) -> defs.OpSchema | None:
    domain = "" if node.domain == "ai.onnx" else node.domain
    try:
        return defs.get_schema(node.op_type, opsets.get(domain, opsets.get("ai.onnx", 1)), domain)
    except defs.SchemaError:
        return None


def _allowed(schema: defs.OpSchema, type_str: str) -> set[str]:
    for constraint in schema.type_constraints:
        if constraint.type_param_str == type_str:
            return set(constraint.allowed_type_strs)
    return {type_str}


def _formal(formals: list, position: int) -> object:
    return formals[min(position, len(formals) - 1)]


def _takes_double(schema: defs.OpSchema, position: int) -> bool:
    return "tensor(double)" in _allowed(schema, _formal(list(schema.inputs), position).type_str)


def _doubles_fit(schema: defs.OpSchema, node: onnx.NodeProto, kinds: dict[str, int]) -> bool:
    """Whether every float output may be a double."""
    return all(
        "tensor(double)" in _allowed(schema, _formal(list(schema.outputs), position).type_str)
        for position, name in enumerate(node.output)
        if name and kinds.get(name) in FLOATS
    )


def _double_constant(node: onnx.NodeProto) -> None:
    for attribute in list(node.attribute):
        if attribute.name in ("value_float", "value_floats"):
            values = np.array(helper.get_attribute_value(attribute), np.float64)
            node.attribute.remove(attribute)
            node.attribute.append(helper.make_attribute("value", numpy_helper.from_array(values)))
