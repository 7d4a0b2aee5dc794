"""The ONNX graph that is being written: values, nodes, initializers, unique names."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from dataclasses import dataclass

import numpy as np
import onnx
from onnx import helper

import netforge
from netforge.onnx_export.element_types import element_type, numpy_type
from netforge.onnx_export.errors import OnnxExportError

Dim = int | None  # None for a size that isn't known
CONSTANT_REUSE_BYTES = 256


@dataclass
class Initializer:
    """A constant. `array()` makes the array when it is written, so that not all are in memory at once."""

    name: str
    kind: int
    dims: tuple[int, ...]
    array: Callable[[], np.ndarray]


@dataclass(frozen=True)
class Value:
    """Element type and dims of a value. `tensor` is the constant that it shows as it is, if any."""

    kind: int
    dims: tuple[Dim, ...] | None
    tensor: netforge.IrStaticTensor | None = None


class GraphWriter:
    """Collects what the writers of ops emit.

    Values that stand for tensors of the graph bear the tensors' names; all others get names that no tensor
    has. A constant becomes an initializer when it is first read.
    """

    def __init__(self, graph: netforge.IrGraph, opset: int) -> None:
        self.graph = graph
        self.opset = opset
        self.domains: dict[str, int] = {}
        self.nodes: list[onnx.NodeProto] = []
        self.initializers: dict[str, Initializer] = {}
        self.values: dict[str, Value] = {}
        self.channel_last = isinstance(graph.axisOrder, netforge.SpatialFirstAxisOrder)
        # Values with their channels last -> the same with the channels behind the batch.
        self.channel_first_forms: dict[str, str] = {}
        self.places: dict[str, str] = {}  # sparse values -> the coordinates of their rows
        self.places_in: dict[str, str] = {}  # index tensors -> the coordinates that they hold
        self.aliases: dict[str, str] = {}  # tensors that another value stands for
        self._tensors: dict[str, netforge.IrTensor] = dict(graph.tensors)
        self._names = set(self._tensors)
        self._node_names: set[str] = set()
        self._constants: dict[tuple, str] = {}
        self._forms: dict[tuple, str] = {}
        self.shown = {tensor.name for tensor in graph.graphOutputs}

    def unique(self, base: str) -> str:
        name, number = base, 0
        while name in self._names:
            number += 1
            name = f"{base}_{number}"
        self._names.add(name)
        return name

    def unique_node(self, base: str) -> str:
        name, number = base, 0
        while name in self._node_names:
            number += 1
            name = f"{base}_{number}"
        self._node_names.add(name)
        return name

    def read(self, tensor: netforge.IrTensor) -> str:
        """Name of the value that holds a tensor; empty for an absent one."""
        name = self.aliases.get(tensor.name, tensor.name)
        if not name or (list(tensor.dims) == [0] and tensor.tensorType == netforge.TensorType.Null):
            return ""
        if name in self.values:
            return name
        kind, dims = element_type(tensor.dataType), dims_of(tensor)
        if isinstance(tensor, netforge.IrStaticTensor):
            held = name
            if name in self.shown:
                held = self._forms.get((name, None)) or self.unique(f"{name}_value")
                self._forms[(name, None)] = held
                if held in self.values:
                    return held
            self.values[held] = Value(kind, dims, tensor)
            self.initializers[held] = Initializer(
                held, kind, tuple(tensor.dims), lambda: static_array(tensor)
            )
            return held
        self.values[name] = Value(kind, dims)
        return name

    def constant(self, array: np.ndarray, name: str) -> str:
        """An initializer of the writer's own. Small ones of equal value are shared."""
        array = np.ascontiguousarray(array) if array.ndim else array
        key = (
            (array.dtype.str, array.shape, array.tobytes()) if array.nbytes <= CONSTANT_REUSE_BYTES else None
        )
        if key in self._constants:
            return self._constants[key]
        name = self.unique(name)
        kind = helper.np_dtype_to_tensor_dtype(array.dtype)
        self.initializers[name] = Initializer(name, kind, array.shape, lambda: array)
        self.values[name] = Value(kind, array.shape)
        if key is not None:
            self._constants[key] = name
        return name

    def changed_constant(
        self, value: str, key: tuple, dims: Sequence[int], change: Callable[[np.ndarray], np.ndarray]
    ) -> str | None:
        """A constant of the graph in another form, made when it is written; None for any other value."""
        tensor = self.values[value].tensor
        if tensor is None:
            return None
        form = (value, *key)
        if form not in self._forms:
            kind, dims = self.values[value].kind, tuple(dims)
            name = self._forms[form] = self.unique(f"{value}_{'_'.join(str(part) for part in key)}")
            self.initializers[name] = Initializer(
                name, kind, dims, lambda: np.ascontiguousarray(change(static_array(tensor))).reshape(dims)
            )
            self.values[name] = Value(kind, dims)
        return self._forms[form]

    def joined_constants(self, values: Sequence[str], dims: tuple[int, ...], name: str) -> str | None:
        """Constants of the graph, their elements behind one another and zeros behind those, as one of the
        given dims, made when it is written; None when one of them is no constant."""
        tensors = [self.values[value].tensor for value in values]
        if None in tensors:
            return None
        form = ("joined", *values, *dims)
        if form not in self._forms:
            kind = self.values[values[0]].kind

            def array() -> np.ndarray:
                elements = np.zeros(int(np.prod(dims)), numpy_type(kind))
                joined = np.concatenate([static_array(tensor).reshape(-1) for tensor in tensors])
                elements[: joined.size] = joined
                return elements.reshape(dims)

            name = self._forms[form] = self.unique(name)
            self.initializers[name] = Initializer(name, kind, dims, array)
            self.values[name] = Value(kind, dims)
        return self._forms[form]

    def add(
        self,
        op_type: str,
        inputs: Sequence[str],
        outputs: Sequence[str],
        name: str,
        attributes: dict[str, object] | None = None,
        domain: str = "",
    ) -> onnx.NodeProto:
        node = helper.make_node(
            op_type,
            list(inputs),
            list(outputs),
            self.unique_node(name),
            domain=domain or None,
            **(attributes or {}),
        )
        self.nodes.append(node)
        return node

    def remove_dead(self) -> None:
        """Takes out nodes none of whose outputs is read, and constants that nobody reads."""
        needed = set(self.shown)
        kept = []
        for node in reversed(self.nodes):
            if any(output in needed for output in node.output):
                kept.append(node)
                needed.update(node.input)
        self.nodes = kept[::-1]
        self.initializers = {name: found for name, found in self.initializers.items() if name in needed}


def dims_of(tensor: netforge.IrTensor) -> tuple[Dim, ...]:
    dynamic = tensor.dynamicAxes
    return tuple(None if axis in dynamic else size for axis, size in enumerate(tensor.dims))


def static_array(tensor: netforge.IrStaticTensor) -> np.ndarray:
    """The elements in the NumPy type of the exported tensor, not copied where the bytes already fit."""
    array = tensor.numpy()
    wanted = numpy_type(element_type(tensor.dataType))
    if array.dtype != wanted:
        if array.dtype.itemsize != wanted.itemsize:
            raise OnnxExportError(f"the bytes of tensor '{tensor.name}' aren't those of its data type")
        array = array.view(wanted)
    return array.reshape(tuple(tensor.dims))
