"""Building, reading, editing and dumping graphs from Python."""

from __future__ import annotations

import ast
import contextlib
import importlib.util
import inspect
import json
from collections.abc import Callable
from pathlib import Path

import netforge
import numpy as np
import pytest
from conftest import FLOAT32
from netforge import (
    AxisFormat,
    CustomIOEntry,
    CustomIOQuantParams,
    DataType,
    IrGraph,
    IrOp,
    IrStaticTensor,
    IrTensor,
    IrTensorShape,
    TensorType,
    TraceKey,
    TraceKind,
    TraceSource,
)


def test_reading_by_method_and_by_property(chain: IrGraph) -> None:
    assert [op.name for op in chain.ops] == ["a", "soft"] == [op.getName() for op in chain.getOps()]
    assert list(chain.tensors) == ["a", "x", "y"] == list(chain.getTensors())
    assert (chain.graphInputs, chain.graphOutputs) == ([chain.getTensor("x")], [chain.getTensor("y")])
    soft = chain.getOp("soft")
    assert soft is chain.getOpAt(1) and chain.getOpIndex(soft) == 1 and chain.countOpsOfType("Softmax") == 1
    assert (soft.inputs, soft.outputs, soft.attributes["axis"]) == (
        [chain.getTensor("a")],
        [chain.getTensor("y")],
        3,
    )
    middle = chain.getTensor("a")
    assert (middle.producer, middle.consumers) == (chain.getOp("a"), [soft])
    assert (middle.dims, middle.dataType, middle.tensorType) == ([2, 5, 7, 3], FLOAT32, TensorType.Native)
    assert isinstance(chain.axisOrder, netforge.SpatialFirstAxisOrder)
    assert isinstance(IrGraph("g", netforge.OnnxAxisOrder()).axisOrder, netforge.OnnxAxisOrder)
    assert chain.getTensor("none") is None and chain.getOp("none") is None
    assert chain.getStaticTensor("x") is None
    with pytest.raises(IndexError):
        chain.getOpAt(2)


def test_tensors_keep_what_they_are_given() -> None:
    tensor = IrTensor(
        "x",
        IrTensorShape([1, 4, 9], {1}),
        FLOAT32,
        AxisFormat.NFC,
        AxisFormat.NCF,
        tensorType=TensorType.GraphInput,
        srcDataType=DataType.ORLO_DATATYPE_FLOAT_16,
        updateable=True,
        explicitPermuteOrder=[0, 2, 1],
    )
    assert (tensor.dims, tensor.dynamicAxes, tensor.srcDataType) == (
        [1, 4, 9],
        {1},
        DataType.ORLO_DATATYPE_FLOAT_16,
    )
    assert (tensor.axisFormat, tensor.srcAxisFormat) == (AxisFormat.NFC, AxisFormat.NCF)
    assert tensor.isQuantizable() and tensor.isUpdateable() and tensor.getPermuteOrder() == [0, 2, 1]
    plain = IrTensor("y", (2, np.int64(3)), DataType.ORLO_DATATYPE_INT_32)
    assert (plain.dims, plain.isQuantizable(), plain.srcDataType) == ([2, 3], False, plain.dataType)
    shape = IrTensorShape([4, 5], [0])
    assert shape.permute([1, 0]) == IrTensorShape([5, 4], (1,)) != IrTensorShape([5, 4])
    assert hash(shape) == hash(IrTensorShape([4, 5], {0}))
    for wrong in ([-1], [2**32], "12", [1.5], None):
        with pytest.raises(TypeError):
            IrTensor("x", wrong, FLOAT32)
    with pytest.raises(ValueError, match="IrTensorShape of rank 2 cannot have 2 as dynamic dimension"):
        IrTensorShape([4, 5], [2])


def test_every_way_of_adding_an_op() -> None:
    graph = IrGraph("g")
    graph.addTensor(IrTensor("x", [2, 3], FLOAT32, tensorType=TensorType.GraphInput))
    graph.addOp(netforge.createOp("Transpose", "t", {"perm": [1, 0]}), ["x"], ["t"])
    graph.addOp(IrOp("p", "Custom"), ["t"], ["p1", "p2"], outputShapes=[[4], IrTensorShape([5, 1], [1])])
    graph.addOp(IrOp("q", "Custom"), ["p1"], ["q"], [AxisFormat.NF], 2, False)
    graph.addOp(IrOp("r", "Custom"), ["q"], ["r"], outputAxisFormats=[AxisFormat.NC], idx=-1)
    assert [graph.getTensor(name).dims for name in ("t", "p1", "p2")] == [[3, 2], [4], [5, 1]]
    assert graph.getTensor("p2").dynamicAxes == {1}
    assert [graph.getTensor(name).axisFormat for name in "qr"] == [AxisFormat.NF, AxisFormat.NC]
    attached = IrOp("s", "Custom")
    out = IrTensor("s", [4], FLOAT32)
    graph.addTensor(out)
    attached.addInput(graph.getTensor("r"))
    graph.getTensor("r").addConsumer(attached)
    attached.addOutput(out)
    out.setProducer(attached)
    graph.addOp(attached)
    assert graph.checkInvariants() == []
    with pytest.raises(RuntimeError, match=r"Output shapes size \(1\) does not match output names size"):
        graph.addOp(IrOp("u", "Custom"), ["s"], ["u1", "u2"], [[4]])
    with pytest.raises(RuntimeError, match="addTensor: Tensor s already exists!"):
        graph.addTensor("s", [1], FLOAT32)
    graph.addTensor("native", [1], FLOAT32, AxisFormat.NF, AxisFormat.NF, True)
    graph.addTensor(IrStaticTensor("w", np.arange(3)))
    graph.addTensor("w2", graph.getStaticTensor("w"))
    assert graph.getStaticTensor("w2").numpy().tolist() == [0, 1, 2]
    assert not graph.getStaticTensor("w2").isDataBorrowed()


def test_edits_keep_the_graph_sound(chain: IrGraph) -> None:
    chain.inject(netforge.createOp("Cast", "c"), "a", "c")
    chain.injectImplicitPermute("x", AxisFormat.NHWC, [0, 2, 3, 1])
    assert [op.name for op in chain.ops] == ["x.NHWC", "a", "c", "soft"]
    assert chain.getConsumers(chain.getTensor("a"))[0].name == "c"
    chain.squash(chain.getOp("c"), "a")
    chain.updateTensorName("x", "input")
    chain.replace(chain.getOp("soft"), netforge.createOp("Softmax", "soft2", {"axis": 1}))
    assert chain.checkInvariants() == []
    assert [op.name for op in chain.ops] == ["x.NHWC", "a", "soft2"]
    with pytest.raises(RuntimeError, match="Cannot prune op a which has atleast one successor: soft2"):
        chain.prune(chain.getOp("a"))
    assert chain.getNamePolicy().generateUniqueName("p", "Softmax") == "p_0"


def test_consumers_come_in_a_stable_order() -> None:
    graph = IrGraph("g")
    graph.addTensor(IrTensor("x", [2], FLOAT32, tensorType=TensorType.GraphInput))
    names = [f"n{number}" for number in (5, 3, 8, 1, 9, 2)]
    for name in names:
        graph.addOp(IrOp(name, "Custom"), ["x"], [name])
    assert [op.name for op in graph.getTensor("x").consumers] == sorted(names)
    assert [op.name for op in graph.getConsumers(graph.getTensor("x"))] == names


def test_trace_records(chain: IrGraph, capfd: pytest.CaptureFixture[str]) -> None:
    sources = [TraceSource("conv"), TraceSource("image", TraceKind.Tensor)]
    chain.addTraceSources(TraceKind.Op, "a", sources)
    chain.addTraceSources(["soft"], ["x", "a"], [TraceSource("conv")])
    chain.updateTraceInfo([chain.getOp("soft")], [chain.getOp("a")], removeSources=True)
    chain.updateTraceInfo([chain.getTensor("y")], [chain.getTensor("x")])
    assert chain.getTraceInfo(TraceKind.Op, "soft") == sources and chain.getTraceInfo(TraceKind.Op, "a") == []
    assert [record.name for record in chain.getTraceRecords(TraceKind.Tensor)] == ["x", "a", "y"]
    assert chain.collectTraceSources([TraceKey(TraceKind.Tensor, "y")]) == [TraceSource("conv")]
    with pytest.raises(RuntimeError, match="updateTraceInfo called with empty sources lists"):
        chain.updateTraceInfo([chain.getOp("soft")], [], [])
    chain.addTraceSources(TraceKind.Op, "a", sources)
    chain.sourceOpNames, chain.sourceTensorNames = ["conv"], ["image"]
    chain.validateTraceInfoCompleteness("here")
    prefix = "netforge::IrGraph::validateTraceInfoCompleteness: "
    assert capfd.readouterr().out == f"{prefix}Framework tracing record is complete in stage here.\n"


def test_statistics_print_whole_lines(chain: IrGraph, capfd: pytest.CaptureFixture[str]) -> None:
    print("before", flush=True)
    totals = chain.reEvalMacsParams()
    print("after", flush=True)
    lines = capfd.readouterr().out.splitlines()
    assert (lines[0], lines[-1], len(lines)) == ("before", "after", 5)
    assert lines[2].endswith(f"Total MACs: {totals[0]}") and lines[3].endswith(f"Count: {totals[1]}")


def test_dumps(chain: IrGraph, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.chdir(tmp_path)
    chain.dumpJson("graph.json")
    netforge.dumpModelJson(chain, "model.json")
    for name in ("graph.json", "model.json"):
        assert "soft" in json.dumps(json.loads((tmp_path / name).read_text()))
    with pytest.raises(RuntimeError):
        netforge.dumpModelJson(chain, str(tmp_path / "no" / "where.json"))


def test_fields_that_the_builder_fills(chain: IrGraph) -> None:
    params = CustomIOQuantParams(0.5, -3)
    chain.customIOEntries = [CustomIOEntry("x", "int8", params, optional=True), CustomIOEntry("y")]
    first, second = chain.customIOEntries
    assert (first.tensorName, first.dataType, first.optional) == ("x", "int8", True)
    assert (first.quantParams.scale, first.quantParams.offset) == (0.5, -3)
    assert (second.dataType, second.quantParams) == (None, None)
    second.dataType, second.quantParams = "uint16", params
    assert (second.dataType, second.quantParams.offset) == ("uint16", -3)
    chain.inputLayoutCodes = {"x": 8}
    assert (chain.inputLayoutCodes, chain.acceptsBiaslessFold, chain.transformMetadataPath) == (
        {"x": 8},
        False,
        "",
    )
    with pytest.raises(TypeError):
        chain.inputLayoutCodes = {"x": 256}


def test_a_graph_reads_as_text(chain: IrGraph) -> None:
    chain.addTensor(IrTensor("d", IrTensorShape([1, 2], [0]), DataType.ORLO_DATATYPE_UINT_4))
    chain.addOp(
        IrOp("many", "Custom", {"f": 0.1, "b": True, "s": "text", "t": np.zeros(9, np.float32)}),
        ["y", "d"],
        ["u", "v"],
        outputShapes=[[1], [2]],
    )
    assert str(chain).splitlines() == [
        "IrGraph 'chain': 3 ops, 6 tensors",
        "  in  x [2,3,5,7] float32 NCHW",
        "  a [2,5,7,3] float32 = Transpose(x) {perm=[0,2,3,1]}",
        "  y [2,5,7,3] float32 = Softmax(a) {axis=3}  # soft",
        '  u [1] float32, v [2] float32 = Custom(y, d) {b=true, f=0.1, s="text", t=<[9] float32>}  # many',
        "  out y",
    ]
    assert repr(chain) == "<IrGraph 'chain': 3 ops, 6 tensors>"
    assert repr(chain.getTensor("d")) == "<IrTensor 'd' [?,2] UINT_4, native>"
    assert repr(chain.getTensor("d").shape) == "IrTensorShape(dims = [1,2] , dy_axes=[0])"
    lonely = IrOp("lonely", "Custom")
    lonely.addInput(IrTensor("gone", [1], FLOAT32))
    assert "lonely[Custom]: " in repr(lonely)


def call_with_none(function: Callable[..., object]) -> None:
    """Calls every form with None everywhere: an error or a harmless result, never a crash."""
    for count in range(6):
        with contextlib.suppress(TypeError, ValueError, RuntimeError, IndexError):
            function(*[None] * count)


def test_none_arguments_crash_nothing(
    chain: IrGraph, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.chdir(tmp_path)
    text = str(chain)
    static = IrStaticTensor("w", np.ones(3, np.float32))
    objects = [chain, chain.getOp("a"), chain.getTensor("a"), static, chain.getOp("a").attributes]
    objects += [chain.axisOrder, chain.getTensor("a").shape, chain.getNamePolicy()]
    silent = {"clearProducer", "clearConsumers", "setProducer"}
    for target in objects:
        for name, member in inspect.getmembers(target, callable):
            if not name.startswith("_") and name not in silent:
                call_with_none(member)
    for name, member in inspect.getmembers(netforge._core, callable):
        if not name.startswith("_"):
            call_with_none(member)
    assert str(chain) == text and chain.checkInvariants() == []


def test_stubs_agree_with_the_module() -> None:
    root = Path(__file__).resolve().parent.parent.parent
    spec = importlib.util.spec_from_file_location("make_stubs", root / "tools" / "make_stubs.py")
    assert spec is not None and spec.loader is not None
    make_stubs = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(make_stubs)
    generated = ast.dump(ast.parse(make_stubs.stub_text(netforge._core)))
    assert ast.dump(ast.parse(make_stubs.STUB.read_text())) == generated, "run tools/make_stubs.py"
