"""Kernels in NumPy, for any float type, of the recurrent operators.

The reference evaluator's own leave out sequence lengths and activations. What these leave out, they refuse.
Formulas: the definitions of LSTM and GRU in the ONNX standard.
"""

from __future__ import annotations

from collections.abc import Callable

import numpy as np
from onnx.reference.op_run import OpRun

# One direction of one group of sequences: x[steps, batch, inputs], the states, the parameters' place.
Pass = Callable[[np.ndarray, list[np.ndarray], int], tuple[list[np.ndarray], list[np.ndarray]]]


def _sigmoid(x: np.ndarray) -> np.ndarray:
    return 0.5 * (1.0 + np.tanh(0.5 * x))


_ACTIVATIONS = {"sigmoid": _sigmoid, "tanh": np.tanh, "relu": lambda x: np.maximum(x, 0.0)}


def _activations(names: list[str] | None, defaults: tuple[str, ...], directions: int) -> list[list]:
    """One list of functions for each direction."""
    names = [name.lower() for name in names or defaults * directions]
    if unknown := [name for name in names if name not in _ACTIVATIONS]:
        raise NotImplementedError(f"activation {unknown[0]}")
    count = len(defaults)
    return [[_ACTIVATIONS[name] for name in names[i * count : (i + 1) * count]] for i in range(directions)]


def _all_directions(
    x: np.ndarray,
    states: list[np.ndarray | None],
    lengths: np.ndarray | None,
    direction: str | None,
    layout: int | None,
    hidden: int,
    run: Pass,
) -> list[np.ndarray]:
    """Y and the final states. Sequences of one length are computed together; behind their end Y is zero."""
    x = x.swapaxes(0, 1) if layout else x
    steps, batch = x.shape[:2]
    backwards = {"forward": [False], "reverse": [True], "bidirectional": [False, True]}[
        direction or "forward"
    ]
    shape = (len(backwards), batch, hidden)
    initial = [
        np.zeros(shape, x.dtype) if state is None else state.swapaxes(0, 1) if layout else state
        for state in states
    ]
    y = np.zeros((steps, *shape), x.dtype)
    finals = [np.zeros(shape, x.dtype) for _ in initial]
    lengths = np.full(batch, steps) if lengths is None else lengths
    for place, backward in enumerate(backwards):
        for length in np.unique(lengths):
            rows = np.flatnonzero(lengths == length)
            part = x[:length, rows]
            outputs, last = run(
                part[::-1] if backward else part, [state[place, rows] for state in initial], place
            )
            for step, output in enumerate(outputs[::-1] if backward else outputs):
                y[step, place, rows] = output
            for final, value in zip(finals, last, strict=True):
                final[place, rows] = value
    if layout:
        return [y.transpose(2, 0, 1, 3), *(final.swapaxes(0, 1) for final in finals)]
    return [y, *finals]


class LSTM(OpRun):
    def _run(
        self, x, w, r, b=None, sequence_lens=None, initial_h=None, initial_c=None, p=None,
        activation_alpha=None, activation_beta=None, activations=None, clip=None, direction=None,
        hidden_size=None, input_forget=None, layout=None,
    ):  # fmt: skip
        if clip is not None or input_forget:
            raise NotImplementedError("clip and input_forget")
        hidden = r.shape[-1]
        functions = _activations(activations, ("Sigmoid", "Tanh", "Tanh"), len(w))
        bias = np.zeros((len(w), 4 * hidden), x.dtype) if b is None else sum(np.split(b, 2, axis=1))
        peepholes = np.zeros((len(w), 3 * hidden), x.dtype) if p is None else p

        def run(x, states, place):
            h, c = states
            of_gate, of_cell, of_output = functions[place]
            from_cell = np.split(peepholes[place], 3)
            outputs = []
            for step in x:
                i, o, f, cell = np.split(step @ w[place].T + h @ r[place].T + bias[place], 4, -1)
                i, f = of_gate(i + from_cell[0] * c), of_gate(f + from_cell[2] * c)
                c = f * c + i * of_cell(cell)
                h = of_gate(o + from_cell[1] * c) * of_output(c)
                outputs.append(h)
            return outputs, [h, c]

        found = _all_directions(x, [initial_h, initial_c], sequence_lens, direction, layout, hidden, run)
        return tuple(found[: len(self.onnx_node.output)])


class GRU(OpRun):
    def _run(
        self, x, w, r, b=None, sequence_lens=None, initial_h=None, activation_alpha=None,
        activation_beta=None, activations=None, clip=None, direction=None, hidden_size=None, layout=None,
        linear_before_reset=None,
    ):  # fmt: skip
        if clip is not None:
            raise NotImplementedError("clip")
        hidden = r.shape[-1]
        functions = _activations(activations, ("Sigmoid", "Tanh"), len(w))
        biases = np.zeros((len(w), 6 * hidden), x.dtype) if b is None else b

        def run(x, states, place):
            (h,) = states
            of_gate, of_candidate = functions[place]
            own, recurrent = np.split(biases[place], 2)
            r_zr, r_h = np.split(r[place], [2 * hidden])
            outputs = []
            for step in x:
                from_x = step @ w[place].T + own
                gates = of_gate(from_x[:, : 2 * hidden] + h @ r_zr.T + recurrent[: 2 * hidden])
                z, reset = np.split(gates, 2, -1)
                if linear_before_reset:
                    from_h = reset * (h @ r_h.T + recurrent[2 * hidden :])
                else:
                    from_h = (reset * h) @ r_h.T + recurrent[2 * hidden :]
                h = (1 - z) * of_candidate(from_x[:, 2 * hidden :] + from_h) + z * h
                outputs.append(h)
            return outputs, [h]

        found = _all_directions(x, [initial_h], sequence_lens, direction, layout, hidden, run)
        return tuple(found[: len(self.onnx_node.output)])


class RNN(OpRun):
    def _run(
        self, x, w, r, b=None, sequence_lens=None, initial_h=None, activation_alpha=None,
        activation_beta=None, activations=None, clip=None, direction=None, hidden_size=None, layout=None,
    ):  # fmt: skip
        if clip is not None:
            raise NotImplementedError("clip")
        hidden = r.shape[-1]
        functions = _activations(activations, ("Tanh",), len(w))
        bias = np.zeros((len(w), hidden), x.dtype) if b is None else sum(np.split(b, 2, axis=1))

        def run(x, states, place):
            (h,) = states
            outputs = []
            for step in x:
                h = functions[place][0](step @ w[place].T + h @ r[place].T + bias[place])
                outputs.append(h)
            return outputs, [h]

        found = _all_directions(x, [initial_h], sequence_lens, direction, layout, hidden, run)
        return tuple(found[: len(self.onnx_node.output)])


RECURRENT_KERNELS = [LSTM, GRU, RNN]
