"""Builds the IrGraph that a plan describes, with its trace records."""

from __future__ import annotations

from collections import defaultdict
from collections.abc import Iterator
from contextlib import contextmanager

import numpy as np

import netforge
from netforge.onnx_import.errors import OnnxImportError
from netforge.onnx_import.plan import Attribute, Plan, PlannedOp, PlannedTensor
from netforge.onnx_import.preparation import Model, Node
from netforge.onnx_import.values import Dims, ir_type_name

# Attributes that the target runtime gets in another way than as ordinary parameters (class 1).
_CLASSES = {
    "packageName": 2,
    "padding_size_strategy": 2,
    "bias_op_name": 2,
    "output_size": 2,
    "eltwise_type": 2,
    "reduce_type": 2,
    "arg_type": 2,
    "pool_type": 2,
    "onnx_domain": 2,
    "onnx_opset": 2,
    "onnx_input_positions": 2,
    "onnx_output_positions": 2,
    "onnx_scalar_inputs": 2,
    "transpose_a": 3,
    "transpose_b": 3,
    "data_format": 3,
}
# The same for attributes whose names mean something else in other ops.
_CLASSES_OF_OPS = {
    ("Reshape", "shape"): 2,  # no parameter of the runtime, while the target dims of an Expand are
    ("Lstm", "hidden_size"): 2,
    ("Gru", "hidden_size"): 2,
    ("Gru", "gate_activation"): 3,
    ("Gru", "rec_gate_activation"): 3,
}
_PLACEHOLDER = 1  # size that stands at a dynamic axis


def emit(plan: Plan, model: Model, name: str, spatial_first: bool) -> netforge.IrGraph:
    order = netforge.SpatialFirstAxisOrder() if spatial_first else netforge.OnnxAxisOrder()
    graph = netforge.IrGraph(name, order)
    graph.acceptsBiaslessFold = True  # a convolution takes a bias as its third input
    shown = [plan.tensors[value] for value in model.outputs]
    inputs = [plan.tensors[value] for value in model.inputs]
    # The lists of inputs and outputs keep the order in which their tensors are entered.
    rest = [tensor for tensor in plan.tensors.values() if tensor.role in ("native", "null", "static")]
    for tensor in (*inputs, *shown, *rest):
        with _reported(f"tensor '{tensor.name}' can't be held"):
            graph.addTensor(_tensor(tensor))
    for op in plan.ops:
        shapes = [_shape(plan.tensors[output].dims) for output in op.outputs]
        formats = [_format(plan.tensors[output].format) for output in op.outputs]
        with _reported(f"op '{op.name}' of type {op.type} can't be held"):
            graph.addOp(_op(op), op.inputs, op.outputs, outputShapes=shapes, outputAxisFormats=formats)
    _trace(graph, plan, model)
    return graph


@contextmanager
def _reported(what: str) -> Iterator[None]:
    """What the IR refuses is a limit of the IR that the model meets."""
    try:
        yield
    except OnnxImportError:
        raise
    except (ArithmeticError, LookupError, RuntimeError, TypeError, ValueError) as error:
        raise OnnxImportError(f"{what}: {error}") from error


def _format(name: str) -> netforge.AxisFormat:
    return getattr(netforge.AxisFormat, name)


def _shape(dims: Dims) -> netforge.IrTensorShape:
    sizes = [dim if isinstance(dim, int) else _PLACEHOLDER for dim in dims]
    return netforge.IrTensorShape(sizes, [axis for axis, dim in enumerate(dims) if not isinstance(dim, int)])


def _data_type(elem_type: int) -> netforge.DataType:
    return getattr(netforge.DataType, ir_type_name(elem_type))


def _tensor(tensor: PlannedTensor) -> netforge.IrTensor:
    formats = {"axisFormat": _format(tensor.format), "srcAxisFormat": _format(tensor.source_format)}
    data_type = _data_type(tensor.elem_type)
    if tensor.constant is None:
        roles = {
            "input": netforge.TensorType.GraphInput,
            "output": netforge.TensorType.GraphOutput,
            "native": netforge.TensorType.Native,
            "null": netforge.TensorType.Null,
        }
        return netforge.IrTensor(
            tensor.name, _shape(tensor.dims), data_type, tensorType=roles[tensor.role], **formats
        )
    external = tensor.constant.external
    if external is not None:
        return netforge.IrStaticTensor.fromExternal(
            tensor.name,
            list(tensor.dims),
            data_type,
            external.path,
            external.offset,
            external.length,
            **formats,
        )
    array = tensor.constant.stored().reshape(tensor.dims)
    return netforge.IrStaticTensor(tensor.name, array, dataType=data_type, **formats)


def _attributes(op: PlannedOp) -> netforge.IrAttributes:
    attributes = netforge.IrAttributes({})
    for name, value in op.attributes.items():
        attr_class = _CLASSES_OF_OPS.get((op.type, name), _CLASSES.get(name, 1))
        attributes.add(name, _attribute_value(op, name, value), attr_class)
    if not op.plain and not attributes.hasAttr("packageName"):
        attributes.add("packageName", "orlo.base", 2)
    return attributes


def _attribute_value(op: PlannedOp, name: str, value: Attribute) -> object:
    if isinstance(value, np.ndarray):
        return netforge.IrStaticTensor(f"{op.name}_{name}", np.ascontiguousarray(value), copy=True)
    return value


def _op(op: PlannedOp) -> netforge.IrOp:
    attributes = _attributes(op)
    if not op.plain and netforge.hasMethod(op.type):
        return netforge.applyMethod(op.type, op.name, attributes)
    return netforge.IrOp(op.name, op.type, attributes)


def trace_sources(
    plan: Plan, model: Model
) -> tuple[dict[str, list[str]], dict[str, list[str]], dict[str, list[str]]]:
    """Sources by record: nodes of each op, values of each op, values of each tensor.

    A node or value that no op or tensor stands for by itself (folded, merged, or read for its value
    alone) is counted to the first op that was made of a node downstream of it.
    """
    nodes: dict[str, Node] = {node.name: node for node in (*model.folded, *model.nodes)}
    op_nodes: dict[str, list[str]] = {op.name: [op.node] if op.node else [] for op in plan.ops}
    op_values: dict[str, list[str]] = {op.name: [] for op in plan.ops}
    used = {name for op in plan.ops for name in (*op.inputs, *op.outputs)}
    tensor_values = {
        name: [tensor.source] if tensor.source else []
        for name, tensor in plan.tensors.items()
        if name in used
    }

    first_op: dict[str, str] = {}
    for op in plan.ops:
        if not op.for_layout:
            first_op.setdefault(op.node, op.name)
    for op in plan.ops:
        first_op.setdefault(op.node, op.name)
    shown_op = {output: op.name for op in plan.ops for output in op.outputs}
    readers = defaultdict(list)
    for node in (*model.folded, *model.nodes):
        for value in filter(None, node.inputs):
            readers[value].append(node.name)

    def downstream(values: list[str]) -> str | None:
        waiting = list(values)
        seen = set(waiting)
        for value in waiting:  # grows while it is walked: breadth first
            for reader in readers[value]:
                if reader in first_op:
                    return first_op[reader]
                fresh = [output for output in nodes[reader].outputs if output and output not in seen]
                seen.update(fresh)
                waiting.extend(fresh)
            if value in shown_op:
                return shown_op[value]
        return None

    for node in nodes.values():
        if node.name not in first_op:
            target = downstream([output for output in node.outputs if output])
            if target is not None:
                op_nodes[target].append(node.name)
    covered = {value for values in tensor_values.values() for value in values}
    for value in _model_values(model):
        if value not in covered:
            target = downstream([value])
            if target is not None:
                op_values[target].append(value)
    return op_nodes, op_values, tensor_values


def _model_values(model: Model) -> list[str]:
    found: dict[str, None] = {}
    for node in (*model.folded, *model.nodes):
        found.update(dict.fromkeys(filter(None, node.inputs)))
        # Outputs that nobody reads have no tensor, or one that their op still writes.
        found.update(dict.fromkeys(name for name in node.outputs if name))
    found.update(dict.fromkeys(model.outputs))
    return list(found)


def _trace(graph: netforge.IrGraph, plan: Plan, model: Model) -> None:
    op_nodes, op_values, tensor_values = trace_sources(plan, model)
    op_kind, tensor_kind = netforge.TraceKind.Op, netforge.TraceKind.Tensor
    # Of a tensor that a converter made up, the source is the node of the op at hand.
    owner = {name: op.node for op in plan.ops for name in (*op.inputs, *op.outputs)}
    owner.update((output, op.node) for op in plan.ops for output in op.outputs)
    source_ops: dict[str, None] = {}
    source_tensors: dict[str, None] = {}
    for op in plan.ops:
        values = list(op_values[op.name])
        if not op_nodes[op.name] and not values:
            values = [plan.tensors[op.outputs[0]].source]
        source_ops.update(dict.fromkeys(op_nodes[op.name]))
        source_tensors.update(dict.fromkeys(values))
        sources = [netforge.TraceSource(name, op_kind) for name in op_nodes[op.name]]
        sources += [netforge.TraceSource(name, tensor_kind) for name in values]
        graph.addTraceSources(op_kind, op.name, sources)
    for name, values in tensor_values.items():
        source_tensors.update(dict.fromkeys(values))
        sources = [netforge.TraceSource(value, tensor_kind) for value in values]
        if not sources:
            sources = [netforge.TraceSource(owner[name], op_kind)]
        graph.addTraceSources(tensor_kind, name, sources)
    order = [node.name for node in (*model.folded, *model.nodes)]
    graph.sourceOpNames = [name for name in order if name in source_ops]
    graph.sourceTensorNames = list(source_tensors)
