"""The target's records of ops, and the validators that check them."""

from __future__ import annotations

from collections import Counter
from collections.abc import Iterator

import libPyGraphRefiner312 as refiner
import netforge
import numpy as np
import pytest
import sample_models
from conftest import make_chain
from export_graphs import one_op_graph
from netforge import (
    DataType,
    IrGraph,
    IrOp,
    IrTensor,
    OpConfigValidator,
    QuantEncodingKind,
    TensorType,
    Verdict,
)
from netforge.onnx_import.registry import RESERVED_TYPES
from test_export_layout_ops import LAYOUT_CASES
from test_export_ops import CASES
from test_optimized_models import STAGES

UINT32, FLOAT32 = DataType.ORLO_DATATYPE_UINT_32, DataType.ORLO_DATATYPE_FLOAT_32
# The ops that the cases of the export don't hold.
REST = {
    "Pool3d": {"pool_type": "PoolMax3d"},
    "Neuron": {"neuron_type": "Relu"},
    "Resize": {"interpolation_mode": np.uint32(1), "transformation_mode": np.uint32(2)},
    "ColorTransform": {"input_encoding_in": np.uint8(6), "input_encoding_out": np.uint8(1)},
    "Concat": {"axis": 1},
    "Convert": {},
    "Expand": {"shape": [2, 3, 5, 7]},
    "GatherElements": {"axis": 1},
    "Gru": {"direction": 0, "time_major": False},
    "Lstm": {"direction": 0, "cell_clip_threshold": 0.5},
    "Tile": {"multiples": [1, 2, 1, 1]},
    "Transpose": {"perm": [0, 2, 3, 1]},
    "TransposeConv3d": {"stride": [1, 2, 1], "pad_amount": [[0, 1]] * 3, "group": 1},
}


def plain_op(op_type: str, values: dict, dims: list[int]) -> IrGraph:
    graph = IrGraph("one")
    graph.addTensor(IrTensor("x", dims, FLOAT32, tensorType=TensorType.GraphInput))
    graph.addOp(IrOp("op", op_type, values), ["x"], ["y"], [dims])
    return graph


def one_op_graphs() -> Iterator[IrGraph]:
    for case in CASES.values():
        yield one_op_graph(case.op_type, case.values, case.inputs, case.outputs, static=case.static)
    for case in LAYOUT_CASES.values():
        yield one_op_graph(case.op_type, case.values, case.inputs, [case.output], static=(1,))
    for op_type, values in REST.items():
        yield plain_op(op_type, values, [2, 3, 5, 7])


def test_every_type_of_the_catalogue_passes_the_common_check() -> None:
    seen = Counter()
    for graph in one_op_graphs():
        graph.opConfigValidator = OpConfigValidator.commonCheckOnly()
        op = graph.getOp("op")
        attributes = dict(op.attributes.toDict())
        graph.validateOrloOpConfig(op)
        config = graph.translateOp(op)
        seen[op.type] += 1
        assert config["name"] == "op" and config["packageName"] == "orlo.base" and config["typeName"]
        assert [tensor["dims"] for tensor in config["inputs"]] == op.getInputDims()
        assert [tensor["dims"] for tensor in config["outputs"]] == op.getOutputDims()
        assert all(tensor["data"] is None for tensor in config["inputs"])
        for name, param in config["params"].items():
            value = attributes.get(name)
            if isinstance(value, netforge.IrStaticTensor):
                np.testing.assert_array_equal(param["data"], value.numpy())
            elif value is not None:
                assert param["value"] == value
    classed = {name for name in RESERVED_TYPES if netforge.hasMethod(name)}
    assert len(classed) == 48 and not classed - set(seen)


@pytest.mark.parametrize("network", ["squeezenet", "shufflenet"])
def test_networks_pass_before_and_during_the_pipeline(network: str) -> None:
    checked: Counter[str] = Counter()

    def accept(config: dict) -> int:
        checked[config["typeName"]] += 1
        return 0

    path = sample_models.light_model(network)
    graph = netforge.from_onnx(path, "source", random_weights=3)
    graph.opConfigValidator = OpConfigValidator(fallback=accept)
    for op in graph.ops:
        graph.validateOrloOpConfig(op)
    assert checked.total() == len(graph.ops)
    assert checked["Conv2d"] == graph.countOpsOfType("Conv2d") > 0

    before = {op.name for op in graph.ops}
    checked.clear()
    refiner.GraphRefiner(graph, STAGES, None, refiner.GraphRefinerContext()).optimize()
    # What is validated as it is added, is part of the graph or of what a later pass removed.
    assert set(checked) <= {"Transpose", "Reshape"}
    for op in graph.ops:
        if op.name not in before:
            graph.validateOrloOpConfig(op)
    # Translation rewrites attributes, and yet the network stays the same.
    source = netforge.from_onnx(path, "source", random_weights=3)
    report = netforge.check(source, graph, regimes=("normal",), time_limit=1.0)
    assert report.worst <= Verdict.ROUNDING, str(report)


def test_a_function_per_type_decides(chain: IrGraph) -> None:
    calls = []

    def check(config: dict) -> int:
        calls.append(config)
        return 0 if config["params"]["axis"]["value"] < 2 else 77

    chain.opConfigValidator = OpConfigValidator({"Softmax": check, "Cast": None}, {"Relu": check})
    chain.addOp(netforge.createOp("Softmax", "good", {"axis": 1}), ["a"], ["b"], validate=True)
    assert [config["name"] for config in calls] == ["good"]
    refusals = {
        "bad": netforge.createOp("Softmax", "bad", {"axis": 2}),
        "cast": netforge.createOp("Cast", "cast"),
        "unknown": IrOp("unknown", "Custom"),
    }
    for name, op in refusals.items():
        with pytest.raises(RuntimeError, match=f"Failed ORLO validation for {name} with error\n"):
            chain.inject(op, "a", name, validate=True)
        assert not chain.hasOp(name)
    assert netforge.getValidationLogText().endswith("Op specific validation failed.\n")
    assert chain.opConfigValidator.getLog() == netforge.getValidationLogText()
    chain.opConfigValidator = None
    chain.addOp(netforge.createOp("Softmax", "late", {"axis": 2}), ["a"], ["c"], validate=True)
    with pytest.raises(RuntimeError, match="The graph has no validator to check late with"):
        chain.validateOrloOpConfig(chain.getOp("late"))


@pytest.mark.parametrize(
    ("result", "error", "text"),
    [(None, TypeError, "not None"), (True, TypeError, "not True"), (KeyError("mine"), KeyError, "mine")],
)
def test_errors_of_a_function_go_through(
    chain: IrGraph, result: object, error: type[Exception], text: str
) -> None:
    def faulty(config: dict) -> object:
        if isinstance(result, Exception):
            raise result
        return result

    chain.opConfigValidator = OpConfigValidator(fallback=faulty)
    with pytest.raises(error, match=text):
        chain.addOp(IrOp("op", "Custom"), ["a"], ["b"], validate=True)
    assert not chain.hasOp("op")
    with pytest.raises(TypeError, match="a validator is a callable or None"):
        OpConfigValidator({"Custom": 3})


def test_records_read_as_dicts(chain: IrGraph) -> None:
    config = chain.translateOp(chain.getOp("a"))
    perm = config["params"]["perm"]
    assert (config["typeName"], perm["dataType"], perm["dims"], perm["type"]) == ("Transpose", UINT32, [4], 4)
    np.testing.assert_array_equal(perm["data"], [0, 2, 3, 1])
    perm["data"][0] = 9  # a copy
    assert chain.getOp("a").attributes["perm"].numpy()[0] == 0
    x = config["inputs"][0]
    assert (x["name"], x["dataType"], x["type"], x["dynamicAxes"]) == ("x", FLOAT32, 0, set())
    assert (x["quantization"], x["sparse"]) == (None, None)

    weights = np.arange(4, dtype=np.float32)
    chain.addTensor(netforge.IrStaticTensor("w", weights))
    attributes = {"eltwise_type": "ElementWiseAdd", "half": 0.5, "on": True, "minus": -3, "text": "t"}
    chain.addOp(IrOp("sum", "Eltwise_Binary", attributes), ["a", "w"], ["sum"], [[2, 5, 7, 3]])
    info = netforge.QuantInfo(QuantEncodingKind.ScaleOffset, netforge.EncodingInfo(scale=0.5, offset=-3))
    chain.getTensor("sum").setQInfo(DataType.ORLO_DATATYPE_UFIXED_POINT_8, info)
    op = chain.getOp("sum")
    config = chain.translateOp(op, skipStaticData=False)
    assert "eltwise_type" not in op.attributes and op.attributes["operation"] == 0
    values = {name: param["value"] for name, param in config["params"].items()}
    assert values == {"half": 0.5, "minus": -3, "on": True, "operation": 0, "text": "t"}
    np.testing.assert_array_equal(config["inputs"][1]["data"], weights)
    assert config["outputs"][0]["quantization"] == {
        "encoding": QuantEncodingKind.ScaleOffset,
        "definition": 1,
        "scale": 0.5,
        "offset": -3,
    }
    assert chain.translateOp(op) is not config and "data" in chain.translateOp(op)["inputs"][1]
    with pytest.raises(ValueError, match="eltwise_type provided, No, is incorrect"):
        chain.addOp(IrOp("no", "Eltwise_Unary", {"eltwise_type": "No"}), ["a"], ["no"])
        chain.translateOp(chain.getOp("no"))


def test_records_of_a_graph_that_is_gone() -> None:
    kept = []
    chain = make_chain()
    chain.opConfigValidator = OpConfigValidator(fallback=lambda config: kept.append(config) or 0)
    for op in chain.ops:
        chain.validateOrloOpConfig(op)
    del op, chain
    assert [config["name"] for config in kept] == ["a", "soft"]
    np.testing.assert_array_equal(kept[0]["params"]["perm"]["data"], [0, 2, 3, 1])
