"""From a loaded model to the list of nodes to convert, with types, constants and unique names."""

from __future__ import annotations

from collections.abc import Callable, Iterable
from dataclasses import dataclass, field

import onnx
from onnx import AttributeProto, helper

from netforge.onnx_import.account import ImportAccount
from netforge.onnx_import.branches import taken_branch
from netforge.onnx_import.errors import OnnxImportError
from netforge.onnx_import.folding import Folder, dense_constant
from netforge.onnx_import.inference import Inference, require_type, type_of_proto
from netforge.onnx_import.loading import LoadedModel, opset_versions
from netforge.onnx_import.random_weights import FillRoles
from netforge.onnx_import.values import Constant, ValueType, ir_type_name

_UNHOLDABLE = {
    AttributeProto.GRAPH: "subgraphs",
    AttributeProto.GRAPHS: "subgraphs",
    AttributeProto.SPARSE_TENSOR: "sparse tensors",
    AttributeProto.SPARSE_TENSORS: "sparse tensors",
    AttributeProto.TYPE_PROTO: "types",
    AttributeProto.TYPE_PROTOS: "types",
}


@dataclass
class Node:
    """One operator of the model. An absent input or output is an empty name, and none ends the list."""

    name: str
    op_type: str
    domain: str
    opset: int  # the model's version of the node's domain
    inputs: list[str]
    outputs: list[str]
    proto: onnx.NodeProto
    attributes: dict[str, object] = field(default_factory=dict)

    @property
    def label(self) -> str:
        return f"'{self.name}' ({self.op_type})"

    def input(self, position: int) -> str:
        """Name of the input, empty when the node has none at this position."""
        return self.inputs[position] if position < len(self.inputs) else ""

    def has_output(self, position: int) -> bool:
        return position < len(self.outputs) and bool(self.outputs[position])


@dataclass
class Model:
    """What the converters work on. `nodes` stand in execution order, all of them contribute to an output."""

    name: str
    inputs: list[str]
    outputs: list[str]
    nodes: list[Node]
    folded: list[Node]
    constants: dict[str, Constant]
    inference: Inference
    readers: dict[str, set[str]]  # value name -> names of its live readers; an output is read by ""

    def type_of(self, name: str) -> ValueType:
        return require_type(self.inference, name)


def prepare(
    loaded: LoadedModel,
    random_weights: int | None,
    account: ImportAccount,
    progress: Callable[[float], None],
) -> Model:
    """Names, folds and infers. Raises OnnxImportError for what the IR can't hold."""
    graph = loaded.proto.graph
    opsets = opset_versions(loaded.proto)
    constants = {tensor.name: loaded.constant(tensor) for tensor in graph.initializer}
    constants.update((sparse.values.name, dense_constant(sparse)) for sparse in graph.sparse_initializer)
    inference = Inference(loaded.proto, opsets, loaded.places)
    inputs = [info for info in graph.input if info.name not in constants]
    for info in inputs:
        found = type_of_proto(info.type, info.name)
        if found is None:
            raise OnnxImportError(f"graph input '{info.name}' has no shape, and the IR needs its rank")
        ir_type_name(found.elem_type)
        inference.set_type(info.name, found)
    for name, constant in constants.items():
        inference.set_type(name, _type_of_constant(constant))

    outputs = [info.name for info in graph.output]
    names = NodeNames(graph.node)
    nodes = [names.node(node, opsets) for node in graph.node]
    live = _live(nodes, outputs, constants)
    roles = FillRoles(graph) if random_weights is not None else None
    folding = Folder(constants, inference, opsets, roles, random_weights)
    unfolded: list[Node] = []
    folded: list[Node] = []
    waiting = list(reversed(live))
    while waiting:
        node = waiting.pop()
        try:
            if _is_decided(node, constants):
                inner, tensors = taken_branch(node.proto, bool(constants[node.inputs[0]].array()))
                for tensor in tensors:
                    constants[tensor.name] = Constant.from_proto(tensor, loaded.folder)
                    inference.set_type(tensor.name, _type_of_constant(constants[tensor.name]))
                folded.append(node)
                waiting.extend(names.node(proto, opsets) for proto in reversed(inner))
                continue
            _refuse_unholdable(node.proto)
            if _infer_and_fold(node.proto, inference, folding):
                folded.append(node)
                for name in filter(None, node.outputs):
                    inference.set_type(name, _type_of_constant(constants[name]))
            else:
                _decode_attributes(node)
                unfolded.append(node)
        except OnnxImportError as error:
            error.node = error.node or node.label
            raise
        if len(waiting) % 64 == 0:
            progress(1 - len(waiting) / len(live))

    # Folding makes nodes superfluous: whatever only a folded Shape asked for.
    kept = _live(unfolded, outputs, constants)
    kept_names = {node.name for node in kept} | {node.name for node in folded}
    account.folded_nodes.extend(node.name for node in folded)
    account.dropped_nodes.extend(node.name for node in nodes if node.name not in kept_names)
    return Model(
        graph.name,
        [info.name for info in inputs],
        outputs,
        kept,
        folded,
        constants,
        inference,
        _readers(kept, outputs),
    )


def _type_of_constant(constant: Constant) -> ValueType:
    return ValueType(constant.elem_type, constant.dims)


def _is_decided(node: Node, constants: dict[str, Constant]) -> bool:
    """Whether the node is an If whose condition is known."""
    return node.op_type == "If" and not node.domain and node.inputs[0] in constants


class NodeNames:
    """Gives every node a name of its own.

    A node without a name takes that of its first output; of equal names the later ones get a number.
    """

    def __init__(self, nodes: Iterable[onnx.NodeProto]) -> None:
        self._given = {node.name for node in nodes if node.name}
        self._used: set[str] = set()

    def node(self, proto: onnx.NodeProto, opsets: dict[str, int]) -> Node:
        base = proto.name or next(filter(None, proto.output), proto.op_type)
        name = base
        number = 0
        while name in self._used or (name != proto.name and name in self._given):
            number += 1
            name = f"{base}_{number}"
        self._used.add(name)
        domain = "" if proto.domain == "ai.onnx" else proto.domain
        inputs, outputs = _trimmed(proto.input), _trimmed(proto.output)
        return Node(name, proto.op_type, domain, opsets.get(domain, 1), inputs, outputs, proto)


def _trimmed(names: list[str]) -> list[str]:
    result = list(names)
    while result and not result[-1]:
        result.pop()
    return result


def _live(nodes: list[Node], outputs: list[str], constants: dict[str, Constant]) -> list[Node]:
    """The nodes on which an output depends, in their order."""
    needed = set(outputs)
    result = []
    for node in reversed(nodes):
        if any(name in needed and name not in constants for name in node.outputs):
            result.append(node)
            needed.update(filter(None, node.inputs))
            needed.update(_captured(node.proto))
    result.reverse()
    return result


def _captured(proto: onnx.NodeProto) -> set[str]:
    """Names that the node's subgraphs read, be they their own or the outer graph's."""
    found: set[str] = set()
    waiting = [attribute.g for attribute in proto.attribute if attribute.type == AttributeProto.GRAPH]
    while waiting:
        graph = waiting.pop()
        for node in graph.node:
            found.update(node.input)
            waiting.extend(
                attribute.g for attribute in node.attribute if attribute.type == AttributeProto.GRAPH
            )
        found.update(info.name for info in graph.output)
    return found


def _readers(nodes: list[Node], outputs: list[str]) -> dict[str, set[str]]:
    readers: dict[str, set[str]] = {name: {""} for name in outputs}
    for node in nodes:
        for name in filter(None, node.inputs):
            readers.setdefault(name, set()).add(node.name)
    return readers


def _infer_and_fold(proto: onnx.NodeProto, inference: Inference, folding: Folder) -> bool:
    """True when the outputs are constants now. Inference can be stricter than the evaluator."""
    try:
        inference.infer(proto, folding.constants)
    except OnnxImportError:
        if folding.fold(proto):
            return True
        raise
    return folding.fold(proto)


def _refuse_unholdable(proto: onnx.NodeProto) -> None:
    for attribute in proto.attribute:
        if attribute.type in _UNHOLDABLE and attribute.name != "sparse_value":
            raise OnnxImportError(
                f"attribute '{attribute.name}' holds {_UNHOLDABLE[attribute.type]}, which the IR can't hold"
            )


def _decode_attributes(node: Node) -> None:
    for attribute in node.proto.attribute:
        value = helper.get_attribute_value(attribute)
        try:
            if attribute.type == AttributeProto.STRING:
                value = value.decode("utf-8")
            elif attribute.type == AttributeProto.STRINGS:
                value = [text.decode("utf-8") for text in value]
        except UnicodeDecodeError as error:
            raise OnnxImportError(f"attribute '{attribute.name}' is no UTF-8 text") from error
        node.attributes[attribute.name] = value
