"""Writers of the recurrent ops, which were neither expanded nor unrolled."""

from __future__ import annotations

from collections.abc import Sequence

from netforge.onnx_export.element_types import FLOAT
from netforge.onnx_export.op_writer import OpWriter
from netforge.onnx_export.registry import writer

# Places of an Lstm's weights, recurrent weights and biases in the order of ONNX's blocks: input, output,
# forget and cell gate.
_LSTM_WEIGHTS, _LSTM_RECURRENT, _LSTM_BIASES = (16, 3, 1, 2), (17, 6, 4, 5), (21, 9, 7, 8)
_LSTM_STATES = (10, 11)
_LSTM_LAST_PLACE = 24
# Activations that need no parameters of their own.
_ACTIVATIONS = ("Sigmoid", "Tanh", "Relu", "Softsign", "Softplus")


def _value(op: OpWriter, place: int) -> str:
    if not op.input(place):
        raise op.fail(f"its input {place} is absent")
    return op.cast(op.input(place), FLOAT)


def _matrix(op: OpWriter, place: int) -> tuple[int, int]:
    """Rows and columns of a weight."""
    dims = op.static_dims(_value(op, place))
    if len(dims) != 2:
        raise op.fail(f"its input {place} is no matrix")
    return dims


def _joined(op: OpWriter, places: Sequence[int], dims: tuple[int, ...], hint: str) -> str:
    """Inputs behind one another along axis 0, as a tensor of the given dims that zeros fill up."""
    values = [_value(op, place) for place in places]
    found = op.graph.joined_constants(values, dims, f"{op.op.name}_{hint}")
    if found is not None:
        return found
    rows = dims[1]
    if len(dims) == 2:  # biases, of which one may be [1, hidden]
        values = [op.reshape(value, (op.static_dims(value)[-1],)) for value in values]
        missing = rows - sum(op.static_dims(value)[0] for value in values)
        if missing:
            values.append(op.constant([0.0] * missing, FLOAT, "zeros"))
    return op.reshape(op.node("Concat", values, {"axis": 0}), dims)


def _time_major(op: OpWriter) -> tuple[str, bool]:
    """x as [steps, batch, inputs], and whether its first two axes had to change places."""
    x = _value(op, 0)
    if op.rank(x) == 2:
        return op.reshape(x, (1, *op.dims(x))), False
    if op.rank(x) != 3:
        raise op.fail(f"its input is of rank {op.rank(x)}, expected 2 or 3")
    if op.attribute("time_major", False):
        return x, False
    return op.transpose(x, (1, 0, 2)), True


def _write(
    op: OpWriter,
    operator: str,
    parameters: list[str],
    states: Sequence[int],
    order: Sequence[int],
    attributes: dict[str, object],
) -> None:
    """The node. `order` gives for each output of the op the output of the node."""
    x, swapped = _time_major(op)
    steps, batch, _ = op.static_dims(x)
    hidden = op.static_dims(parameters[1])[-1]
    initial = [op.reshape(_value(op, place), (1, batch, hidden)) for place in states]
    attributes = {"hidden_size": hidden, **attributes}
    if op.attribute("direction", 0):
        attributes["direction"] = "reverse"
    results = op.nodes(operator, [x, *parameters, "", *initial], attributes, [FLOAT] * len(order))
    for position in range(len(op.op.outputs)):
        value = results[order[position]]
        if position == 0 and swapped:
            value = op.transpose(op.reshape(value, (steps, batch, hidden)), (1, 0, 2))
        else:
            value = op.reshape(value, op.out_dims(position))
        op.result(value, position)


@writer("Lstm")
def lstm(op: OpWriter) -> None:
    for name in ("cell_clip_threshold", "output_clip_threshold"):
        if op.attribute(name, 0.0):
            raise op.fail(f"it has a {name}, which ONNX doesn't know")
    if op.attribute("reset_state_at_time_step_0", False):
        raise op.fail("it resets its state, which ONNX doesn't know")
    known = {0, *range(1, 12), *_LSTM_WEIGHTS, *_LSTM_RECURRENT, *_LSTM_BIASES}
    for place in set(range(_LSTM_LAST_PLACE + 1)) - known:
        if op.input(place):
            raise op.fail(f"its input {place} has no counterpart in ONNX")

    rows, columns = _matrix(op, _LSTM_WEIGHTS[0])
    hidden = _matrix(op, _LSTM_RECURRENT[0])[1]
    parameters = [
        _joined(op, _LSTM_WEIGHTS, (1, 4 * rows, columns), "weight"),
        _joined(op, _LSTM_RECURRENT, (1, 4 * rows, hidden), "recurrent_weight"),
        _joined(op, _LSTM_BIASES, (1, 8 * rows), "bias"),
    ]
    _write(op, "LSTM", parameters, _LSTM_STATES, (0, 2, 1), {})


@writer("Gru")
def gru(op: OpWriter) -> None:
    activations = [
        str(op.attribute("gate_activation", "Sigmoid")),
        str(op.attribute("rec_gate_activation", "Tanh")),
    ]
    for name in activations:
        if name not in _ACTIVATIONS:
            raise op.fail(f"it has the activation '{name}', expected one of {', '.join(_ACTIVATIONS)}")
    rows, columns = _matrix(op, 1)
    parameters = [
        _joined(op, (1, 2, 3), (1, 3 * rows, columns), "weight"),
        _joined(op, (4, 5, 6), (1, 3 * rows, rows), "recurrent_weight"),
        _joined(op, range(7, 13), (1, 6 * rows), "bias"),
    ]
    attributes: dict[str, object] = {"linear_before_reset": int(bool(op.attribute("linear_before_reset", 0)))}
    if activations != ["Sigmoid", "Tanh"]:
        attributes["activations"] = activations
    _write(op, "GRU", parameters, (13,), (0, 1), attributes)
