"""Writer of the ops that came in from ONNX under their own names, and the version in which they are meant."""

from __future__ import annotations

import json

import numpy as np
import onnx
from onnx import defs, helper, numpy_helper

import netforge
from netforge.onnx_export.element_types import element_type
from netforge.onnx_export.errors import OnnxExportError
from netforge.onnx_export.graph_writer import GraphWriter
from netforge.onnx_export.op_writer import OpWriter
from netforge.onnx_export.operand_types import common_types, output_types
from netforge.onnx_export.registry import writers
from netforge.onnx_export.version_changes import write_changed

OLDEST_OPSET, DEFAULT_OPSET = 18, 21
_TWO_BITS = frozenset(
    int(kind) for kind in (netforge.DataType.ORLO_DATATYPE_INT_2, netforge.DataType.ORLO_DATATYPE_UINT_2)
)
_OLDEST_OF_TWO_BITS = 25  # the first version that knows 2-bit integers
_OWN = frozenset(("packageName", "onnx_opset", "onnx_domain"))
_OWN_PLACES = frozenset(("onnx_input_positions", "onnx_output_positions", "onnx_scalar_inputs"))
# Versions at which an operator means something else in the same words.
_CHANGES = {
    "Softmax": (13,), "LogSoftmax": (13,), "Hardmax": (13,), "GroupNormalization": (21,), "Resize": (11,),
    "BatchNormalization": (14, 15), "Dropout": (12,), "Upsample": (9,), "TopK": (11,), "Scan": (9,),
    "RoiAlign": (16,), "GridSample": (20,),
}  # fmt: skip


def is_plain(op: netforge.IrOp) -> bool:
    return op.attributes.hasAttr("onnx_opset")


def operator_of(op: netforge.IrOp) -> tuple[str, str]:
    """Domain and name of the operator that a plain op stands for."""
    attributes = op.attributes
    domain = str(attributes.getAttr("onnx_domain")) if attributes.hasAttr("onnx_domain") else ""
    name = op.type
    if domain:
        return domain, name.removeprefix(f"{domain}.")
    if name.startswith("Onnx") and not defs.has(name):
        return "", name.removeprefix("Onnx")
    return "", name


def version_of(op: netforge.IrOp) -> int:
    return int(op.attributes.getAttr("onnx_opset"))


def choose_opset(graph: netforge.IrGraph) -> int:
    """The version in which most plain ops of the default domain can stand as they are."""
    plain = [op for op in graph.ops if is_plain(op) and not operator_of(op)[0]]
    newest = defs.onnx_opset_version()
    two_bits = any(int(tensor.dataType) in _TWO_BITS for tensor in graph.tensors.values())
    oldest = _OLDEST_OF_TWO_BITS if two_bits else OLDEST_OPSET
    first = max(oldest, DEFAULT_OPSET)
    candidates = [first, *(version for version in range(oldest, newest + 1) if version != first)]

    def unfit(version: int) -> int:
        return sum(not stands_in(op, version) for op in plain)

    return min(candidates, key=lambda version: (unfit(version), candidates.index(version)))


def stands_in(op: netforge.IrOp, version: int) -> bool:
    """Whether a node of this op means the same in another version of the default domain."""
    _, name = operator_of(op)
    given = version_of(op)
    try:
        before, after = defs.get_schema(name, given), defs.get_schema(name, version)
    except defs.SchemaError:
        return False
    if before.since_version == after.since_version:
        return not after.deprecated
    low, high = sorted((before.since_version, after.since_version))
    if after.deprecated or any(low < change <= high for change in _CHANGES.get(name, ())):
        return False
    names = {key for key in op.attributes if key not in _OWN | _OWN_PLACES}
    if not names <= set(after.attributes):
        return False
    if any(
        after.attributes[key].type != before.attributes[key].type for key in names & set(before.attributes)
    ):
        return False
    required = [key for key, attribute in after.attributes.items() if attribute.required]
    return set(required) <= names and _takes(after, op)


def _takes(schema: defs.OpSchema, op: netforge.IrOp) -> bool:
    """Whether the operator takes as many inputs, of these types."""
    places = list(range(len(op.inputs)))
    if op.attributes.hasAttr("onnx_input_positions"):
        places = op.attributes.getStaticTensor("onnx_input_positions").numpy().reshape(-1).tolist()
    if not schema.min_input <= max(places) + 1 <= schema.max_input:
        return False
    constraints = {
        constraint.type_param_str: constraint.allowed_type_strs for constraint in schema.type_constraints
    }
    for place, tensor in zip(places, op.inputs, strict=True):
        formal = schema.inputs[min(place, len(schema.inputs) - 1)].type_str
        name = onnx.TensorProto.DataType.Name(element_type(tensor.dataType)).lower()
        if f"tensor({name})" not in constraints.get(formal, (formal,)):
            return False
    return True


def write_plain(op: OpWriter) -> None:
    domain, name = operator_of(op.op)
    if not is_plain(op.op) and not (not domain and defs.has(name)):
        raise op.fail("no ONNX form is known for this type")
    version = version_of(op.op) if is_plain(op.op) else op.graph.opset
    schema = _schema(name, domain, version)
    attributes = {
        key: _attribute(op, key, schema) for key in op.op.attributes if key not in _OWN | _OWN_PLACES
    }
    inputs = _at_places(op, list(op.inputs), "onnx_input_positions")
    for place in op.integers("onnx_scalar_inputs", []):
        inputs[place] = op.reshape(inputs[place], ())
    kinds = [op.kind(value) if value else 0 for value in inputs]
    wanted, bound = common_types(name, version, domain, kinds)
    inputs = op.cast_all(inputs, wanted)
    outputs = _at_places(op, [tensor.name for tensor in op.op.outputs], "onnx_output_positions")
    _enter_outputs(op)
    shown = outputs
    outputs = [
        op.temporary(kind) if held and kind and op.kind(held) != kind else held
        for held, kind in zip(shown, output_types(name, version, domain, len(shown), bound), strict=True)
    ]
    _write(op, name, domain, version, schema, inputs, outputs, attributes)
    for held, made in zip(shown, outputs, strict=True):
        if held != made:
            op.graph.add("Cast", [made], [held], op.op.name, {"to": op.kind(held)})


def _write(
    op: OpWriter,
    name: str,
    domain: str,
    version: int,
    schema: defs.OpSchema | None,
    inputs: list[str],
    outputs: list[str],
    attributes: dict[str, object],
) -> None:
    if domain:
        if op.graph.domains.setdefault(domain, version) != version:
            raise op.fail(f"the versions of domain '{domain}' differ from op to op")
    elif is_plain(op.op) and not stands_in(op.op, op.graph.opset):
        _write_converted(op, name, version, inputs, outputs, attributes)
        return
    elif schema is not None:
        # A default of the op's own version stays what it was.
        target = defs.get_schema(name, op.graph.opset).attributes
        for key, attribute in schema.attributes.items():
            if key not in attributes and attribute.default_value.type and key in target:
                attributes[key] = helper.get_attribute_value(attribute.default_value)
    op.graph.add(name, inputs, outputs, op.op.name, attributes, domain)


def _schema(name: str, domain: str, version: int) -> defs.OpSchema | None:
    try:
        return defs.get_schema(name, version, domain)
    except defs.SchemaError:
        return None


def _at_places(op: OpWriter, names: list[str], key: str) -> list[str]:
    places = op.integers(key, list(range(len(names))))
    result = [""] * (max(places, default=-1) + 1)
    for place, name in zip(places, names, strict=True):
        result[place] = name
    return result


def _enter_outputs(op: OpWriter) -> None:
    for tensor in op.op.outputs:
        if tensor.name:
            op.graph.read(tensor)


def _attribute(op: OpWriter, name: str, schema: defs.OpSchema | None) -> object:
    value = op.attribute(name)
    kind = schema.attributes[name].type if schema is not None and name in schema.attributes else None
    types = defs.OpSchema.AttrType
    if isinstance(value, netforge.IrStaticTensor):
        array = value.numpy().reshape(tuple(value.dims))
        if kind == types.TENSOR or (
            kind is None and (array.ndim != 1 or array.dtype not in (np.int64, np.float32))
        ):
            return numpy_helper.from_array(np.ascontiguousarray(array))
        if kind == types.INT:
            return int(array.reshape(-1)[0])
        return array.reshape(-1).tolist()
    if kind == types.STRINGS:
        return json.loads(str(value))
    if kind == types.FLOAT:
        return float(value)  # type: ignore[arg-type]
    if isinstance(value, bool | np.integer):
        return int(value)
    return value


def _write_converted(
    op: OpWriter,
    name: str,
    version: int,
    inputs: list[str],
    outputs: list[str],
    attributes: dict[str, object],
) -> None:
    """Brings the node to the graph's version, as the onnx package converts a model of this one node."""
    if write_changed(op, name, version, inputs, outputs, attributes):
        return
    node = helper.make_node(name, inputs, outputs, **attributes)
    infos = {}
    initializers = []
    for value in filter(None, inputs):
        found = op.graph.values[value]
        constant = op.graph.initializers.get(value)
        if constant is not None and np.prod(constant.dims) <= 64:
            initializers.append(numpy_helper.from_array(constant.array(), value))
        else:
            infos[value] = helper.make_tensor_value_info(value, found.kind, found.dims)
    results = [
        helper.make_tensor_value_info(value, op.kind(value), op.graph.values[value].dims)
        for value in filter(None, outputs)
    ]
    graph = helper.make_graph([node], "node", list(infos.values()), results, initializers)
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", version)])
    try:
        converted = onnx.version_converter.convert_version(model, op.graph.opset).graph
        onnx.checker.check_node(converted.node[0], _context(op.graph.opset))
    except Exception as error:
        text = " ".join(str(error).split())
        raise OnnxExportError(
            f"{name} of opset {version} can't be brought to opset {op.graph.opset}: {text}",
            f"'{op.op.name}' ({op.op.type})",
        ) from error
    _splice(op.graph, op.op.name, converted, {*inputs, *outputs})


def _context(opset: int) -> onnx.checker.C.CheckerContext:
    context = onnx.checker.C.CheckerContext()
    context.ir_version = onnx.IR_VERSION
    context.opset_imports = {"": opset}
    return context


def _splice(graph: GraphWriter, name: str, part: onnx.GraphProto, known: set[str]) -> None:
    """Takes over the nodes and constants of a converted node, its values in between under free names."""
    names = {value: value for value in known}
    for tensor in part.initializer:
        if tensor.name not in names:
            names[tensor.name] = graph.constant(numpy_helper.to_array(tensor), f"{name}_constant")
    for node in part.node:
        for output in node.output:
            if output and output not in names:
                names[output] = graph.unique(f"{name}_step")
    for node in part.node:
        attributes = {attribute.name: helper.get_attribute_value(attribute) for attribute in node.attribute}
        inputs, outputs = ([names.get(value, value) for value in row] for row in (node.input, node.output))
        graph.add(node.op_type, inputs, outputs, name, attributes)


def known_types() -> frozenset[str]:
    return frozenset(writers)
