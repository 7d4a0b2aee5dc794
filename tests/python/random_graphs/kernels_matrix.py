"""Kernels of matrix products and recurrent ops."""

from __future__ import annotations

import math

import numpy as np

from random_graphs.evaluator import Inconsistent, Node, contract, kernel
from random_graphs.kernels_elementwise import sigmoid


def matmul(left: np.ndarray, right: np.ndarray) -> np.ndarray:
    """[..., m, k] times [..., k, n]."""
    if left.shape[-1] != right.shape[-2]:
        raise Inconsistent(f"a product of dims {left.shape} and {right.shape}")
    return contract(left[..., :, None, :], np.swapaxes(right, -1, -2)[..., None, :, :])


@kernel("MatMul")
def matmul_op(node: Node, left: np.ndarray, right: np.ndarray, *bias: np.ndarray) -> np.ndarray:
    if node.value("transpose_in0", False):
        left = np.swapaxes(left, -1, -2)
    if node.value("transpose_in1", False):
        right = np.swapaxes(right, -1, -2)
    product = matmul(left, right)
    return product + bias[0] if bias else product


@kernel("FullyConnected")
def fully_connected(node: Node, x: np.ndarray, weight: np.ndarray, *bias: np.ndarray) -> np.ndarray:
    """The weight is [outputs, inputs] under the spatial-first order, else [inputs, outputs]."""
    weight = weight if node.channels_last else weight.T
    rank = x.ndim
    if rank == 1 or not node.value("keep_dims", False):
        x = x.reshape(-1, weight.shape[1])
    product = matmul(x, weight.T)
    product = product + bias[0] if bias else product
    return product.reshape(-1) if rank == 1 else product


@kernel("HadamardTransform")
def hadamard_transform(node: Node, x: np.ndarray) -> np.ndarray:
    size = x.shape[-1]
    if size & (size - 1):
        raise Inconsistent(f"size {size} is no power of two")
    matrix = np.ones((1, 1))
    while len(matrix) < size:
        matrix = np.block([[matrix, matrix], [matrix, -matrix]])
    product = contract(x[..., None, :], matrix)
    return float(node.value("scale", 1.0)) * product


@kernel("Inverse")
def inverse(node: Node, x: np.ndarray) -> np.ndarray:
    return np.linalg.inv(x)


def _state(node: Node, value: np.ndarray) -> np.ndarray:
    """An initial state of rank 2 or 3 as [batch, size]."""
    return value.reshape(-1, value.shape[-1])


def _steps(node: Node, x: np.ndarray) -> tuple[list[np.ndarray], int]:
    """The steps [batch, inputs] in the order of time, and the time axis."""
    if x.ndim == 2:
        return [x], 0
    axis = 0 if node.value("time_major", False) else 1
    return [step.squeeze(axis) for step in np.split(x, x.shape[axis], axis=axis)], axis


def _put_together(node: Node, hidden: list[np.ndarray], axis: int) -> np.ndarray:
    """Stored by time, in the dims of the first output."""
    return np.stack(hidden, axis=axis).reshape(node.out_dims())


def _outputs(node: Node, hidden: list[np.ndarray], axis: int, *finals: np.ndarray) -> list[np.ndarray]:
    results = [_put_together(node, hidden, axis)]
    for position, value in enumerate(finals[: len(node.op.outputs) - 1], 1):
        dims = node.out_dims(position)
        results.append(value.reshape(dims) if math.prod(dims) == value.size else value)
    return results


@kernel("Lstm")
def lstm(node: Node, *inputs: np.ndarray) -> list[np.ndarray]:
    """Inputs: x, then weights, recurrent weights and biases of the forget, cell and output gate, h0, c0;
    those of the input gate stand at 16, 17 and 21."""
    x, forget, cell, output = inputs[0], (1, 4, 7), (2, 5, 8), (3, 6, 9)
    h, c = _state(node, inputs[10]), _state(node, inputs[11])
    backwards = int(node.value("direction", 0)) == 1
    steps, axis = _steps(node, x)
    clip = float(node.value("cell_clip_threshold", 0.0))
    hidden: list[np.ndarray] = []

    def gate(step: np.ndarray, places: tuple[int, int, int]) -> np.ndarray:
        w, r, b = (inputs[place] for place in places)
        return matmul(step, w.T) + matmul(h, r.T) + b.reshape(-1)

    for step in reversed(steps) if backwards else steps:
        i, f, o = (sigmoid(gate(step, places)) for places in ((16, 17, 21), forget, output))
        c = f * c + i * np.tanh(gate(step, cell))
        c = np.clip(c, -clip, clip) if clip > 0 else c
        h = o * np.tanh(c)
        hidden.append(h)
    return _outputs(node, hidden[::-1] if backwards else hidden, axis, c, h)


@kernel("Gru")
def gru(node: Node, *inputs: np.ndarray) -> list[np.ndarray]:
    """Inputs: x, then weights, recurrent weights, biases and recurrent biases of the update gate, the reset
    gate and the candidate, and h0."""
    activations = {"Sigmoid": sigmoid, "Tanh": np.tanh, "Relu": lambda v: np.maximum(v, 0.0)}
    of_gates = activations.get(str(node.value("gate_activation", "Sigmoid")), sigmoid)
    of_candidate = activations.get(str(node.value("rec_gate_activation", "Tanh")), np.tanh)
    h = _state(node, inputs[13])
    backwards = int(node.value("direction", 0)) == 1
    reset_behind = int(node.value("linear_before_reset", 0)) != 0
    steps, axis = _steps(node, inputs[0])
    hidden: list[np.ndarray] = []

    def from_input(step: np.ndarray, gate: int) -> np.ndarray:
        return matmul(step, inputs[1 + gate].T) + inputs[7 + gate].reshape(-1)

    def from_state(state: np.ndarray, gate: int) -> np.ndarray:
        return matmul(state, inputs[4 + gate].T) + inputs[10 + gate].reshape(-1)

    for step in reversed(steps) if backwards else steps:
        z, r = (of_gates(from_input(step, gate) + from_state(h, gate)) for gate in (0, 1))
        rest = r * from_state(h, 2) if reset_behind else from_state(r * h, 2)
        n = of_candidate(from_input(step, 2) + rest)
        h = (1.0 - z) * n + z * h
        hidden.append(h)
    return _outputs(node, hidden[::-1] if backwards else hidden, axis, h)
