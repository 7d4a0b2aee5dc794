"""Shapes and element types of a model's values, node by node, with constants at hand."""

from __future__ import annotations

from collections.abc import Container

import numpy as np
import onnx
from onnx import helper, numpy_helper, shape_inference

from netforge.onnx_import.errors import OnnxImportError
from netforge.onnx_import.values import Constant, Dim, ValueType, elem_type_name

# Constants above this size say nothing about shapes; inference isn't burdened with them.
_SHAPE_DATA_LIMIT = 4096


def type_of_proto(type_proto: onnx.TypeProto, name: str) -> ValueType | None:
    """None when the rank isn't known; raises OnnxImportError for what is no dense tensor."""
    kind = type_proto.WhichOneof("value")
    if kind is None:
        return None
    if kind != "tensor_type":
        raise OnnxImportError(
            f"'{name}' is a {kind.removesuffix('_type').replace('_', ' ')}; the IR holds tensors only"
        )
    tensor = type_proto.tensor_type
    if not tensor.HasField("shape"):
        return None
    dims: list[Dim] = []
    for axis, dim in enumerate(tensor.shape.dim):
        if dim.HasField("dim_value"):
            if dim.dim_value < 0 or dim.dim_value > 0xFFFFFFFF:
                raise OnnxImportError(f"'{name}' has the dimension {dim.dim_value}, which the IR can't hold")
            dims.append(int(dim.dim_value))
        else:
            dims.append(dim.dim_param or f"?{name}.{axis}")
    return ValueType(int(tensor.elem_type), tuple(dims))


def proto_of_type(value: ValueType) -> onnx.TypeProto:
    shape = [None if isinstance(dim, str) and dim.startswith("?") else dim for dim in value.dims]
    return helper.make_tensor_type_proto(value.elem_type, shape)


class Inference:
    """Types of values: `inferred` by what follows from inputs and constants, `declared` by the model.

    What the model declares for its intermediate values fills gaps only, since a model may declare sizes
    that hold for the run its author had in mind.
    """

    def __init__(
        self, model: onnx.ModelProto, opsets: dict[str, int], elsewhere: Container[str] = ()
    ) -> None:
        """`elsewhere` names the initializers whose bytes the model lacks."""
        self._model = model
        self._elsewhere = elsewhere
        self._opset_imports = [helper.make_opsetid(domain, version) for domain, version in opsets.items()]
        self._opsets = opsets
        self._whole: dict[str, onnx.TypeProto] | None = None
        self.inferred: dict[str, ValueType] = {}
        self._outputs = frozenset(info.name for info in model.graph.output)
        self._declared: dict[str, onnx.TypeProto] = {
            info.name: info.type for group in (model.graph.value_info, model.graph.output) for info in group
        }

    def set_type(self, name: str, value: ValueType) -> None:
        self.inferred[name] = value

    def type_of(self, name: str) -> ValueType | None:
        """Type of a value that was met already, completed by what the model declares.

        What it declares for a graph output holds: the application relies on it.
        """
        known = self.inferred.get(name)
        if known is not None and known.is_static and name not in self._outputs:
            return known
        declared = self._declared.get(name)
        stated = None if declared is None else type_of_proto(declared, name)
        if known is None or stated is None or stated.rank != known.rank:
            return known or stated
        dims = tuple(s if isinstance(s, int) else k for k, s in zip(known.dims, stated.dims, strict=True))
        return ValueType(known.elem_type, dims)

    def is_contradicted(self, name: str) -> bool:
        """Whether the model declares a graph output with other sizes than follow from its inputs."""
        known, stated = self.inferred.get(name), self.type_of(name)
        if name not in self._outputs or known is None or stated is None:
            return False
        pairs = zip(known.dims, stated.dims, strict=False)
        return known.rank != stated.rank or any(isinstance(k, int) and k != s for k, s in pairs)

    def infer(self, node: onnx.NodeProto, constants: dict[str, Constant]) -> None:
        """Types of the node's outputs, into `inferred`; says nothing where nothing can be said."""
        domain = "" if node.domain == "ai.onnx" else node.domain
        results: dict[str, onnx.TypeProto] = {}
        try:
            schema = onnx.defs.get_schema(node.op_type, self._opsets.get(domain, 1), domain)
        except onnx.defs.SchemaError:
            schema = None
        if schema is not None:
            results = self._infer_by_schema(schema, node, constants)
        for name in node.output:
            if not name:
                continue
            local = type_of_proto(results[name], name) if name in results else None
            if local is None or not local.is_static:
                local = self._merge(local, self._from_whole_model(name))
            if local is None and node.op_type.startswith("Reduce") and not domain:
                local = self._reduced(node)
            if local is not None:
                self.inferred[name] = local

    def _infer_by_schema(
        self, schema: onnx.defs.OpSchema, node: onnx.NodeProto, constants: dict[str, Constant]
    ) -> dict[str, onnx.TypeProto]:
        types = {}
        data = {}
        for name in node.input:
            known = self.type_of(name) if name else None
            if known is None:
                continue
            types[name] = proto_of_type(known)
            constant = constants.get(name)
            if constant is not None and constant.elements <= _SHAPE_DATA_LIMIT:
                data[name] = numpy_helper.from_array(np.asarray(constant.array()), name)
        try:
            return shape_inference.infer_node_outputs(
                schema,
                node,
                types,
                data,
                opset_imports=self._opset_imports,
                ir_version=self._model.ir_version,
            )
        except onnx.shape_inference.InferenceError as error:
            raise OnnxImportError(f"its shapes don't fit: {_first_line(error)}") from error
        except (RuntimeError, ValueError, TypeError, KeyError):
            return {}

    def _from_whole_model(self, name: str) -> ValueType | None:
        """What inference over the whole model says, which follows sizes through chains of shape ops."""
        if self._whole is None:
            self._whole = self._infer_whole_model()
        found = self._whole.get(name)
        return None if found is None else type_of_proto(found, name)

    def _infer_whole_model(self) -> dict[str, onnx.TypeProto]:
        skeleton = onnx.ModelProto()
        skeleton.ir_version = max(self._model.ir_version, 4)
        skeleton.opset_import.extend(self._opset_imports)
        graph, source = skeleton.graph, self._model.graph
        graph.name = source.name or "graph"
        graph.node.extend(source.node)
        initialized = {tensor.name for tensor in source.initializer}
        graph.input.extend(info for info in source.input if info.name not in initialized)
        for info in source.output:
            graph.output.add().name = info.name
        for tensor in source.initializer:
            count = int(np.prod(tensor.dims, dtype=np.int64))
            held = tensor.data_location != onnx.TensorProto.EXTERNAL and tensor.name not in self._elsewhere
            if held and count <= _SHAPE_DATA_LIMIT:
                graph.initializer.append(tensor)
            else:
                value = helper.make_tensor_type_proto(tensor.data_type, tensor.dims)
                graph.input.append(helper.make_value_info(tensor.name, value))
        try:
            inferred = shape_inference.infer_shapes(skeleton, data_prop=True)
        except Exception:  # what it can't do is no fault of the model: the node-wise types remain
            return {}
        return {
            info.name: info.type
            for group in (inferred.graph.value_info, inferred.graph.output)
            for info in group
        }

    def _reduced(self, node: onnx.NodeProto) -> ValueType | None:
        """A reduction over axes that only a run tells: its rank at least."""
        data = self.type_of(node.input[0])
        axes = self.type_of(node.input[1]) if len(node.input) > 1 and node.input[1] else None
        keep = next((attribute.i for attribute in node.attribute if attribute.name == "keepdims"), 1)
        if data is None or axes is None or not (keep or (axes.is_static and 0 not in axes.dims)):
            return None
        rank = data.rank if keep else data.rank - int(np.prod(axes.dims))
        return ValueType(data.elem_type, tuple(f"?{node.output[0]}.{axis}" for axis in range(max(rank, 0))))

    @staticmethod
    def _merge(local: ValueType | None, whole: ValueType | None) -> ValueType | None:
        if local is None or whole is None or local.rank != whole.rank:
            return local or whole
        dims = tuple(
            b if isinstance(a, str) and (isinstance(b, int) or a.startswith("?")) else a
            for a, b in zip(local.dims, whole.dims, strict=True)
        )
        return ValueType(local.elem_type or whole.elem_type, dims)


def require_type(inference: Inference, name: str) -> ValueType:
    """The type of a value; raises OnnxImportError when its rank or element type can't be found out."""
    found = inference.type_of(name)
    if found is None:
        raise OnnxImportError(f"the shape of '{name}' can't be inferred, and the IR needs its rank")
    if found.elem_type == onnx.TensorProto.UNDEFINED:
        raise OnnxImportError(f"the element type of '{name}' ({elem_type_name(0)}) can't be inferred")
    return found


def _first_line(error: Exception) -> str:
    lines = [line.strip() for line in str(error).splitlines() if line.strip()]
    return lines[0] if lines else type(error).__name__
