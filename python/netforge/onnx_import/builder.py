"""What converters plan ops with: values of the model as tensors of the IR, in the layout asked for."""

from __future__ import annotations

import numpy as np
from onnx import TensorProto

from netforge.onnx_import.errors import NotTyped, OnnxImportError
from netforge.onnx_import.layout import (
    LAST,
    SOURCE,
    SPATIAL_FORMATS,
    TO_LAST,
    TO_SOURCE,
    permuted,
    plain_format,
)
from netforge.onnx_import.plan import Attribute, Plan, PlannedOp, PlannedTensor
from netforge.onnx_import.preparation import Model, Node
from netforge.onnx_import.values import Constant, Dims, ValueType


class Builder:
    """Plans the graph of one model.

    A value of the model may stand in the plan in several forms: as the model has it, channel-last, or a
    constant with other dims. The form that is planned first bears the value's name, but for a graph input
    or output, whose name belongs to the form that the model shows. Forms are planned when they are asked for.
    """

    def __init__(self, model: Model, spatial_first: bool, spatial_values: set[str]) -> None:
        self.model = model
        self.plan = Plan()
        self.op_layout = LAST if spatial_first else SOURCE
        self.node: Node | None = None
        self._spatial_values = spatial_values
        self._forms: dict[tuple[str, object], str] = {}
        self._aliases: dict[str, str] = {}
        self.shown = frozenset(model.outputs)
        self._tensor_names = self._names_of_model()
        self._op_names = {node.name for node in model.nodes} | {node.name for node in model.folded}
        self._taken_op_names: set[str] = set()
        self._absent = ""
        for name in model.inputs:
            kind = model.type_of(name)
            self._enter(self._tensor_of(name, name, kind, SOURCE, "input"), SOURCE)

    # --- what a node says -------------------------------------------------------------------------

    def type_of(self, name: str) -> ValueType:
        return self.model.type_of(name)

    def knows(self, name: str) -> bool:
        """False for a value that nobody reads and of which nothing is known."""
        return name in self.model.readers or self.model.inference.type_of(name) is not None

    def constant(self, name: str) -> np.ndarray | None:
        """The elements of a constant; None for any other value and for an absent input."""
        found = self.model.constants.get(name)
        return None if found is None else found.array()

    def is_constant(self, name: str) -> bool:
        return name in self.model.constants

    def is_scalar_constant(self, name: str) -> bool:
        return self.is_constant(name) and not self.model.constants[name].dims

    def required_constant(self, node: Node, position: int, what: str) -> np.ndarray:
        found = self.constant(node.input(position))
        if found is None:
            raise NotTyped(f"{what} is no constant")
        return found

    def is_read(self, node: Node, position: int) -> bool:
        """Whether the node has this output and somebody reads it."""
        return node.has_output(position) and node.outputs[position] in self.model.readers

    # --- tensors ----------------------------------------------------------------------------------

    def get(self, name: str, layout: str = SOURCE) -> str:
        """Name of the tensor that holds a value in the given layout."""
        name = self._aliases.get(name, name)
        found = self._forms.get((name, layout))
        if found is not None:
            return found
        if name in self.model.constants and layout == SOURCE:
            constant = self.model.constants[name]
            if not constant.dims:
                raise NotTyped("it reads a constant of rank 0, which the IR holds as one element of dims [1]")
            return self._static_form(name, constant.dims, SOURCE)
        rank = self.type_of(name).rank
        if layout == LAST:
            return self._permuted_form(name, SOURCE, LAST, TO_LAST[rank])
        if (name, LAST) not in self._forms:
            raise OnnxImportError(f"value '{name}' is read before it is computed")
        return self._permuted_form(name, LAST, SOURCE, TO_SOURCE[rank])

    def has_layout(self, name: str, layout: str) -> bool:
        return (self._aliases.get(name, name), layout) in self._forms

    def get_with_dims(self, name: str, dims: tuple[int, ...], format: str | None = None) -> str:
        """A constant under other dims of the same elements in the same order."""
        constant = self.model.constants[name]
        if dims == constant.dims and format is None:
            return self.get(name)
        return self._static_form(name, dims, ("dims", dims, format), format)

    def get_operand(self, name: str) -> str:
        """A value for an op that takes a constant of rank 0 as one element of dims [1], as broadcasts do."""
        if self.is_scalar_constant(name):
            return self.get_with_dims(name, (1,))
        return self.get(name)

    def get_tensor_permuted(self, held: str, order: tuple[int, ...], format: str, label: str = "") -> str:
        """A tensor of the plan, such as a weight, behind a Transpose; shared by all that ask for the same."""
        found = self._forms.get((held, order))
        if found is None:
            found = self._transpose(held, order, self._free_tensor_name(f"{held}.{label or format}"), format)
            self._forms[(held, order)] = found
        return found

    def get_as(self, name: str, format: str) -> str:
        """A value as the model has it, its axis format now known."""
        tensor = self.get(name)
        record = self.plan.tensors[tensor]
        if record.role == "static":
            record.format = record.source_format = format
        return tensor

    def new_constant(self, suffix: str, array: np.ndarray, elem_type: int | None = None) -> str:
        """A constant that the node's converter computed. Named after the current node."""
        constant = Constant.from_array(np.ascontiguousarray(array), elem_type)
        name = self._free_tensor_name(f"{self._current().name}_{suffix}")
        format = plain_format(len(constant.dims))
        tensor = PlannedTensor(name, constant.elem_type, constant.dims, format, format, "static", constant)
        self.plan.tensors[name] = tensor
        return name

    def get_part(self, value: str, label: str, array: np.ndarray) -> str:
        """A constant that is cut from one of the model, named after it; all that ask for it share it."""
        key = ("part", label, array.shape)
        if (value, key) not in self._forms:
            name = self._free_tensor_name(f"{value}_{label}")
            elem_type, format = self.model.constants[value].elem_type, plain_format(array.ndim)
            constant = Constant.from_array(np.ascontiguousarray(array), elem_type)
            self._enter(
                PlannedTensor(name, elem_type, array.shape, format, format, "static", constant, value), key
            )
        return self._forms[(value, key)]

    def absent(self) -> str:
        """The null tensor, which stands at the places of inputs that an op doesn't have."""
        if not self._absent:
            self._absent = self._free_tensor_name("absent")
            self.plan.tensors[self._absent] = PlannedTensor(
                self._absent, TensorProto.FLOAT, (0,), "ANY", "ANY", "null"
            )
        return self._absent

    def temporary(self, suffix: str, elem_type: int, dims: Dims, format: str | None = None) -> str:
        """A native tensor between two ops of the current node."""
        name = self._free_tensor_name(f"{self._current().name}_{suffix}")
        format = format or plain_format(len(dims))
        self.plan.tensors[name] = PlannedTensor(name, elem_type, dims, format, format)
        return name

    def output(self, node: Node, position: int = 0, layout: str = SOURCE) -> str:
        """Plans the tensor of a node's output in the given layout."""
        value = node.outputs[position] if node.has_output(position) else ""
        if not value:
            raise OnnxImportError(
                f"output {position} is absent, and the IR can't leave out an output in the middle"
            )
        kind = self.type_of(value)
        shown = value in self.shown
        format = SPATIAL_FORMATS[kind.rank][1] if layout == LAST else ""
        name = self._free_tensor_name(f"{value}.{format}") if shown and layout == LAST else value
        role = "output" if shown and layout == SOURCE else "native"
        self._enter(self._tensor_of(name, value, kind, layout, role), layout)
        return name

    def transpose_into(self, held: str, order: tuple[int, ...], output: str) -> None:
        """Plans a Transpose that the layout asks for, into a tensor that is planned already."""
        self._plan_transpose(held, order, output)

    # --- ops --------------------------------------------------------------------------------------

    def add(
        self,
        type: str,
        inputs: list[str],
        outputs: list[str],
        attributes: dict[str, Attribute] | None = None,
        suffix: str = "",
        plain: bool = False,
    ) -> None:
        """Plans an op of the current node. The op without a suffix bears the node's name."""
        node = self._current()
        name = self._free_op_name(f"{node.name}_{suffix}") if suffix else node.name
        self._taken_op_names.add(name)
        self.plan.ops.append(PlannedOp(type, name, attributes or {}, inputs, outputs, node.name, plain))
        for output in outputs:
            self._show(output)

    def alias(self, value: str, other: str) -> None:
        """Makes a value stand for another: the node between them does nothing."""
        self._aliases[value] = self._aliases.get(other, other)

    def finish(self) -> Plan:
        """Plans what makes constants visible as graph outputs, and takes out what nobody needs."""
        for value in self.model.outputs:
            if value in self.model.inputs:
                raise OnnxImportError(
                    f"'{value}' is a graph input and a graph output; the IR can't hold both in one"
                )
            if value not in self.model.constants:
                continue
            kind = self.type_of(value)
            held = self._static_form(value, kind.dims or (1,), SOURCE)
            self.plan.tensors[value] = self._tensor_of(value, value, kind, SOURCE, "output")
            type_name, attributes = "Identity", {}
            if not kind.dims:
                type_name, attributes = "Reshape", {"shape": np.zeros(0, np.uint32)}
            self.plan.ops.append(
                PlannedOp(type_name, self._free_op_name(value), attributes, [held], [value], "")
            )
        self.plan.remove_dead()
        return self.plan

    # --- inside -----------------------------------------------------------------------------------

    def _current(self) -> Node:
        assert self.node is not None
        return self.node

    def _names_of_model(self) -> set[str]:
        names = set(self.model.inputs) | set(self.model.outputs) | set(self.model.constants)
        for node in self.model.nodes:
            names.update(node.inputs)
            names.update(node.outputs)
        names.discard("")
        return names

    def _free_tensor_name(self, base: str) -> str:
        name = base
        number = 0
        while name in self._tensor_names or name in self.plan.tensors:
            number += 1
            name = f"{base}_{number}"
        self._tensor_names.add(name)
        return name

    def _free_op_name(self, base: str) -> str:
        name = base
        number = 0
        while name in self._op_names or name in self._taken_op_names:
            number += 1
            name = f"{base}_{number}"
        self._taken_op_names.add(name)
        return name

    def _tensor_of(self, name: str, value: str, kind: ValueType, layout: str, role: str) -> PlannedTensor:
        spatial = layout == LAST or value in self._spatial_values
        source_format = SPATIAL_FORMATS[kind.rank][0] if spatial else plain_format(kind.rank)
        if layout == SOURCE:
            return PlannedTensor(
                name, kind.elem_type, kind.dims, source_format, source_format, role, source=value
            )
        dims = permuted(kind.dims, TO_LAST[kind.rank])
        format = SPATIAL_FORMATS[kind.rank][1]
        return PlannedTensor(name, kind.elem_type, dims, format, source_format, role, source=value)

    def _enter(self, tensor: PlannedTensor, key: object) -> None:
        self.plan.tensors[tensor.name] = tensor
        self._forms[(tensor.source, key)] = tensor.name

    def _static_form(self, value: str, dims: Dims, key: object, format: str | None = None) -> str:
        found = self._forms.get((value, key))
        if found is not None:
            return found
        constant = self.model.constants[value]
        name = value
        if value in self.shown or value in self.plan.tensors:
            sizes = "x".join(str(size) for size in dims)
            name = self._free_tensor_name(f"{value}_{sizes}")
        rank = len(dims)
        spatial = key == SOURCE and value in self._spatial_values
        format = format or (SPATIAL_FORMATS[rank][0] if spatial else plain_format(rank))
        self._enter(
            PlannedTensor(name, constant.elem_type, dims, format, format, "static", constant, value), key
        )
        return name

    def _permuted_form(self, value: str, before: str, after: str, order: tuple[int, ...]) -> str:
        held = self.get(value, before)
        kind = self.type_of(value)
        formats = SPATIAL_FORMATS[kind.rank]
        format = formats[0] if after == SOURCE else formats[1]
        name = (
            value if after == SOURCE and value in self.shown else self._free_tensor_name(f"{value}.{format}")
        )
        role = "output" if name == value else "native"
        result = self._transpose(held, order, name, format, role)
        self.plan.tensors[result].source_format = formats[0]
        self._forms[(value, after)] = result
        return result

    def _transpose(
        self, held: str, order: tuple[int, ...], name: str, format: str, role: str = "native"
    ) -> str:
        before = self.plan.tensors[held]
        self.plan.tensors[name] = PlannedTensor(
            name,
            before.elem_type,
            permuted(before.dims, order),
            format,
            before.source_format,
            role,
            source=before.source,
        )
        self._plan_transpose(held, order, name)
        return name

    def _plan_transpose(self, held: str, order: tuple[int, ...], output: str) -> None:
        node = self.node.name if self.node is not None else ""
        attributes: dict[str, Attribute] = {"perm": np.array(order, np.uint32)}
        op_name = self._free_op_name(output)
        self.plan.ops.append(
            PlannedOp("Transpose", op_name, attributes, [held], [output], node, for_layout=True)
        )

    def _show(self, tensor: str) -> None:
        """A graph output that was computed channel-last is shown as the model has it, right away."""
        record = self.plan.tensors[tensor]
        value = record.source
        if value and value in self.shown and self._forms.get((value, LAST)) == tensor:
            self.get(value, SOURCE)
