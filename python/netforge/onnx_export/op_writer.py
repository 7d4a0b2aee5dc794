"""What the writer of one op works with: its attributes and tensors, and shorthands for common nodes."""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np

import netforge
from netforge.onnx_export.element_types import (
    BOOL,
    FLOAT,
    FLOATS,
    INT64,
    computing_type,
    element_type,
    numpy_type,
)
from netforge.onnx_export.errors import OnnxExportError
from netforge.onnx_export.graph_writer import Dim, GraphWriter, Value, dims_of
from netforge.onnx_export.operand_types import common_types

MISSING = object()
END = np.iinfo(np.int64).max


class OpWriter:
    """One op on its way to nodes. Values are named by strings; a node gives the name of its first output."""

    def __init__(self, graph: GraphWriter, op: netforge.IrOp) -> None:
        self.graph = graph
        self.op = op
        self.inputs = [graph.read(tensor) for tensor in op.inputs]
        self._first_node = len(graph.nodes)
        self._temporaries: set[str] = set()

    # --- what the op says -------------------------------------------------------------------------

    @property
    def x(self) -> str:
        return self.inputs[0]

    def input(self, position: int) -> str:
        """Name of an input, empty when the op has none at this position."""
        return self.inputs[position] if position < len(self.inputs) else ""

    def fail(self, text: str) -> OnnxExportError:
        return OnnxExportError(text, f"'{self.op.name}' ({self.op.type})")

    def attribute(self, name: str, default: object = MISSING) -> object:
        attributes = self.op.attributes
        if attributes.hasAttr(name):
            return attributes.getAttr(name)
        if default is MISSING:
            raise self.fail(f"attribute '{name}' is missing")
        return default

    def integers(self, name: str, default: Sequence[int] | None = None) -> list[int]:
        """Elements of an attribute's tensor, 32-bit words read as signed."""
        attributes = self.op.attributes
        if not attributes.hasAttr(name):
            if default is None:
                raise self.fail(f"attribute '{name}' is missing")
            return list(default)
        array = attributes.getStaticTensor(name).numpy().reshape(-1)
        return [int(value) for value in (array.view(np.int32) if array.dtype == np.uint32 else array)]

    def axis(self, rank: int, name: str = "axis", default: object = MISSING) -> int:
        value = int(self.attribute(name, default))
        value -= 1 << 32 if value >= 1 << 31 else 0
        value += rank if value < 0 else 0
        if not 0 <= value < rank:
            raise self.fail(f"{name} {value} is no axis of a tensor of rank {rank}")
        return value

    def kind(self, value: str) -> int:
        return self.graph.values[value].kind

    def dims(self, value: str) -> tuple[Dim, ...]:
        dims = self.graph.values[value].dims
        if dims is None:
            raise self.fail("the dims of a value in between aren't known")
        return dims

    def static_dims(self, value: str) -> tuple[int, ...]:
        dims = self.dims(value)
        if None in dims:
            raise self.fail("it has no ONNX form for axes of unknown size")
        return dims  # type: ignore[return-value]

    def rank(self, value: str) -> int:
        return len(self.dims(value))

    def out_kind(self, position: int = 0) -> int:
        return element_type(self.op.outputs[position].dataType)

    def out_dims(self, position: int = 0) -> tuple[Dim, ...]:
        return dims_of(self.op.outputs[position])

    # --- nodes ------------------------------------------------------------------------------------

    def node(
        self,
        op_type: str,
        inputs: Sequence[str],
        attributes: dict[str, object] | None = None,
        *,
        kind: int | None = None,
        dims: tuple[Dim, ...] | None = None,
    ) -> str:
        """A node of one output. `kind` is the type of the result, by default that of the first input.

        Operands that the operator wants of one type are cast, and so are those of a type that the runtime
        has no kernel for, with the result.
        """
        inputs = self.alike(op_type, inputs)
        given = self.kind(inputs[0])
        computing = computing_type(op_type, given)
        result = given if kind is None else kind
        if computing != given:
            inputs = [
                self.cast(name, computing) if name and self.kind(name) == given else name for name in inputs
            ]
        output = self.temporary(computing if result == given and computing != given else result, dims)
        self.graph.add(op_type, inputs, [output], self.op.name, attributes)
        return self.cast(output, result)

    def alike(self, op_type: str, inputs: Sequence[str]) -> list[str]:
        """The operands, cast where the operator wants several of one type."""
        kinds = [self.kind(name) if name else 0 for name in inputs]
        if len(set(kinds) - {0}) < 2:
            return list(inputs)
        return self.cast_all(inputs, common_types(op_type, self.graph.opset, "", kinds)[0])

    def cast_all(self, values: Sequence[str], kinds: Sequence[int]) -> list[str]:
        return [self.cast(name, kind) if name else name for name, kind in zip(values, kinds, strict=True)]

    def nodes(
        self, op_type: str, inputs: Sequence[str], attributes: dict[str, object], kinds: list[int]
    ) -> list[str]:
        """A node of several outputs, of the given types."""
        outputs = [self.temporary(kind) for kind in kinds]
        self.graph.add(op_type, inputs, outputs, self.op.name, attributes)
        return outputs

    def temporary(self, kind: int, dims: tuple[Dim, ...] | None = None) -> str:
        base = self.op.outputs[0].name or self.op.name
        name = self.graph.unique(f"{base}_step")
        self.graph.values[name] = Value(kind, dims)
        self._temporaries.add(name)
        return name

    def keep(self, value: str) -> None:
        """Lets later ops read the value by this name: no output takes it over."""
        self._temporaries.discard(value)

    def constant(self, values: object, kind: int, hint: str = "constant") -> str:
        return self.graph.constant(np.array(values, dtype=numpy_type(kind)), f"{self.op.name}_{hint}")

    def like(self, value: str, number: float, hint: str = "constant") -> str:
        """A constant of dims [] in the type of another value."""
        return self.constant(number, self.kind(value), hint)

    def shape(self, values: Sequence[int], hint: str = "shape") -> str:
        return self.constant(list(values), INT64, hint)

    def cast(self, value: str, kind: int) -> str:
        if self.kind(value) == kind:
            return value
        output = self.temporary(kind, self.graph.values[value].dims)
        self.graph.add("Cast", [value], [output], self.op.name, {"to": kind})
        return output

    def as_bool(self, value: str) -> str:
        """Whether an element isn't 0; a Cast to bool says the same of numbers."""
        return self.cast(value, BOOL)

    def as_index(self, value: str) -> str:
        return self.cast(value, INT64)

    def reshape(self, value: str, dims: Sequence[Dim]) -> str:
        """`dims` may hold one size that isn't known."""
        tensor_dims = tuple(dims)
        if self.graph.values[value].dims == tensor_dims:
            return value
        if None not in tensor_dims:
            key = ("as", "x".join(map(str, tensor_dims)) or "scalar")
            found = self.graph.changed_constant(
                value, key, tensor_dims, lambda array: array.reshape(tensor_dims)
            )
            if found is not None:
                return found
        if tensor_dims.count(None) > 1:
            raise self.fail("more than one size of a Reshape isn't known")
        target = [-1 if size is None else size for size in tensor_dims]
        zero = {"allowzero": 1} if 0 in target and -1 not in target else None
        return self.node("Reshape", [value, self.shape(target)], zero, dims=tensor_dims)

    def transpose(self, value: str, order: Sequence[int]) -> str:
        order = tuple(order)
        if order == tuple(range(len(order))):
            return value
        dims = self.graph.values[value].dims
        after = None if dims is None else tuple(dims[axis] for axis in order)
        if after is not None and None not in after:
            key = ("transposed", "".join(map(str, order)))
            found = self.graph.changed_constant(value, key, after, lambda array: array.transpose(order))
            if found is not None:
                return found
        return self.node("Transpose", [value], {"perm": list(order)}, dims=after)

    def slice(self, value: str, begin: int, end: int, axis: int, step: int = 1) -> str:
        bounds = [self.shape([number], "bounds") for number in (begin, end, axis, step)]
        return self.node("Slice", [value, *bounds])

    # --- layout -----------------------------------------------------------------------------------

    def channel_axis(self, rank: int) -> int:
        return rank - 1 if self.graph.channel_last or rank < 2 else 1

    def channel_first(self, value: str) -> str:
        """The value with its channels behind the batch, as ONNX wants them."""
        rank = self.rank(value)
        if not self.graph.channel_last or rank < 3:
            return value
        forms = self.graph.channel_first_forms
        if value not in forms:
            forms[value] = self.transpose(value, (0, rank - 1, *range(1, rank - 1)))
            self._temporaries.discard(forms[value])
        return forms[value]

    def channel_first_dims(self, dims: tuple[Dim, ...]) -> tuple[Dim, ...]:
        return (dims[0], dims[-1], *dims[1:-1]) if self.graph.channel_last and len(dims) > 2 else dims

    def channel_first_result(self, value: str) -> None:
        """Ends an op whose result has its channels behind the batch."""
        rank = len(self.op.outputs[0].dims)
        if not self.graph.channel_last or rank < 3:
            self.result(value)
            return
        value = self.cast(value, self.out_kind())
        self.result(self.transpose(value, (0, *range(2, rank), 1)))
        self.graph.values[value] = Value(self.kind(value), self.channel_first_dims(self.out_dims()))
        self.graph.channel_first_forms[self.op.outputs[0].name] = value
        self._temporaries.discard(value)

    # --- the end ----------------------------------------------------------------------------------

    def result(self, value: str, position: int = 0) -> None:
        """Makes a value the op's output: under the output's name and in its type."""
        tensor = self.op.outputs[position]
        if not tensor.name:
            return
        value = self.cast(value, self.out_kind(position))
        graph = self.graph
        graph.values[tensor.name] = Value(self.out_kind(position), dims_of(tensor))
        nodes = graph.nodes[self._first_node :]
        if value not in self._temporaries:
            graph.add("Identity", [value], [tensor.name], self.op.name)
            return
        for node in nodes:
            for names in (node.input, node.output):
                for index, name in enumerate(names):
                    if name == value:
                        names[index] = tensor.name
        self._temporaries.discard(value)

    def require_float(self, value: str) -> str:
        """The value as a float: integers are computed in 32-bit floats."""
        return value if self.kind(value) in FLOATS else self.cast(value, FLOAT)
