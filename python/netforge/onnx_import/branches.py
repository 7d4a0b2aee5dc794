"""Puts the branch that a constant condition takes in the place of an If."""

from __future__ import annotations

import onnx
from onnx import AttributeProto

from netforge.onnx_import.errors import OnnxImportError


def taken_branch(
    node: onnx.NodeProto, condition: bool
) -> tuple[list[onnx.NodeProto], list[onnx.TensorProto]]:
    """Nodes and initializers of the branch, their own values named after the node's first output.

    The last nodes hand the branch's results to the node's outputs.
    """
    wanted = "then_branch" if condition else "else_branch"
    branch = next((attribute.g for attribute in node.attribute if attribute.name == wanted), None)
    if branch is None or len(branch.output) != len(node.output):
        raise OnnxImportError(f"the {wanted} doesn't fit the node's outputs")
    if branch.sparse_initializer:
        raise OnnxImportError(f"the {wanted} holds sparse tensors")
    prefix = f"{node.output[0]}/"
    own = {tensor.name for tensor in branch.initializer}
    own.update(name for inner in branch.node for name in inner.output if name)
    renamed = {name: prefix + name for name in own}

    initializers = []
    for tensor in branch.initializer:
        copy = onnx.TensorProto()
        copy.CopyFrom(tensor)
        copy.name = renamed[tensor.name]
        initializers.append(copy)
    nodes = [_renamed(inner, renamed, prefix) for inner in branch.node]
    for result, output in zip(branch.output, node.output, strict=True):
        if output:
            source = renamed.get(result.name, result.name)
            nodes.append(onnx.helper.make_node("Identity", [source], [output], f"{prefix}{result.name}"))
    return nodes, initializers


def _renamed(node: onnx.NodeProto, renamed: dict[str, str], prefix: str) -> onnx.NodeProto:
    result = onnx.NodeProto()
    result.CopyFrom(node)
    if result.name:
        result.name = prefix + result.name
    _rename(result, renamed)
    return result


def _rename(node: onnx.NodeProto, renamed: dict[str, str]) -> None:
    for names in (node.input, node.output):
        for place, name in enumerate(names):
            names[place] = renamed.get(name, name)
    for attribute in node.attribute:
        graphs = [attribute.g] if attribute.type == AttributeProto.GRAPH else list(attribute.graphs)
        for graph in graphs:
            for inner in graph.node:
                _rename(inner, renamed)
            for result in graph.output:
                result.name = renamed.get(result.name, result.name)
