"""Seeded random values in the place of weights that a model fills with one value."""

from __future__ import annotations

import math

import numpy as np
import onnx

# Consumers that hand a fill on in another form.
_FORWARDING = frozenset(
    ("Identity", "Unsqueeze", "Squeeze", "Reshape", "Flatten", "Transpose", "Cast", "Expand")
)

# Operator -> role of each of its inputs, by position.
_ROLES = {
    "Conv": {1: "conv_weight", 2: "bias"},
    "ConvTranspose": {1: "transposed_weight", 2: "bias"},
    "Gemm": {1: "matrix", 2: "bias"},
    "MatMul": {0: "matrix", 1: "matrix"},
    "BatchNormalization": {1: "scale", 2: "bias", 3: "bias", 4: "variance"},
    "InstanceNormalization": {1: "scale", 2: "bias"},
    "LayerNormalization": {1: "scale", 2: "bias"},
    "Add": {0: "bias", 1: "bias"},
    "Sum": {0: "bias", 1: "bias"},
}


class FillRoles:
    """What the fills of a model serve for, told by the operators that read them."""

    def __init__(self, graph: onnx.GraphProto) -> None:
        self._readers: dict[str, list[tuple[onnx.NodeProto, int]]] = {}
        for node in graph.node:
            for position, name in enumerate(node.input):
                self._readers.setdefault(name, []).append((node, position))

    def role_of(self, name: str) -> str:
        """One of the roles of `draw`; "scale" for a fill that no operator of the table reads."""
        seen = {name}
        waiting = [name]
        while waiting:
            for node, position in self._readers.get(waiting.pop(), ()):
                role = _ROLES.get(node.op_type, {}).get(position)
                if role == "matrix" and node.op_type == "Gemm" and _int_attribute(node, "transB"):
                    return "matrix_transposed"
                if role is not None:
                    return role
                if node.op_type in _FORWARDING and position == 0:
                    fresh = [output for output in node.output if output not in seen]
                    seen.update(fresh)
                    waiting.extend(fresh)
        return "scale"


def _int_attribute(node: onnx.NodeProto, name: str) -> int:
    return next((attribute.i for attribute in node.attribute if attribute.name == name), 0)


def draw(role: str, dims: tuple[int, ...], key: tuple[int, int]) -> np.ndarray:
    """Values of a role, the same for the same key in every process.

    Weights have the variance 2 / fan-in, which keeps the variance of activations through a chain of
    rectified layers (He et al., 2015); scales and variances are positive and around one, biases are small.
    """
    random = np.random.default_rng(list(key))
    if role in ("scale", "variance"):
        return random.uniform(0.5, 1.5, dims).astype(np.float32)
    if role == "bias":
        return random.uniform(-0.1, 0.1, dims).astype(np.float32)
    fan_in = {
        "conv_weight": math.prod(dims[1:]),
        "transposed_weight": dims[0] * math.prod(dims[2:]) if dims else 1,
        "matrix": dims[-2] if len(dims) > 1 else 1,
        "matrix_transposed": dims[-1] if dims else 1,
    }[role]
    values = random.standard_normal(dims, np.float32)
    values *= np.float32(math.sqrt(2.0 / max(fan_in, 1)))
    return values
