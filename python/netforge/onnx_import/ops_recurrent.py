"""Converters of the recurrent operators: one Lstm or Gru for each direction."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
from onnx import TensorProto

from netforge.onnx_import.builder import Builder
from netforge.onnx_import.errors import NotTyped, OnnxImportError
from netforge.onnx_import.plan import Attribute
from netforge.onnx_import.preparation import Node
from netforge.onnx_import.registry import converter
from netforge.onnx_import.reshaping import add_reshape, reshape_target
from netforge.onnx_import.values import Dims

_DIRECTIONS = {"forward": (0,), "reverse": (1,), "bidirectional": (0, 1)}

# Gates in the order of ONNX's blocks, and the places of their weight, recurrent weight and bias in an Lstm.
_LSTM_GATES = {"input": (16, 17, 21), "output": (3, 6, 9), "forget": (1, 4, 7), "cell": (2, 5, 8)}
_LSTM_PLACES = 22
_GRU_GATES = ("update", "reset", "hidden")
_GRU_ACTIVATIONS = {"sigmoid": "Sigmoid", "tanh": "Tanh", "relu": "Relu"}


@dataclass
class _Result:
    """One output of the ops: its place in the ONNX node, and its dims for one direction."""

    label: str
    position: int
    dims: tuple[int, ...]


class _Layer:
    """What both operators have in common: sizes, weights by gate, states, and how results are put together.

    Weights are [directions, gates * hidden, columns], initial and final states [directions, batch, hidden]
    or, batch first, [batch, directions, hidden].
    """

    def __init__(self, builder: Builder, node: Node, gates: tuple[str, ...]) -> None:
        """Raises NotTyped for what no op of the catalogue expresses. Plans nothing."""
        self.builder, self.node, self.gates = builder, node, gates
        x = builder.type_of(node.inputs[0])
        if x.elem_type != TensorProto.FLOAT:
            raise NotTyped("it isn't of 32-bit floats")
        if not x.is_static:
            raise NotTyped("sizes of its input aren't known")
        if 0 in x.dims:
            raise NotTyped("its input has no elements")
        self.x_dims = x.dims
        self.directions = _DIRECTIONS[str(node.attributes.get("direction", "forward"))]
        self.batch_first = bool(node.attributes.get("layout", 0))
        self.batch, self.steps = x.dims[:2] if self.batch_first else x.dims[1::-1]
        self.weights = builder.required_constant(node, 1, "its weight")
        self.recurrent = builder.required_constant(node, 2, "its recurrent weight")
        self.hidden = self.recurrent.shape[-1]
        rows = len(gates) * self.hidden
        self._expect(self.weights, "weight", rows, x.dims[2])
        self._expect(self.recurrent, "recurrent weight", rows, self.hidden)
        self.biases = np.zeros((len(self.directions), 2 * rows), np.float32)
        if node.input(3):
            self.biases = builder.required_constant(node, 3, "its bias")
            self._expect(self.biases, "bias", 2 * rows)
        self._refuse_options()

    def _expect(self, array: np.ndarray, what: str, *dims: int) -> None:
        if array.shape != (len(self.directions), *dims):
            raise OnnxImportError(f"its {what} has the dims {list(array.shape)}, which don't fit its input")

    def _refuse_options(self) -> None:
        builder, node = self.builder, self.node
        if "clip" in node.attributes:
            raise NotTyped("it clips the inputs of its activations")
        if node.input(4):
            lengths = builder.required_constant(node, 4, "the list of sequence lengths")
            if (lengths != self.steps).any():
                raise NotTyped("some sequences are shorter than its input")
        for place in (5, 6):
            name = node.input(place)
            if name and builder.type_of(name).dims != self.state_dims(len(self.directions)):
                raise NotTyped("sizes of its initial state aren't those of its input")

    def activations(self, defaults: tuple[str, ...]) -> list[str]:
        """The lower-case names for one direction; both directions have the same."""
        names = [str(name).lower() for name in self.node.attributes.get("activations", [])]
        count = len(defaults)
        given = [names[start : start + count] for start in range(0, len(names), count)]
        if any(row != given[0] for row in given):
            raise NotTyped("its directions have different activations")
        return given[0] if given else list(defaults)

    def state_dims(self, directions: int) -> tuple[int, ...]:
        if self.batch_first:
            return (self.batch, directions, self.hidden)
        return (directions, self.batch, self.hidden)

    def suffix(self, index: int) -> str:
        """What tells names of two directions apart; empty for a single one."""
        return ("_forward", "_backward")[index] if len(self.directions) == 2 else ""

    # --- inputs of one direction ------------------------------------------------------------------

    def part(self, place: int, array: np.ndarray, index: int, gate: int, label: str = "gate") -> str:
        """The rows of one gate, named after the constant that they are cut from."""
        rows = array[index].reshape(-1, self.hidden, *array.shape[2:])[gate]
        name = f"{self.gates[gate % len(self.gates)]}_{label}{self.suffix(index)}"
        value = self.node.input(place)
        if not value:
            return self.builder.new_constant(f"bias_{name}", rows)
        return self.builder.get_part(value, name, rows)

    def initial_states(self, place: int, label: str) -> list[str]:
        """One tensor for each direction: [batch, hidden], or [1, batch, hidden] of what a run computes."""
        builder, name = self.builder, self.node.input(place)
        count, dims = len(self.directions), (self.batch, self.hidden)
        if not name:
            return [builder.new_constant(f"initial_{label}", np.zeros(dims, np.float32))] * count
        constant = builder.constant(name)
        if constant is not None:
            rows = constant.swapaxes(0, 1) if self.batch_first else constant
            return [builder.get_part(name, f"state{self.suffix(i)}", rows[i]) for i in range(count)]
        held = [builder.get(name)]
        if count == 2:
            one = self.state_dims(1)
            axis = 1 if self.batch_first else 0
            held = [self._temporary(f"initial_{label}{self.suffix(i)}", one) for i in range(count)]
            attributes = {"axis": np.uint32(axis), "split_index": np.array([1], np.uint32)}
            builder.add("Split", [builder.get(name)], held, attributes, f"initial_{label}")
        if not self.batch_first:
            return held
        return [
            self._reshaped(tensor, f"initial_{label}_rows{self.suffix(i)}", self.state_dims(1), dims)
            for i, tensor in enumerate(held)
        ]

    # --- the ops ----------------------------------------------------------------------------------

    def plan(
        self,
        type: str,
        inputs: list[list[str]],
        results: list[_Result],
        attributes: dict[str, Attribute],
    ) -> None:
        """Plans an op for each direction, with the outputs up to the last one that is read."""
        builder, node = self.builder, self.node
        read = [builder.is_read(node, result.position) for result in results]
        results = results[: max((i + 1 for i, wanted in enumerate(read) if wanted), default=1)]
        columns: list[list[str]] = [[] for _ in results]
        for index, direction in enumerate(self.directions):
            outputs = []
            for result, column in zip(results, columns, strict=True):
                direct = len(self.directions) == 1 and result.dims == self._dims_of(result, 1)
                if direct and builder.is_read(node, result.position):
                    column.append(builder.output(node, result.position))
                else:
                    column.append(self._temporary(result.label + self.suffix(index), result.dims))
                outputs.append(column[-1])
            own: dict[str, Attribute] = {
                "direction": np.uint32(direction),
                "time_major": not self.batch_first,
                "hidden_size": np.uint32(self.hidden),
            }
            builder.add(type, inputs[index], outputs, own | attributes, self.suffix(index).removeprefix("_"))
        for result, column in zip(results, columns, strict=True):
            if builder.is_read(node, result.position):
                self._join(result, column)

    def _dims_of(self, result: _Result, directions: int) -> tuple[int, ...]:
        """Dims of the node's output for so many directions."""
        if result.position:
            return self.state_dims(directions)
        return (*self.x_dims[:2], directions, self.hidden) if self.batch_first else (
            self.steps, directions, self.batch, self.hidden
        )  # fmt: skip

    def _join(self, result: _Result, column: list[str]) -> None:
        one = self._dims_of(result, 1)
        if len(column) == 1:
            if result.dims != one:
                output = self.builder.output(self.node, result.position)
                add_reshape(
                    self.builder, column[0], output, reshape_target(result.dims, one), f"{result.label}_shape"
                )
            return
        parts = [
            self._reshaped(tensor, f"{result.label}_shape{self.suffix(i)}", result.dims, one)
            for i, tensor in enumerate(column)
        ]
        axis = len(one) - 2 if self.batch_first else len(one) - 3
        output = self.builder.output(self.node, result.position)
        self.builder.add("Concat", parts, [output], {"axis": np.uint32(axis)}, result.label)

    def _temporary(self, suffix: str, dims: Dims) -> str:
        return self.builder.temporary(suffix, TensorProto.FLOAT, dims)

    def _reshaped(self, held: str, suffix: str, before: Dims, after: Dims) -> str:
        if before == after:
            return held
        output = self._temporary(suffix, after)
        add_reshape(self.builder, held, output, reshape_target(before, after), suffix)
        return output

    def sequence(self) -> _Result:
        return _Result("sequence", 0, (*self.x_dims[:2], self.hidden))


@converter("LSTM")
def lstm(builder: Builder, node: Node) -> None:
    layer = _Layer(builder, node, tuple(_LSTM_GATES))
    if layer.activations(("sigmoid", "tanh", "tanh")) != ["sigmoid", "tanh", "tanh"]:
        raise NotTyped("its activations aren't Sigmoid, Tanh and Tanh")
    if node.attributes.get("input_forget", 0):
        raise NotTyped("its input gate hangs on its forget gate")
    if node.input(7):
        peepholes = builder.constant(node.input(7))
        if peepholes is None or peepholes.any():
            raise NotTyped("it has peepholes")

    # The ops add one bias only.
    rows = layer.biases.reshape(len(layer.directions), 2, -1)
    bias = rows[:, 0] + rows[:, 1]
    states = layer.initial_states(5, "hidden"), layer.initial_states(6, "cell")
    arrays = {1: layer.weights, 2: layer.recurrent, 3: bias}
    inputs = []
    for index in range(len(layer.directions)):
        names = [builder.get(node.inputs[0])] + [builder.absent()] * (_LSTM_PLACES - 1)
        for gate, places in enumerate(_LSTM_GATES.values()):
            for (place, array), target in zip(arrays.items(), places, strict=True):
                names[target] = layer.part(place, array, index, gate)
        names[10], names[11] = states[0][index], states[1][index]
        inputs.append(names)
    state = (layer.batch, layer.hidden)
    layer.plan("Lstm", inputs, [layer.sequence(), _Result("cell", 2, state), _Result("hidden", 1, state)], {})


@converter("GRU")
def gru(builder: Builder, node: Node) -> None:
    layer = _Layer(builder, node, _GRU_GATES)
    activations = layer.activations(("sigmoid", "tanh"))
    if not set(activations) <= _GRU_ACTIVATIONS.keys():
        raise NotTyped("its activations aren't among Sigmoid, Tanh and Relu")

    states = layer.initial_states(5, "hidden")
    inputs = []
    for index in range(len(layer.directions)):
        names = [builder.get(node.inputs[0])]
        for place, array in ((1, layer.weights), (2, layer.recurrent)):
            names += [layer.part(place, array, index, gate) for gate in range(3)]
        names += [layer.part(3, layer.biases, index, gate) for gate in range(3)]
        names += [layer.part(3, layer.biases, index, gate, "recurrent_gate") for gate in range(3, 6)]
        inputs.append([*names, states[index]])
    attributes: dict[str, Attribute] = {
        "linear_before_reset": np.uint32(bool(node.attributes.get("linear_before_reset", 0))),
        "gate_activation": _GRU_ACTIVATIONS[activations[0]],
        "rec_gate_activation": _GRU_ACTIVATIONS[activations[1]],
    }
    state = (1, layer.batch, layer.hidden)
    layer.plan("Gru", inputs, [layer.sequence(), _Result("hidden", 1, state)], attributes)
