"""The whole networks that tests and tables run: what installed packages ship, and what they don't ship, as
exporters write it, with seeded random weights.
"""

from __future__ import annotations

import importlib.util
from pathlib import Path

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

LIGHT = Path(onnx.__file__).parent / "backend/test/data/light"


def light_model(name: str) -> Path:
    """A vision network of the onnx package, whose weights are fills of one value."""
    return LIGHT / f"light_{name}.onnx"


def trained_model() -> Path | None:
    """A trained convolutional model, when its package is installed."""
    spec = importlib.util.find_spec("basic_pitch")
    return None if spec is None else next(Path(spec.origin).parent.rglob("*.onnx"))


def speech_model() -> Path | None:
    """A trained voice activity detector: convolutions and an LSTM over a number of windows of 576 samples."""
    spec = importlib.util.find_spec("silero_vad")
    return None if spec is None else Path(spec.origin).parent / "data/silero_vad_16k_sequence.onnx"


class Network:
    """Collects nodes and weights; every method gives the name of the tensor that it makes."""

    def __init__(self, name: str, seed: int, tanh: bool = False) -> None:
        self.name = name
        self.tanh = tanh
        self.random = np.random.default_rng(seed)
        self.nodes: list[onnx.NodeProto] = []
        self.weights: list[onnx.TensorProto] = []

    def constant(self, values: object, dtype: type = np.float32) -> str:
        name = f"{self.name}.const{len(self.weights)}"
        self.weights.append(numpy_helper.from_array(np.asarray(values, dtype), name))
        return name

    def weight(self, *dims: int) -> str:
        return self.constant(self.random.normal(0, 1 / np.sqrt(dims[0]), dims))

    def op(self, kind: str, *inputs: str, **attributes: object) -> str:
        name = f"/{self.name}/{kind}_{len(self.nodes)}_output_0"
        self.nodes.append(helper.make_node(kind, list(inputs), [name], name=name[: -len("_output_0")]))
        self.nodes[-1].attribute.extend(helper.make_attribute(key, attributes[key]) for key in attributes)
        return name

    def reshape(self, x: str, *dims: int) -> str:
        return self.op("Reshape", x, self.constant(dims, np.int64))

    def transpose(self, x: str, *perm: int) -> str:
        return self.op("Transpose", x, perm=perm)

    def linear(self, x: str, rows: int, columns: int) -> str:
        return self.op("Add", self.op("MatMul", x, self.weight(rows, columns)), self.weight(columns))

    def norm(self, x: str, width: int) -> str:
        """Layer normalisation over the last axis."""
        gamma = self.constant(self.random.uniform(0.5, 1.5, width))
        return self.op("LayerNormalization", x, gamma, self.weight(width), axis=-1, epsilon=1e-5)

    def gelu(self, x: str) -> str:
        """Exact, or the approximation by tanh as frameworks write it out."""
        if not self.tanh:
            return self.op("Gelu", x)
        cube = self.op("Pow", x, self.constant(3.0))
        inner = self.op("Add", x, self.op("Mul", cube, self.constant(0.044715)))
        scaled = self.op("Tanh", self.op("Mul", inner, self.constant(0.7978845608)))
        product = self.op("Mul", x, self.op("Add", scaled, self.constant(1.0)))
        return self.op("Mul", product, self.constant(0.5))

    def attention(self, x: str, batch: int, length: int, width: int, heads: int) -> str:
        """Self-attention on x[batch, length, width]."""
        size = width // heads
        projected = [self.reshape(self.linear(x, width, width), batch, length, heads, size) for _ in range(3)]
        query = self.transpose(projected[0], 0, 2, 1, 3)
        key = self.transpose(projected[1], 0, 2, 3, 1)
        value = self.transpose(projected[2], 0, 2, 1, 3)
        scores = self.op("Div", self.op("MatMul", query, key), self.constant(np.sqrt(size)))
        mixed = self.op("MatMul", self.op("Softmax", scores, axis=-1), value)
        joined = self.reshape(self.transpose(mixed, 0, 2, 1, 3), batch, length, width)
        return self.linear(joined, width, width)

    def block(self, x: str, batch: int, length: int, width: int, heads: int) -> str:
        """One layer of an encoder, norms in front."""
        x = self.op("Add", x, self.attention(self.norm(x, width), batch, length, width, heads))
        hidden = self.gelu(self.linear(self.norm(x, width), width, 4 * width))
        return self.op("Add", x, self.linear(hidden, 4 * width, width))

    def model(self, inputs: dict[str, list[int]], output: str, dims: list[int]) -> onnx.ModelProto:
        self.nodes.append(helper.make_node("Identity", [output], ["output"], name="output"))
        graph = helper.make_graph(
            self.nodes,
            self.name,
            [helper.make_tensor_value_info(name, TensorProto.FLOAT, inputs[name]) for name in inputs],
            [helper.make_tensor_value_info("output", TensorProto.FLOAT, dims)],
            self.weights,
        )
        model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 20)], ir_version=9)
        onnx.checker.check_model(model, full_check=True)
        return model


def transformer_encoder(tanh: bool = False, layers: int = 4) -> onnx.ModelProto:
    """An encoder with learned positions, on embeddings; with exact GELUs or with their approximation."""
    length, width, heads = 24, 48, 4
    network = Network("encoder", 5, tanh)
    x = network.op("Add", "tokens", network.weight(1, length, width))
    for _ in range(layers):
        x = network.block(x, 1, length, width, heads)
    return network.model({"tokens": [1, length, width]}, network.norm(x, width), [1, length, width])


def window_transformer(rows: int = 4, columns: int = 6, window: int = 4, width: int = 24) -> onnx.ModelProto:
    """An image model whose attention works on windows, the second layer on windows that are shifted by half
    their size: each layer goes through tensors of rank 6. Ends with a pixel shuffle written out."""
    network = Network("windows", 6)
    height, breadth = rows * window, columns * window
    patches = network.op(
        "Conv",
        "image",
        network.weight(width, 3, 2, 2),
        network.weight(width),
        kernel_shape=[2, 2],
        strides=[2, 2],
    )
    x = network.transpose(patches, 0, 2, 3, 1)
    for shift in (0, window // 2):
        x = _shifted(network, x, -shift)
        parts = network.reshape(x, 1, rows, window, columns, window, width)
        parts = network.transpose(parts, 0, 1, 3, 2, 4, 5)
        parts = network.reshape(parts, rows * columns, window * window, width)
        parts = network.block(parts, rows * columns, window * window, width, 3)
        parts = network.reshape(parts, 1, rows, columns, window, window, width)
        parts = network.transpose(parts, 0, 1, 3, 2, 4, 5)
        x = _shifted(network, network.reshape(parts, 1, height, breadth, width), shift)
    x = network.linear(network.norm(x, width), width, 12)
    blocks = network.reshape(network.transpose(x, 0, 3, 1, 2), 1, 3, 2, 2, height, breadth)
    blocks = network.transpose(blocks, 0, 1, 4, 2, 5, 3)
    size = [1, 3, 2 * height, 2 * breadth]
    return network.model({"image": size}, network.reshape(blocks, *size), size)


def _shifted(network: Network, x: str, shift: int) -> str:
    """Rolls x[1, height, breadth, width] along both of its middle axes."""
    if shift == 0:
        return x
    for axis in (1, 2):
        bounds = [(-shift, 2**31 - 1), (0, -shift)]
        parts = [
            network.op("Slice", x, *(network.constant([value], np.int64) for value in (start, end, axis)))
            for start, end in bounds
        ]
        x = network.op("Concat", *parts, axis=axis)
    return x
