"""LSTM and GRU from model to model: as ops, unrolled, expanded."""

from __future__ import annotations

import itertools
from dataclasses import dataclass

import libPyGraphRefiner312 as refiner
import netforge
import numpy as np
import onnx
import onnxruntime
import pytest
from import_cases import LAYOUTS, check_graph, node_cases, with_constants
from onnx import TensorProto, helper, numpy_helper

STAGES = [
    getattr(refiner.OptimizationStage, name) for name in ("PreLayout", "PostLayout", "PreQuant", "PostQuant")
]
EXPANDING = {
    "LSTM": ("ExpandLstmOpStructure", "UnrollLstm"),
    "GRU": ("ExpandGruOpStructure", "UnrollGruTimeSteps"),
}
OP_TYPES = {"LSTM": "Lstm", "GRU": "Gru"}
BATCH, INPUTS, HIDDEN = 2, 3, 5


@dataclass
class Case:
    """A recurrent node. `states` is "input", "constant" or "" for none; `outputs` tells which are shown."""

    kind: str
    steps: int = 4
    direction: str = "forward"
    batch_first: bool = False
    biases: bool = True
    states: str = "input"
    lengths: bool = False
    outputs: str = "sequence hidden cell"
    attributes: dict[str, object] | None = None

    def model(self, batch_first: bool) -> onnx.ModelProto:
        """The node with seeded weights. The runtime knows no batch-first form: it gets the other one."""
        random = np.random.default_rng(11)
        directions = 2 if self.direction == "bidirectional" else 1
        rows = HIDDEN * {"LSTM": 4, "GRU": 3}[self.kind]

        def weight(name: str, *dims: int) -> onnx.TensorProto:
            return numpy_helper.from_array(random.standard_normal(dims).astype(np.float32), name)

        state = (BATCH, directions, HIDDEN) if batch_first else (directions, BATCH, HIDDEN)
        x = (BATCH, self.steps, INPUTS) if batch_first else (self.steps, BATCH, INPUTS)
        constants = [weight("w", directions, rows, INPUTS), weight("r", directions, rows, HIDDEN)]
        states = ["h", "c"] if self.kind == "LSTM" else ["h"]
        names = ["x", "w", "r", "", "", *[""] * len(states)]
        if self.biases:
            names[3] = "b"
            constants.append(weight("b", directions, 2 * rows))
        if self.lengths:
            names[4] = "lengths"
            constants.append(numpy_helper.from_array(np.full(BATCH, self.steps, np.int32), "lengths"))
        inputs = [helper.make_tensor_value_info("x", TensorProto.FLOAT, x)]
        for place, name in enumerate(states, 5):
            if self.states:
                names[place] = name
            if self.states == "input":
                inputs.append(helper.make_tensor_value_info(name, TensorProto.FLOAT, state))
            elif self.states == "constant":
                values = random.standard_normal((directions, BATCH, HIDDEN)).astype(np.float32)
                array = values.swapaxes(0, 1) if batch_first else values
                constants.append(numpy_helper.from_array(np.ascontiguousarray(array), name))
        results = ["sequence", "hidden", "cell"][: 3 if self.kind == "LSTM" else 2]
        results = [name if name in self.outputs.split() else "" for name in results]
        dims = {"sequence": None, "hidden": state, "cell": state}
        dims["sequence"] = (*x[:2], directions, HIDDEN) if batch_first else (x[0], directions, x[1], HIDDEN)
        node = helper.make_node(
            self.kind,
            names,
            results,
            "layer",
            hidden_size=HIDDEN,
            direction=self.direction,
            layout=int(batch_first),
            **(self.attributes or {}),
        )
        shown = [helper.make_tensor_value_info(name, TensorProto.FLOAT, dims[name]) for name in results if name]
        graph = helper.make_graph([node], "recurrent", inputs, shown, constants)
        return helper.make_model(graph, opset_imports=[helper.make_opsetid("", 21)], ir_version=10)

    def runs(self) -> tuple[dict[str, np.ndarray], dict[str, np.ndarray]]:
        """Seeded inputs, and what the runtime computes from them, in the layout of the case."""
        model = self.model(batch_first=False)
        random = np.random.default_rng(12)
        feeds = {
            info.name: random.standard_normal([dim.dim_value for dim in info.type.tensor_type.shape.dim])
            for info in model.graph.input
        }
        feeds = {name: array.astype(np.float32) for name, array in feeds.items()}
        expected = run(model, feeds)
        if not self.batch_first:
            return feeds, expected
        feeds = {name: array.swapaxes(0, 1) for name, array in feeds.items()}
        to_batch_first = {"sequence": (2, 0, 1, 3), "hidden": (1, 0, 2), "cell": (1, 0, 2)}
        return feeds, {name: array.transpose(to_batch_first[name]) for name, array in expected.items()}


CASES = {
    "lstm": Case("LSTM", lengths=True),
    "lstm without anything": Case("LSTM", biases=False, states=""),
    "lstm, one step": Case("LSTM", steps=1),
    "lstm, reverse, cell only": Case("LSTM", direction="reverse", states="constant", outputs="cell"),
    "lstm, reverse, batch first": Case("LSTM", direction="reverse", batch_first=True),
    "lstm, both ways": Case("LSTM", direction="bidirectional"),
    "lstm, both ways, batch first": Case("LSTM", direction="bidirectional", batch_first=True),
    "lstm, both ways, one step": Case("LSTM", steps=1, direction="bidirectional", states="constant"),
    "gru": Case("GRU", lengths=True),
    "gru, one step, hidden only": Case("GRU", steps=1, outputs="hidden"),
    "gru, linear": Case("GRU", attributes={"linear_before_reset": 1}, states=""),
    "gru, relu": Case("GRU", attributes={"activations": ["relu", "Sigmoid"]}, outputs="sequence"),
    "gru, reverse, batch first": Case("GRU", direction="reverse", batch_first=True),
    "gru, both ways": Case("GRU", direction="bidirectional", biases=False),
    "gru, both ways, linear, batch first": Case(
        "GRU",
        direction="bidirectional",
        batch_first=True,
        attributes={"linear_before_reset": 1},
        states="constant",
    ),
}


def run(model: onnx.ModelProto, feeds: dict[str, np.ndarray]) -> dict[str, np.ndarray]:
    options = onnxruntime.SessionOptions()
    options.graph_optimization_level = onnxruntime.GraphOptimizationLevel.ORT_DISABLE_ALL
    session = onnxruntime.InferenceSession(
        model.SerializeToString(), options, providers=["CPUExecutionProvider"]
    )
    names = [info.name for info in session.get_outputs()]
    return dict(zip(names, session.run(None, feeds), strict=True))


def optimized(model: object, layout: str, disabled: tuple[str, ...]) -> netforge.IrGraph:
    graph = netforge.from_onnx(model, layout)
    context = refiner.GraphRefinerContext()
    if disabled:
        context.optimizer_config = {"disabledPasses": list(disabled)}
    refiner.GraphRefiner(graph, STAGES, None, context).optimize()
    assert graph.checkInvariants() == []
    return graph


def combinations(kind: str) -> list[tuple[str, ...]]:
    """What to disable: nothing, either pass, both."""
    return [row for count in range(3) for row in itertools.combinations(EXPANDING[kind], count)]


def is_left(kind: str, disabled: tuple[str, ...], steps: int) -> bool:
    """Whether recurrent ops stand in the graph when these passes don't run."""
    expand, unroll = EXPANDING[kind]
    return expand in disabled or (kind == "GRU" and unroll in disabled and steps > 1)


@pytest.mark.parametrize("name", CASES)
def test_every_form_is_imported_and_computes_the_same(name: str) -> None:
    case = CASES[name]
    model = case.model(case.batch_first)
    graph = netforge.from_onnx(model)
    check_graph(graph, model)
    count = 2 if case.direction == "bidirectional" else 1
    assert graph.countOpsOfType(OP_TYPES[case.kind]) == count
    assert not netforge.import_account(graph).plain_ops
    feeds, expected = case.runs()
    for layout, disabled in itertools.product(LAYOUTS, combinations(case.kind)):
        graph = optimized(model, layout, disabled)
        left = graph.countOpsOfType(OP_TYPES[case.kind])
        assert (left > 0) == is_left(case.kind, disabled, case.steps), disabled
        results = run(netforge.to_onnx(graph), feeds)
        assert results.keys() == expected.keys()
        for key in expected:
            np.testing.assert_allclose(results[key], expected[key], 1e-4, 1e-5, err_msg=f"{key}, {disabled}")
