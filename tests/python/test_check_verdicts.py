"""The judgement of two runs, and of two models."""

from __future__ import annotations

import netforge
import numpy as np
import onnx
import pytest
from netforge.checking.comparison import compare
from netforge.checking.kernels import FAST_KERNELS
from onnx import TensorProto, helper, numpy_helper
from onnx.reference import ReferenceEvaluator

Verdict = netforge.Verdict
BASE = np.linspace(-2, 2, 101).astype(np.float32)
EXACT = BASE.astype(np.float64)
NAN, INF = np.float32(np.nan), np.float32(np.inf)


def changed(place: int, value: float, array: np.ndarray = BASE) -> np.ndarray:
    result = array.copy()
    result[place] = value
    return result


@pytest.mark.parametrize(
    ("before", "after", "double", "verdict"),
    [
        (BASE, BASE, EXACT, Verdict.SAME_BITS),
        (changed(3, NAN), changed(3, NAN), None, Verdict.SAME_BITS),
        (BASE, np.nextafter(BASE, 9), EXACT, Verdict.ROUNDING),
        (np.float32([0.0, 1.0]), np.float32([-0.0, 1.0]), None, Verdict.ROUNDING),
        # The same difference, of a calm original and of one that is itself that far from the truth.
        (BASE, BASE + np.float32(1e-4), EXACT, Verdict.SUSPICIOUS),
        (BASE, BASE + np.float32(1e-4), EXACT + 5e-5, Verdict.ROUNDING),
        (BASE, BASE + np.float32(0.05), EXACT, Verdict.DIFFERENT),
        (BASE, changed(7, -BASE[7]), EXACT, Verdict.DIFFERENT),
        (BASE, changed(7, NAN), EXACT, Verdict.DIFFERENT),
        (changed(7, INF), changed(7, -INF), changed(7, INF, EXACT), Verdict.DIFFERENT),
        (changed(7, INF), changed(8, INF), None, Verdict.DIFFERENT),
        # What overflows in single precision alone may do so in one order of operations and not in another.
        (changed(7, INF), changed(7, 3.4e38), changed(7, 3.39e38, EXACT), Verdict.SUSPICIOUS),
        (BASE, BASE[:-1], None, Verdict.DIFFERENT),
        (BASE, BASE.astype(np.float16), None, Verdict.DIFFERENT),
        (np.array([1, 2, 3]), np.array([1, 2, 4]), None, Verdict.DIFFERENT),
        (np.array([1, 2, 3]), np.array([1, 2, 4]), np.array([1, 2, 4]), Verdict.SUSPICIOUS),
        (np.array([1, 2, 3]), np.array([9, 2, 4]), np.array([1, 2, 4]), Verdict.DIFFERENT),
        (np.array([True]), np.array([False]), np.array([True]), Verdict.DIFFERENT),
    ],
)
def test_verdict(
    before: np.ndarray, after: np.ndarray, double: np.ndarray | None, verdict: netforge.Verdict
) -> None:
    assert compare(before, after, double).verdict is verdict


def model_of(
    nodes: list, dims: dict[str, list], constants: dict[str, np.ndarray], kind: int = TensorProto.FLOAT
):
    infos = [helper.make_tensor_value_info(name, kind, size) for name, size in dims.items()]
    initializers = [numpy_helper.from_array(array, name) for name, array in constants.items()]
    graph = helper.make_graph(nodes, "g", infos[:1], infos[1:], initializers)
    return helper.make_model(graph, opset_imports=[helper.make_opsetid("", 17)], ir_version=8)


def dense(weight: np.ndarray, *more: onnx.NodeProto) -> onnx.ModelProto:
    nodes = [helper.make_node("MatMul", ["x", "w"], ["m"]), *more]
    return model_of(nodes, {"x": ["batch", 6], "y": ["batch", 4]}, {"w": weight})


WEIGHT = np.random.default_rng(0).standard_normal((6, 4)).astype(np.float32)
RELU, SOFTMAX = helper.make_node("Relu", ["m"], ["y"]), helper.make_node("Softmax", ["m"], ["y"])


def test_a_changed_weight_shows_and_the_report_says_where() -> None:
    weight = WEIGHT.copy()
    weight[5, 3] += 0.5
    report = netforge.check(dense(WEIGHT, RELU), dense(weight, RELU))
    assert report.worst is Verdict.DIFFERENT
    assert not report.ok
    assert report.precision == "double (runtime)"
    (output,) = report.outputs
    assert set(output.regimes) == {"normal", "small", "large", "zeros", "ones", "integers"}
    assert output.regimes["zeros"].verdict is Verdict.SAME_BITS
    lines = str(report).splitlines()
    assert lines[0].split() == [
        "output",
        "verdict",
        "worst",
        "regime",
        "max",
        "abs",
        "diff",
        "max",
        "rel",
        "diff",
        "noise",
    ]
    assert lines[2].split()[:2] == ["y", "different"]
    assert lines[-1].startswith("worst: different (compared in double (runtime) precision")


def test_a_difference_that_softmax_hides_is_seen_before_it() -> None:
    sure = np.abs(WEIGHT) * np.float32([3000, 1, 1, 1])
    other = sure * np.float32([1, 300, 1, 1])
    report = netforge.check(dense(sure, SOFTMAX), dense(other, SOFTMAX), regimes=["ones"])
    verdicts = {output.name: output.verdict for output in report.outputs}
    assert verdicts == {"y": Verdict.SAME_BITS, "y before Softmax": Verdict.DIFFERENT}


def test_models_that_do_not_belong_together_are_refused() -> None:
    relu = dense(WEIGHT, RELU)
    renamed = model_of([helper.make_node("Relu", ["z"], ["y"])], {"z": [2, 4], "y": [2, 4]}, {})
    with pytest.raises(ValueError, match="an input 'z' that the original doesn't have"):
        netforge.check(relu, renamed)
    with pytest.raises(ValueError, match="unknown regime 'huge'"):
        netforge.check(relu, relu, regimes=["huge"])
    broken = model_of(
        [helper.make_node("Reshape", ["x", "s"], ["y"])],
        {"x": ["batch", 3], "y": ["n", 4]},
        {"s": np.array([-1, 4])},
    )
    with pytest.raises(ValueError, match="doesn't run on the regime 'normal'"):
        netforge.check(broken, broken, regimes=["normal"])


def test_indices_are_drawn_within_the_axis_that_they_count() -> None:
    table = np.arange(12, dtype=np.float32).reshape(3, 4)
    nodes = [
        helper.make_node("Unsqueeze", ["i", "a"], ["u"]),
        helper.make_node("Gather", ["t", "u"], ["y"], axis=0),
    ]
    graph = helper.make_graph(
        nodes,
        "lookup",
        [helper.make_tensor_value_info("i", TensorProto.INT64, [50])],
        [helper.make_tensor_value_info("y", TensorProto.FLOAT, [50, 1, 4])],
        [numpy_helper.from_array(table, "t"), numpy_helper.from_array(np.array([1]), "a")],
    )
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 17)], ir_version=8)
    report = netforge.check(model, model)
    assert report.worst is Verdict.SAME_BITS
    assert not report.notes
    with netforge.Checker(model) as checker:
        assert set(checker.feeds["normal"]["i"]) == {0, 1, 2}


def test_varying_axes_get_two_or_the_given_size() -> None:
    model = dense(WEIGHT, RELU)
    for sizes, batch in ((None, 2), ({"batch": 3}, 3)):
        with netforge.Checker(model, sizes=sizes, regimes=["normal"]) as checker:
            assert checker.singles["normal"]["y"].shape == (batch, 4)


SPATIAL = np.random.default_rng(1).standard_normal((2, 4, 9, 7))
KERNEL, GROUPED = (np.random.default_rng(2).standard_normal(dims) for dims in ((6, 4, 3, 2), (8, 2, 3, 2)))
STAMPS = np.random.default_rng(3).standard_normal((4, 3, 3, 2))
STRIDES = {"strides": [2, 1], "pads": [1, 0, 0, 2], "dilations": [1, 2]}


@pytest.mark.parametrize(
    ("op_type", "weight", "attributes"),
    [
        ("Conv", KERNEL, STRIDES),
        ("Conv", GROUPED, {**STRIDES, "group": 2}),
        ("Conv", np.ones((4, 1, 3, 3)), {"group": 4, "auto_pad": "SAME_LOWER", "strides": [2, 2]}),
        ("ConvTranspose", STAMPS, {"strides": [2, 3], "pads": [1, 0, 0, 1], "output_padding": [1, 2]}),
        ("ConvTranspose", STAMPS[:, :2], {"group": 2, "strides": [2, 1], "auto_pad": "SAME_UPPER"}),
        ("MaxPool", None, {"kernel_shape": [3, 2], "strides": [2, 3], "ceil_mode": 1, "pads": [1, 0, 0, 0]}),
        ("AveragePool", None, {"kernel_shape": [3, 2], "strides": [2, 2], "ceil_mode": 1}),
        ("AveragePool", None, {"kernel_shape": [3, 3], "pads": [1, 1, 1, 1], "count_include_pad": 1}),
        ("LRN", None, {"size": 3, "alpha": 0.3, "beta": 0.6, "bias": 1.5}),
    ],
)
def test_kernels_in_double_precision_agree_with_the_runtime(
    op_type: str, weight: object, attributes: dict
) -> None:
    """The runtime computes in single precision, the kernels in double: they differ by rounding alone."""
    names = ["x"] if weight is None else ["x", "w"]
    nodes = [helper.make_node(op_type, names, ["y"], **attributes)]
    single, double = (
        model_of(
            nodes,
            {"x": list(SPATIAL.shape), "y": [None] * 4},
            {} if weight is None else {"w": np.asarray(weight).astype(dtype)},
            kind,
        )
        for kind, dtype in ((TensorProto.FLOAT, np.float32), (TensorProto.DOUBLE, np.float64))
    )
    (wanted,) = ReferenceEvaluator(double, new_ops=FAST_KERNELS).run(None, {"x": SPATIAL})
    found = netforge.checking.running.Session(single).run({"x": SPATIAL.astype(np.float32)})["y"]
    assert wanted.dtype == np.float64
    np.testing.assert_allclose(found, wanted, rtol=1e-4, atol=1e-5)
