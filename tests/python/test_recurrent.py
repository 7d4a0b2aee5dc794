"""LSTM and GRU from model to model: as ops, unrolled, expanded."""

from __future__ import annotations

import itertools

import libPyGraphRefiner312 as refiner
import netforge
import numpy as np
import onnx
import onnxruntime
import pytest
import sample_models
from export_graphs import one_op_graph, run
from import_cases import LAYOUTS, check_graph, node_cases, with_constants
from netforge import OnnxExportError, Verdict
from netforge.checking import Checker
from onnx import helper
from recurrent_cases import FORMS, PLAIN, UNCHECKED, Case

STAGES = [
    getattr(refiner.OptimizationStage, name) for name in ("PreLayout", "PostLayout", "PreQuant", "PostQuant")
]
EXPANDING = {
    "Lstm": ("ExpandLstmOpStructure", "UnrollLstm"),
    "Gru": ("ExpandGruOpStructure", "UnrollGruTimeSteps"),
}
OP_TYPES = {"LSTM": "Lstm", "GRU": "Gru"}


def optimized(model: object, layout: str, disabled: tuple[str, ...] = (), **options) -> netforge.IrGraph:
    graph = netforge.from_onnx(model, layout, **options)
    context = refiner.GraphRefinerContext()
    if disabled:
        context.optimizer_config = {"disabledPasses": list(disabled)}
    refiner.GraphRefiner(graph, STAGES, None, context).optimize()
    assert graph.checkInvariants() == []
    return graph


def combinations(op_type: str) -> list[tuple[str, ...]]:
    """What to disable: nothing, either pass, both."""
    return [row for count in range(3) for row in itertools.combinations(EXPANDING[op_type], count)]


def assert_expanded(graph: netforge.IrGraph, op_type: str, disabled: tuple[str, ...], steps: int) -> None:
    """Recurrent ops are left only where these passes don't run."""
    expand, unroll = EXPANDING[op_type]
    is_left = expand in disabled or (op_type == "Gru" and unroll in disabled and steps > 1)
    assert (graph.countOpsOfType(op_type) > 0) == is_left, disabled


def assert_precise(checker: Checker, graph: netforge.IrGraph) -> None:
    report = checker.check(graph)
    assert report.precision == "double (reference)", report.notes
    assert report.worst <= Verdict.ROUNDING, str(report)
    # Another formula in double precision would show as noise, and would hide as much of a difference.
    assert max(output.regimes["normal"].noise for output in report.outputs) < 1e-5


@pytest.mark.parametrize("name", FORMS)
def test_every_form_computes_the_same_with_and_without_each_pass(name: str) -> None:
    case = FORMS[name]
    op_type = OP_TYPES[case.kind]
    model = case.model()
    for layout in LAYOUTS:
        graph = netforge.from_onnx(model, layout)
        assert graph.countOpsOfType(op_type) == (2 if case.direction == "bidirectional" else 1)
        assert not netforge.import_account(graph).plain_ops
    with Checker(case.model(steps_first=True)) as checker:
        for layout, disabled in itertools.product(LAYOUTS, combinations(op_type)):
            graph = optimized(model, layout, disabled)
            assert_expanded(graph, op_type, disabled, case.steps)
            assert_precise(checker, graph)


@pytest.mark.parametrize("name", PLAIN | UNCHECKED)
def test_what_no_op_expresses_stays_and_is_named(name: str) -> None:
    case, reason = (PLAIN | UNCHECKED)[name]
    model = case.model()
    graph = netforge.from_onnx(model)
    assert netforge.import_account(graph).plain_reasons == {"layer": reason}
    with Checker(model) as checker:
        if name in PLAIN:
            assert_precise(checker, graph)
        else:
            assert checker.check(graph).worst == Verdict.SAME_BITS


def test_variable_weights_and_sizes_stay_plain() -> None:
    model = Case("LSTM").model()
    del model.graph.initializer[0]
    model.graph.input.append(helper.make_tensor_value_info("w", onnx.TensorProto.FLOAT, [1, 20, 3]))
    graph = netforge.from_onnx(model)
    assert netforge.import_account(graph).plain_reasons == {"layer": "its weight is no constant"}
    model = Case("GRU").model()
    model.graph.input[0].type.tensor_type.shape.dim[0].dim_param = "steps"
    graph = netforge.from_onnx(model)
    assert netforge.import_account(graph).plain_reasons == {"layer": "sizes of its input aren't known"}


def test_nodes_that_share_weights_share_tensors() -> None:
    model = Case("LSTM").model()
    (node,) = model.graph.node
    again = onnx.NodeProto()
    again.CopyFrom(node)
    again.name, again.output[:] = "again", ["sequence2", "hidden2", "cell2"]
    model.graph.node.append(again)
    model.graph.output.extend(list(model.graph.output))
    for info, name in zip(model.graph.output[3:], again.output, strict=True):
        info.name = name
    graph = netforge.from_onnx(model)
    first, second = graph.ops[0], next(op for op in graph.ops if op.name == "again")
    assert [tensor.name for tensor in first.inputs] == [tensor.name for tensor in second.inputs]
    assert {tensor.tensorType for tensor in first.inputs[12:16]} == {netforge.TensorType.Null}


@pytest.mark.parametrize(
    ("op_type", "change", "message"),
    [
        ("Lstm", {"cell_clip_threshold": 0.5}, "it has a cell_clip_threshold, which ONNX doesn't know"),
        ("Lstm", {"reset_state_at_time_step_0": True}, "it resets its state, which ONNX doesn't know"),
        ("Gru", {"gate_activation": "Gelu"}, "it has the activation 'Gelu', expected one of "),
    ],
)
def test_the_export_names_what_onnx_lacks(op_type: str, change: dict, message: str) -> None:
    graph = netforge.from_onnx(Case(op_type.upper()).model())
    (op,) = (op for op in graph.ops if op.type == op_type)
    for name, value in change.items():
        op.attributes.add(name, value, 1)
    with pytest.raises(OnnxExportError, match=message):
        netforge.to_onnx(graph)


def test_weights_that_a_run_computes_are_written_too() -> None:
    random = np.random.default_rng(3)
    dims = [(4, 2, 3), *[(5, 3)] * 3, *[(5, 5)] * 3, *[(5,)] * 6, (2, 5)]
    arrays = [random.standard_normal(size).astype(np.float32) for size in dims]
    shapes = [np.zeros(size, np.float32) for size in ((4, 2, 5), (1, 2, 5))]
    values = {"hidden_size": np.uint32(5), "time_major": True}
    results = []
    for static in ((), range(1, 13)):
        model = netforge.to_onnx(one_op_graph("Gru", values, arrays, shapes, static=static))
        results.append(run(model, {f"x{place}": array for place, array in enumerate(arrays)}))
    for computed, constant in zip(*results, strict=True):
        np.testing.assert_allclose(computed, constant, 1e-5, 1e-6)


def published_cases() -> list[tuple[object, onnx.ModelProto]]:
    """The onnx package's cases of both operators, their weights constant."""
    found = [case for case in node_cases() if case.model.graph.node[0].op_type in OP_TYPES]
    return [(case, with_constants(case)) for case in found if not case.name.endswith("_expanded")]


def test_published_results_come_out_with_and_without_each_pass() -> None:
    compared = 0
    for case, model in published_cases():
        op_type = OP_TYPES[model.graph.node[0].op_type]
        x, results = case.data_sets[0][0][0], case.data_sets[0][1]
        check_graph(netforge.from_onnx(model), model)
        for layout, disabled in itertools.product(LAYOUTS, combinations(op_type)):
            graph = optimized(model, layout, disabled)
            if case.name != "test_lstm_with_peepholes":  # a plain op
                steps = x.shape[1 if "batchwise" in case.name else 0]
                assert_expanded(graph, op_type, disabled, steps)
            exported = netforge.to_onnx(graph).SerializeToString()
            session = onnxruntime.InferenceSession(exported, providers=["CPUExecutionProvider"])
            found = session.run(None, {session.get_inputs()[0].name: x})
            for got, wanted in zip(found, results, strict=True):
                np.testing.assert_allclose(got, wanted, 1e-3, 1e-6, err_msg=f"{case.name}, {disabled}")
            compared += 1
    assert compared >= 8 * 7


@pytest.mark.parametrize("layout", LAYOUTS)
def test_a_trained_speech_model_loses_its_lstm(layout: str) -> None:
    path = sample_models.speech_model()
    if path is None:
        pytest.skip("the package silero-vad isn't installed (pip install --no-deps silero-vad)")
    graph = optimized(path, layout, input_shapes={"input": [5, 576]})
    assert not graph.countOpsOfType("Lstm") and graph.countOpsOfType("MatMul") == 2 * 5
    report = netforge.check(path, graph, sizes={"sequence_length": 5})
    assert report.worst <= Verdict.ROUNDING, str(report)
