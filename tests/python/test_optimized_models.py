"""Networks through the whole pipeline: what is gone afterwards, and that they compute the same."""

from __future__ import annotations

import libPyGraphRefiner312 as refiner
import netforge
import onnx
import pytest
import sample_models
from import_cases import LAYOUTS
from netforge import Verdict

STAGES = [
    getattr(refiner.OptimizationStage, name) for name in ("PreLayout", "PostLayout", "PreQuant", "PostQuant")
]


def optimized(model: object, layout: str, seed: int | None = None) -> netforge.IrGraph:
    graph = netforge.from_onnx(model, layout, random_weights=seed)
    refiner.GraphRefiner(graph, STAGES, None, refiner.GraphRefinerContext()).optimize()
    assert not graph.checkInvariants()
    return graph


@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("build", [sample_models.transformer_encoder, sample_models.window_transformer])
def test_transformers_compute_the_same_on_tensors_of_five_axes(build, layout: str) -> None:
    model: onnx.ModelProto = build()
    graph = optimized(model, layout)
    report = netforge.check(model, graph, regimes=("normal", "large"))
    assert report.worst <= Verdict.ROUNDING, str(report)
    # A Reshape may take the application's own tensor apart, and join it again.
    deep = [
        f"{op.name} reads {tensor.name}{tensor.dims}"
        for op in graph.ops
        for tensor in op.inputs
        if len(tensor.dims) > 5 and op.type != "Reshape"
    ]
    assert not deep


@pytest.mark.parametrize("layout", LAYOUTS)
def test_every_approximated_gelu_becomes_one_op(layout: str) -> None:
    graph = optimized(sample_models.transformer_encoder(tanh=True, layers=3), layout)
    neurons = [op.attributes["operation"] for op in graph.ops if op.type == "ElementWiseNeuron"]
    assert neurons == [1] * 3
    assert not {"tanh", "cube"} & {op.type.lower() for op in graph.ops}


@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("network", ["squeezenet", "shufflenet", "densenet121"])
def test_vision_networks_lose_their_batchnorms(network: str, layout: str) -> None:
    path = sample_models.light_model(network)
    graph = optimized(path, layout, seed=3)
    behind = {
        op.inputs[0].producer.type for op in graph.ops if op.type == "Batchnorm" and op.inputs[0].producer
    }
    assert not behind & {"Conv2d", "DepthWiseConv2d"}
    # The double-precision run of these takes long, and the thresholds of one input regime tell enough.
    before = netforge.from_onnx(path, layout, random_weights=3)
    report = netforge.check(before, graph, regimes=("normal",), time_limit=1.0)
    assert report.worst <= Verdict.ROUNDING, str(report)
