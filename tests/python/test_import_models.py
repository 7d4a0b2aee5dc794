"""Whole models: the vision networks of the onnx package and a trained convolutional model."""

from __future__ import annotations

from pathlib import Path

import netforge
import numpy as np
import onnx
import onnxruntime
import pytest
import sample_models
from import_cases import COMPLETE, LAYOUTS, check_graph
from sample_models import light_model

NETWORKS = {
    "bvlc_alexnet": {"Conv2d": 5, "FullyConnected": 3, "Lrn": 2, "Pool": 3},
    "densenet121": {"Conv2d": 121, "Batchnorm": 121, "Concat": 58, "Pool": 4, "Reduce": 1},
    "inception_v1": {"Conv2d": 57, "Concat": 9, "Pool": 14, "Softmax": 1},
    "inception_v2": {"Conv2d": 69, "Batchnorm": 69, "Concat": 10, "Eltwise_Binary": 138},
    "resnet50": {"Conv2d": 53, "Batchnorm": 53, "Eltwise_Binary": 16, "FullyConnected": 1},
    "shufflenet": {"Conv2d": 33, "DepthWiseConv2d": 16, "Transpose": 16, "Reshape": 33},
    "squeezenet": {"Conv2d": 26, "Concat": 8, "Reduce": 1, "Softmax": 1},
    "vgg19": {"Conv2d": 16, "FullyConnected": 3, "Pool": 5},
    "zfnet512": {"Conv2d": 5, "Lrn": 2, "FullyConnected": 3},
}


def runtime(model: onnx.ModelProto | str) -> onnxruntime.InferenceSession:
    options = onnxruntime.SessionOptions()
    options.log_severity_level = 3
    data = model if isinstance(model, str) else model.SerializeToString()
    return onnxruntime.InferenceSession(data, options, providers=["CPUExecutionProvider"])


@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("network", NETWORKS)
def test_network_imports_whole(network: str, layout: str, capfd) -> None:
    path = light_model(network)
    graph = netforge.from_onnx(path, layout)
    check_graph(graph, onnx.load(path))
    assert capfd.readouterr().out.splitlines() == [COMPLETE]
    account = netforge.import_account(graph)
    assert not account.plain_ops
    assert {name: account.typed_ops[name] for name in NETWORKS[network]} == NETWORKS[network]
    # With the model's layout only weights of fully connected ops may need a Transpose.
    if layout == "source":
        assert account.layout_transposes <= account.typed_ops["FullyConnected"]


@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("network", ["squeezenet", "shufflenet", "inception_v1"])
def test_random_weights_are_repeatable_and_tell_layouts_apart(network: str, layout: str) -> None:
    path = light_model(network)
    image = np.random.default_rng(0).uniform(0, 1, (1, 3, 224, 224)).astype(np.float32)
    results = []
    for seed, form in ((5, layout), (5, "source"), (6, layout)):
        model = netforge.to_onnx(netforge.from_onnx(path, form, random_weights=seed))
        (result,) = runtime(model).run(None, {model.graph.input[0].name: image})
        assert np.isfinite(result).all()
        results.append(result)
    np.testing.assert_allclose(results[0], results[1], rtol=1e-3, atol=1e-5)
    assert np.abs(results[0] - results[2]).max() > 1e-5
    assert results[0].std() > 1e-5


@pytest.fixture(scope="module")
def trained_model() -> Path:
    path = sample_models.trained_model()
    if path is None:
        pytest.skip("the package basic-pitch isn't installed (pip install --no-deps basic-pitch)")
    return path


@pytest.mark.parametrize("layout", LAYOUTS)
def test_trained_model_keeps_its_values(trained_model: Path, layout: str, capfd) -> None:
    graph = netforge.from_onnx(trained_model, layout)
    check_graph(graph, onnx.load(trained_model))
    assert capfd.readouterr().out.splitlines() == [COMPLETE]
    assert not netforge.import_account(graph).plain_ops
    (data,) = graph.graphInputs
    assert list(data.dynamicAxes) == [0]
    feeds = {data.name: np.random.default_rng(1).standard_normal((2, *data.dims[1:])).astype(np.float32)}
    expected = runtime(str(trained_model)).run(None, feeds)
    for got, want in zip(runtime(netforge.to_onnx(graph)).run(None, feeds), expected, strict=True):
        np.testing.assert_allclose(got, want, rtol=1e-3, atol=1e-4)
