"""Every single-operator case of the onnx package: imports whole, with unchanged values, or says why not."""

from __future__ import annotations

import re
import warnings
from collections import Counter

import netforge
import numpy as np
import onnx
import onnxruntime
import pytest
from import_cases import COMPLETE, LAYOUTS, check_graph, node_cases, with_constants
from onnx.reference import ReferenceEvaluator

REASONS = re.compile(
    r"the IR can't hold (tensors|constants) of element type \w+"
    r"|'.*' is a (sequence|optional|map|sparse tensor); the IR holds tensors only"
    r"|attribute '.*' holds (subgraphs|sparse tensors|types), which the IR can't hold"
    r"|the IR can't hold an op without inputs"
    r"|the shape of '.*' can't be inferred, and the IR needs its rank"
    r"|its shapes don't fit: .*"
    r"|opset version \d+ is not supported; the oldest is 7"
)
# Numbers that a case can't promise, operators that no evaluator here runs, and types that NumPy lacks.
NOT_COMPARED = re.compile(r"bernoulli|image_decoder|castlike?_.*(INT2|INT4)|_opset19|test_mvn$|scatter_with")


@pytest.mark.parametrize("constants", [False, True], ids=["inputs", "constants"])
def test_every_case_imports_or_names_what_the_graph_lacks(constants: bool, capfd) -> None:
    counts: Counter[str] = Counter()
    for case in node_cases():
        model = with_constants(case) if constants else case.model
        if model is None:
            continue
        for layout in LAYOUTS:
            try:
                graph = netforge.from_onnx(model, layout)
            except netforge.OnnxImportError as error:
                assert REASONS.fullmatch(error.reason), f"{case.name}: {error}"
                counts["refused"] += 1
                continue
            check_graph(graph, model)
            counts["plain" if netforge.import_account(graph).plain_ops else "typed"] += 1
    assert set(capfd.readouterr().out.splitlines()) == {COMPLETE}
    total = sum(counts.values())
    # Floors, so that a converter that stops matching shows; versions of the onnx package differ a little.
    assert counts["refused"] < 0.14 * total, counts
    assert counts["typed"] > (0.5 if constants else 0.4) * total, counts


def by_reference(model: onnx.ModelProto, feeds: dict[str, np.ndarray]) -> list[np.ndarray]:
    with warnings.catch_warnings(), np.errstate(all="ignore"):
        warnings.simplefilter("ignore")
        return ReferenceEvaluator(model).run(None, feeds)


def by_runtime(model: onnx.ModelProto, feeds: dict[str, np.ndarray]) -> list[np.ndarray]:
    options = onnxruntime.SessionOptions()
    options.log_severity_level = 4
    data = model.SerializeToString()
    return onnxruntime.InferenceSession(data, options, providers=["CPUExecutionProvider"]).run(None, feeds)


def agrees(results: list[np.ndarray], expected: list[np.ndarray], rtol: float) -> bool:
    for got, want in zip(results, expected, strict=True):
        if np.shape(got) != np.shape(want) or got.dtype != want.dtype:
            return False
        pair = got.astype(np.float64), want.astype(np.float64)
        if not np.allclose(*pair, rtol=max(rtol, 1e-3), atol=1e-5, equal_nan=True):
            return False
    return True


def computes(model: onnx.ModelProto, feeds: dict[str, np.ndarray], expected: list, rtol: float) -> bool:
    """By the runtime or by the reference evaluator: each lacks or mistakes operators that the other has."""
    for evaluate in (by_runtime, by_reference):
        try:
            if agrees(evaluate(model, feeds), expected, rtol):
                return True
        except Exception:
            continue
    return False


@pytest.mark.parametrize("layout", LAYOUTS)
def test_typed_ops_compute_what_the_operators_compute(layout: str) -> None:
    compared = 0
    wrong = []
    for case in node_cases():
        if case.name.endswith("_expanded") or NOT_COMPARED.search(case.name):
            continue
        arrays, expected = case.data_sets[0]
        if not all(isinstance(array, (np.ndarray, np.generic)) for array in (*arrays, *expected)):
            continue
        # Constants reach the typed forms; a case of one input has none to make.
        constants = with_constants(case)
        try:
            graph = netforge.from_onnx(constants or case.model, layout)
        except netforge.OnnxImportError:
            continue
        if not netforge.import_account(graph).typed_ops:
            continue
        feeds = {tensor.name: np.asarray(arrays[0]) for tensor in graph.graphInputs}
        if not computes(netforge.to_onnx(graph), feeds, expected, case.rtol):
            wrong.append(f"{case.name}: {[op.type for op in graph.ops]}")
        compared += 1
    assert wrong == []
    assert compared > 350
