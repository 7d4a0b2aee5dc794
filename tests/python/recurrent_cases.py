"""Models of one recurrent node, in every form that the operators have."""

from __future__ import annotations

from dataclasses import dataclass, field

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

BATCH, INPUTS, HIDDEN = 2, 3, 5
GATES = {"LSTM": 4, "GRU": 3, "RNN": 1}


@dataclass
class Case:
    """`states` is "input", "constant" or "" for none; `outputs` tells which of the node's are shown."""

    kind: str
    steps: int = 4
    direction: str = "forward"
    batch_first: bool = False
    biases: bool = True
    states: str = "input"
    lengths: tuple[int, ...] = ()
    peepholes: bool = False
    outputs: tuple[str, ...] = ("sequence", "hidden", "cell")
    attributes: dict[str, object] = field(default_factory=dict)

    def model(self, steps_first: bool = False) -> onnx.ModelProto:
        """With seeded weights. The runtime has no kernel for a node with the batch first: `steps_first` puts
        Transposes around one without, which computes the same from the same inputs."""
        random = np.random.default_rng(11)
        count = 2 if self.direction == "bidirectional" else 1
        rows = HIDDEN * GATES[self.kind]
        swapped = steps_first and self.batch_first
        inputs, constants, nodes, results, shown = [], [], [], [], []

        def constant(name: str, *dims: int) -> str:
            array = random.normal(0, 0.4, dims).astype(np.float32)
            constants.append(numpy_helper.from_array(array, name))
            return name

        def data(name: str, *dims: int, show: bool = True) -> str:
            """An input, or a constant, given its dims with the batch second."""
            held = (dims[1], dims[0], *dims[2:]) if self.batch_first else dims
            if show:
                inputs.append(helper.make_tensor_value_info(name, TensorProto.FLOAT, held))
            else:
                constant(name, *held)
            if not swapped:
                return name
            nodes.append(helper.make_node("Transpose", [name], [f"{name}_swapped"], perm=[1, 0, 2]))
            return f"{name}_swapped"

        names = [data("x", self.steps, BATCH, INPUTS)]
        names += [constant("w", count, rows, INPUTS), constant("r", count, rows, HIDDEN)]
        names.append(constant("b", count, 2 * rows) if self.biases else "")
        names.append("lengths" if self.lengths else "")
        constants.append(numpy_helper.from_array(np.array(self.lengths, np.int32), "lengths"))
        for name in ("h", "c")[: 2 if self.kind == "LSTM" else 1] if self.states else ():
            names.append(data(name, count, BATCH, HIDDEN, show=self.states == "input"))
        if self.peepholes:
            names.append(constant("p", count, 3 * HIDDEN))
        for name in ("sequence", "hidden", "cell")[: 3 if self.kind == "LSTM" else 2]:
            whole = name == "sequence"
            results.append(name if name in self.outputs else "")
            if name not in self.outputs:
                continue
            shown.append(helper.make_tensor_value_info(name, TensorProto.FLOAT, [None] * (4 if whole else 3)))
            if swapped:
                results[-1] = f"{name}_swapped"
                perm = [2, 0, 1, 3] if whole else [1, 0, 2]
                nodes.append(helper.make_node("Transpose", results[-1:], [name], perm=perm))
        attributes = {"hidden_size": HIDDEN, "direction": self.direction, **self.attributes}
        if self.batch_first and not swapped:
            attributes["layout"] = 1
        place = sum(node.input[0] in ("x", "h", "c") for node in nodes)
        nodes.insert(place, helper.make_node(self.kind, names, results, "layer", **attributes))
        graph = helper.make_graph(nodes, "recurrent", inputs, shown, constants)
        return helper.make_model(graph, opset_imports=[helper.make_opsetid("", 21)], ir_version=10)


FORMS = {
    "lstm": Case("LSTM", lengths=(4, 4)),
    "lstm, nothing given": Case("LSTM", biases=False, states=""),
    "lstm, one step": Case("LSTM", steps=1),
    "lstm, reverse, cell only": Case("LSTM", direction="reverse", states="constant", outputs=("cell",)),
    "lstm, reverse, batch first": Case("LSTM", direction="reverse", batch_first=True),
    "lstm, both ways": Case("LSTM", direction="bidirectional"),
    "lstm, both ways, batch first": Case("LSTM", direction="bidirectional", batch_first=True),
    "lstm, both ways, one step": Case("LSTM", steps=1, direction="bidirectional", states="constant"),
    "gru": Case("GRU", lengths=(4, 4)),
    "gru, one step, hidden only": Case("GRU", steps=1, outputs=("hidden",)),
    "gru, linear": Case("GRU", attributes={"linear_before_reset": 1}, states=""),
    "gru, relu": Case("GRU", attributes={"activations": ["relu", "Sigmoid"]}, outputs=("sequence",)),
    "gru, reverse, batch first": Case("GRU", direction="reverse", batch_first=True),
    "gru, both ways, no biases": Case("GRU", direction="bidirectional", biases=False),
    "gru, both ways, linear, batch first": Case(
        "GRU", direction="bidirectional", batch_first=True, states="constant",
        attributes={"linear_before_reset": 1},
    ),
}  # fmt: skip

# What no op expresses, and the reason that the account gives.
PLAIN = {
    "peepholes": (Case("LSTM", peepholes=True), "it has peepholes"),
    "short": (
        Case("LSTM", direction="bidirectional", lengths=(4, 2)), "some sequences are shorter than its input"),
    "short, gru": (Case("GRU", lengths=(1, 3)), "some sequences are shorter than its input"),
    "activations": (
        Case("LSTM", attributes={"activations": ["Sigmoid", "Relu", "Tanh"]}),
        "its activations aren't Sigmoid, Tanh and Tanh"),
    "activations of one direction": (
        Case("GRU", direction="bidirectional", attributes={"activations": [*["Tanh"] * 3, "Relu"]}),
        "its directions have different activations"),
    "rnn": (Case("RNN", direction="bidirectional", lengths=(3, 4)),
        "no op of the catalogue stands for this operator"),
}  # fmt: skip
# The same where the check has no kernel in double precision, either.
UNCHECKED = {
    "clip": (Case("GRU", attributes={"clip": 0.5}), "it clips the inputs of its activations"),
    "coupled": (Case("LSTM", attributes={"input_forget": 1}), "its input gate hangs on its forget gate"),
    "activations of the gru": (
        Case("GRU", attributes={"activations": ["Softsign", "Tanh"]}),
        "its activations aren't among Sigmoid, Tanh and Relu"),
}  # fmt: skip
