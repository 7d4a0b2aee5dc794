"""Plants for the passes that unroll and expand recurrent ops."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass

from random_graphs.builder import ADD, Builder
from random_graphs.plants import plant


@dataclass
class Layer:
    """What the ops of one plant have in common."""

    batch: int
    steps: int
    hidden: int
    time_major: bool

    def sequence(self, width: int) -> list[int]:
        return [self.steps, self.batch, width] if self.time_major else [self.batch, self.steps, width]


def _layer(b: Builder) -> Layer:
    steps = b.pick([1, 1, 1, 2, 3, 3, 17])
    return Layer(b.pick([1, 2, 3]), steps, b.pick([2, 4, 5]), b.chance(0.5))


def _weights(b: Builder, width: int, hidden: int, gates: int) -> list[str]:
    """Input weights, recurrent weights and biases of all gates, in this order."""
    shapes = [[hidden, width]] * gates + [[hidden, hidden]] * gates + [[hidden]] * gates
    return [b.random_constant(shape) for shape in shapes]


def _state(b: Builder, layer: Layer) -> str:
    dims = [layer.batch, layer.hidden] if b.chance(0.5) else [1, layer.batch, layer.hidden]
    return b.random_constant(dims) if b.chance(0.4) else b.tensor(dims)


def _shapes(b: Builder, x: str, layer: Layer, rank: int) -> list[str]:
    """The dims of all outputs: without them an op must have every output. The states have this rank."""
    sequence = [*b.dims(x)[:-1], layer.hidden]
    state = [1, layer.batch, layer.hidden][3 - rank :]
    return [f"[{','.join(str(size) for size in dims)}]" for dims in (sequence, state, state)]


def _lstm(b: Builder, x: str, layer: Layer, weights: list[str], states: list[str], backward: bool) -> str:
    inputs, recurrents, biases = weights[:4], weights[4:8], weights[8:12]
    empty = b.fresh("null")
    b.write(f"null {empty}[0] f32")
    operands = [x, *inputs[1:], *recurrents[1:], *biases[1:], *states, *[empty] * 4]  # 12 to 15
    operands += [inputs[0], recurrents[0], *[empty] * 3, biases[0]]
    outputs = b.op(
        "Lstm",
        operands,
        _shapes(b, x, layer, 2)[: b.pick([1, 2, 3, 3])],
        hidden_size=layer.hidden,
        time_major=layer.time_major,
        direction=int(backward),
    )
    return _handed_out(b, outputs, layer)


def _gru(b: Builder, x: str, layer: Layer, weights: list[str], state: str, backward: bool) -> str:
    outputs = b.op(
        "Gru",
        [x, *weights, state],
        _shapes(b, x, layer, 3)[: b.pick([1, 2, 2])],
        hidden_size=layer.hidden,
        time_major=layer.time_major,
        direction=int(backward),
        linear_before_reset=b.pick([0, 1]),
        gate_activation=b.pick(["Sigmoid", "Sigmoid", "Tanh"]),
        rec_gate_activation=b.pick(["Tanh", "Tanh", "Relu"]),
    )
    return _handed_out(b, outputs, layer)


def _handed_out(b: Builder, outputs: str | list[str], layer: Layer) -> str:
    """Readers of the outputs of all kinds; returns the sequence."""
    names = [outputs] if isinstance(outputs, str) else outputs
    for name in names:
        b.share(name, 0.3)
    flat = [layer.batch * layer.steps, layer.hidden]
    for _ in range(b.pick([0, 1, 2])):
        match b.rng.randrange(4):
            case 0:
                b.reshape(names[0], b.pick([flat, flat, [*flat, 1], flat[::-1]]))
            case 1:
                b.op("Reduce", [names[0]], axes=[b.pick([0, 1])], keep_dims=False, reduce_type="ReduceSum")
            case 2 if layer.steps == 1 and not layer.time_major:
                shape = [3, layer.hidden] if b.spatial_first else [layer.hidden, 3]
                weight = b.random_constant(shape)
                b.op("FullyConnected", [names[0], weight], transpose_b=not b.spatial_first)
            case _:
                b.eltwise(ADD, names[0], names[0])
    return names[0]


def _network(b: Builder, layer: Layer, gates: int, build: Callable[[str, list[str], bool], str]) -> None:
    """One op, a stack of two, a bidirectional pair, or two ops with the same weights."""
    width = b.pick([2, 3])
    x = b.tensor(layer.sequence(width))
    weights = _weights(b, width, layer.hidden, gates)
    backward = b.chance(0.4)
    y = build(x, weights, backward)
    arrangement = b.rng.randrange(4)
    if arrangement == 1:
        build(y, _weights(b, layer.hidden, layer.hidden, gates), b.chance(0.4))
    elif arrangement == 2:
        other = build(x, _weights(b, width, layer.hidden, gates), not backward)
        b.op("Concat", [y, other], axis=2)
    elif arrangement == 3:
        others = weights if b.chance(0.7) else [weights[0], *_weights(b, width, layer.hidden, gates)[1:]]
        build(b.pick([x, b.tensor(layer.sequence(width))]), others, b.chance(0.4))


@plant("ExpandLstmOpStructure", "UnrollLstm")
def lstms(b: Builder) -> None:
    layer = _layer(b)
    states = [_state(b, layer), _state(b, layer)]
    if b.chance(0.7):
        states[1] = states[0] if b.chance(0.3) else b.tensor(b.dims(states[0]))
    _network(b, layer, 4, lambda x, weights, back: _lstm(b, x, layer, weights, states, back))


@plant("ExpandLstmOpStructure", "UnrollLstm")
def lstm_of_one_step_without_time(b: Builder) -> None:
    layer = Layer(b.pick([1, 2, 3]), 1, b.pick([2, 4]), b.chance(0.5))
    x = b.tensor([layer.batch, 3])
    states = [b.tensor([layer.batch, layer.hidden]) for _ in range(2)]
    _lstm(b, x, layer, _weights(b, 3, layer.hidden, 4), states, b.chance(0.4))


@plant("UnrollGruTimeSteps", "ExpandGruOpStructure")
def grus(b: Builder) -> None:
    layer = _layer(b)
    state = _state(b, layer)

    def build(x: str, weights: list[str], backward: bool) -> str:
        return _gru(b, x, layer, [*weights, *_weights(b, 1, layer.hidden, 3)[6:]], state, backward)

    _network(b, layer, 3, build)
