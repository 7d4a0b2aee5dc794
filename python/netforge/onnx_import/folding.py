"""Computing the nodes whose inputs are all constant."""

from __future__ import annotations

import math
import warnings
import zlib
from collections.abc import Callable

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper
from onnx.reference import ReferenceEvaluator

from netforge.onnx_import.errors import OnnxImportError
from netforge.onnx_import.inference import Inference
from netforge.onnx_import.random_weights import FillRoles, draw
from netforge.onnx_import.values import FLOAT_TYPES, Constant, storage_dtype

# Folding a node may not make a constant larger than this, unless the node is a fill.
_LARGEST_RESULT = 1 << 26

# What isn't repeatable, and what the evaluator computes without heed to some attributes and inputs.
_NOT_EVALUATED = frozenset(
    (
        "RandomNormal",
        "RandomNormalLike",
        "RandomUniform",
        "RandomUniformLike",
        "Bernoulli",
        "Multinomial",
        "Dropout",
        "GRU",
        "LSTM",
        "RNN",
    )
)

_SAME_BYTES = frozenset(("Flatten", "Identity", "Reshape", "Squeeze", "Unsqueeze"))


class Folder:
    """Holds the constants of a model and adds to them what nodes compute from constants alone."""

    def __init__(
        self,
        constants: dict[str, Constant],
        inference: Inference,
        opsets: dict[str, int],
        roles: FillRoles | None,
        seed: int | None,
    ) -> None:
        self.constants = constants
        self._inference = inference
        self._opsets = opsets
        self._roles = roles
        self._seed = seed

    def fold(self, node: onnx.NodeProto) -> bool:
        """True when all outputs of the node are constants now. Its output types have been inferred."""
        if node.domain not in ("", "ai.onnx"):
            return False
        if node.op_type in ("Shape", "Size"):
            return self._fold_shape(node)
        if any(name and name not in self.constants for name in node.input):
            return False
        if node.op_type == "Constant":
            self.constants[node.output[0]] = constant_of_node(node)
            return True
        if node.op_type in _NOT_EVALUATED or any(_holds_graph(attribute) for attribute in node.attribute):
            return False
        if node.op_type == "ConstantOfShape":
            return self._fold_fill(node)
        if node.op_type in _SAME_BYTES and self._fold_reshape(node):
            return True
        return self._evaluate(node)

    def _fold_shape(self, node: onnx.NodeProto) -> bool:
        known = self._inference.inferred.get(node.input[0])
        if known is None or not known.is_static:
            return False
        sizes = np.array(known.dims, np.int64)
        if node.op_type == "Size":
            sizes = np.array(math.prod(known.dims), np.int64)
        else:
            bounds = {attribute.name: attribute.i for attribute in node.attribute}
            sizes = sizes[slice(*_shape_bounds(len(sizes), bounds.get("start", 0), bounds.get("end")))]
        self.constants[node.output[0]] = Constant.from_array(sizes)
        return True

    def _fold_fill(self, node: onnx.NodeProto) -> bool:
        dims = tuple(int(size) for size in self.constants[node.input[0]].array().reshape(-1))
        if any(size < 0 for size in dims):
            raise OnnxImportError(f"a fill of negative dims {list(dims)}")
        value = np.zeros(1, np.float32)
        elem_type = TensorProto.FLOAT
        for attribute in node.attribute:
            if attribute.name == "value":
                value = numpy_helper.to_array(attribute.t).reshape(-1)
                elem_type = attribute.t.data_type
        make: Callable[[], np.ndarray] = lambda: np.full(dims, value[0])  # noqa: E731
        if self._seed is not None and self._roles is not None and elem_type in FLOAT_TYPES:
            name = node.output[0]
            role = self._roles.role_of(name)
            key = (self._seed, zlib.crc32(name.encode()))
            dtype = value.dtype
            make = lambda: draw(role, dims, key).astype(dtype)  # noqa: E731
        storage_dtype(elem_type)
        self.constants[node.output[0]] = Constant(elem_type, dims, make)
        return True

    def _evaluate(self, node: onnx.NodeProto) -> bool:
        if not node.input:
            return False
        for name in node.output:
            known = self._inference.inferred.get(name) if name else None
            if known is not None and known.is_static and math.prod(known.dims) > _LARGEST_RESULT:
                return False
        feeds = {name: self.constants[name].array() for name in node.input if name}
        try:
            results = self._run(node, feeds)
            found = {}
            for name, result in zip(filter(None, node.output), results, strict=True):
                known = self._inference.inferred.get(name)
                found[name] = _constant_of_result(result, None if known is None else known.elem_type)
        except OnnxImportError:
            raise
        except Exception:  # an operator that the evaluator lacks or refuses stays an op of the graph
            return False
        self.constants.update(found)
        return True

    def _fold_reshape(self, node: onnx.NodeProto) -> bool:
        """The same bytes under other dims, without a copy."""
        source, target = self.constants[node.input[0]], self._inference.inferred.get(node.output[0])
        if target is None or not target.is_static or math.prod(target.dims) != source.elements:
            return False
        dims = target.dims
        self.constants[node.output[0]] = Constant(
            source.elem_type, dims, lambda: source.array().reshape(dims)
        )
        return True

    def _run(self, node: onnx.NodeProto, feeds: dict[str, np.ndarray]) -> list[object]:
        """The node as a model of its own, since a bare node counts as one of the newest version."""
        graph = onnx.GraphProto(name="node")
        graph.node.append(node)
        for name in feeds:
            graph.input.add().name = name
        for name in filter(None, node.output):
            graph.output.add().name = name
        imports = [helper.make_opsetid(domain, version) for domain, version in self._opsets.items()]
        model = onnx.ModelProto(ir_version=8, graph=graph, opset_import=imports)
        with warnings.catch_warnings(), np.errstate(all="ignore"):
            warnings.simplefilter("ignore")
            return ReferenceEvaluator(model).run(None, feeds)


def _shape_bounds(rank: int, start: int, end: int | None) -> tuple[int, int]:
    end = rank if end is None else end
    clamp = lambda at: min(max(at + rank if at < 0 else at, 0), rank)  # noqa: E731
    return clamp(start), clamp(end)


def _holds_graph(attribute: onnx.AttributeProto) -> bool:
    return attribute.type in (onnx.AttributeProto.GRAPH, onnx.AttributeProto.GRAPHS)


def _constant_of_result(result: object, elem_type: int | None) -> Constant:
    if not isinstance(result, (np.ndarray, np.generic)):
        raise TypeError(f"no tensor but a {type(result).__name__}")
    array = np.asarray(result)
    if elem_type is not None and elem_type in FLOAT_TYPES and array.dtype.kind == "f":
        # The evaluator computes some operators in double precision and hands that on.
        array = array.astype(helper.tensor_dtype_to_np_dtype(elem_type), copy=False)
    actual = helper.np_dtype_to_tensor_dtype(array.dtype)
    if elem_type is not None and actual != elem_type:
        raise TypeError(f"element type {actual}, expected {elem_type}")
    storage_dtype(actual)
    return Constant.from_array(array, actual)


def constant_of_node(node: onnx.NodeProto) -> Constant:
    """The value of a Constant node, in whichever of its forms."""
    if len(node.attribute) != 1:
        raise OnnxImportError("a Constant needs exactly one value")
    attribute = node.attribute[0]
    if attribute.name == "value":
        return Constant.from_proto(attribute.t, None)
    if attribute.name == "sparse_value":
        return dense_constant(attribute.sparse_tensor)
    if attribute.name in ("value_float", "value_floats"):
        data = attribute.f if attribute.name == "value_float" else list(attribute.floats)
        return Constant.from_array(np.array(data, np.float32))
    if attribute.name in ("value_int", "value_ints"):
        data = attribute.i if attribute.name == "value_int" else list(attribute.ints)
        return Constant.from_array(np.array(data, np.int64))
    raise OnnxImportError("the IR can't hold constants of element type string")


def dense_constant(sparse: onnx.SparseTensorProto) -> Constant:
    """A sparse constant with its zeros written out."""
    dims = tuple(int(size) for size in sparse.dims)
    count = math.prod(dims)
    if count > _LARGEST_RESULT:
        raise OnnxImportError(
            f"sparse tensor '{sparse.values.name}' of {count} elements is too large to write out"
        )
    storage_dtype(sparse.values.data_type)

    values = numpy_helper.to_array(sparse.values).reshape(-1)
    indices = numpy_helper.to_array(sparse.indices).astype(np.int64)
    if indices.ndim == 2:
        indices = np.ravel_multi_index(tuple(indices.T), dims)
    if indices.shape != values.shape or (indices.size and not 0 <= indices.min() <= indices.max() < count):
        raise OnnxImportError(f"sparse tensor '{sparse.values.name}' has bad indices")
    dense = np.zeros(count, values.dtype)
    dense[indices] = values
    return Constant.from_array(dense.reshape(dims), sparse.values.data_type)
