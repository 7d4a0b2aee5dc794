"""The transform metadata file from Python."""

from __future__ import annotations

import gc
import json
from pathlib import Path

import libPyGraphRefiner312 as refiner
import netforge
import pytest
from netforge import AxisFormat, DataType, DType, ODLTransformManager, TransformGraph, TransformOp


def test_a_file_is_loaded_changed_and_saved(tmp_path: Path) -> None:
    path = str(tmp_path / "t.json")
    manager = ODLTransformManager()
    graph = manager.createTransformGraph("g", 3, arN=32)
    scale = TransformOp("Scale", {"factor": "0.5"}, [[2, 3]], [[2, 3]])
    entry = graph.addTransform(["a"], ["b"], scale, tensorDtypes={"a": DType.Float16})
    graph.addTransform(["b"], ["c"], TransformOp("Transpose", {"perm": "[1, 0]"}))
    manager.saveMetadata(path)
    del manager
    gc.collect()
    assert (entry.op.opType, graph.outputTensors) == ("Scale", {"c"})  # what refers to it keeps it alive

    again = ODLTransformManager()
    again.loadMetadata(path)
    assert again.getGraphNames() == ["g"]
    graph = again.getTransformGraph("g")
    assert (graph.executionOrder, graph.arN, graph.splitNum, graph.concurrencyName) == (3, 32, None, None)
    assert [found.op.attributes for found in graph.getOrderedTransforms()] == [
        {"factor": "0.5"},
        {"perm": "[1,0]"},
    ]
    assert graph.getTensorDtype("a") == DType.Float16
    graph.transforms[0].op.opType = "Gain"
    graph.renameTensor("c", "out")
    graph.splitNum = 2
    again.saveMetadata(path)
    saved = json.loads(Path(path).read_text())["graphs"]["g"]
    assert (saved["split_num"], saved["output_tensors"]) == (2, ["out"])
    assert [found["operator"]["op_type"] for found in saved["transforms"]] == ["Gain", "Transpose"]
    with pytest.raises(RuntimeError, match="Transform already exists"):
        graph.addTransform(["a"], ["b"], scale)
    assert TransformGraph.dtypeToString(TransformGraph.dtypeFromString("uint16")) == "uint16"


def test_the_driver_records_layouts_in_the_file(tmp_path: Path) -> None:
    path = tmp_path / "t.json"
    transform = {"src_tensors": ["w"], "dest_tensors": ["x"], "operator": {"op_type": "Identity"}}
    path.write_text(json.dumps({"graphs": {"g": {"execution_order": 0, "transforms": [transform]}}}))
    graph = netforge.IrGraph("lora")
    float32 = DataType.ORLO_DATATYPE_FLOAT_32
    graph.addTensor(
        "x", [1, 5, 7, 3], float32, float32, AxisFormat.NHWC, AxisFormat.NCHW,
        tensorType=netforge.TensorType.GraphInput,
    )  # fmt: skip
    graph.addOp(netforge.createOp("Softmax", "y", {"axis": 3}), ["x"], ["y"])
    graph.transformMetadataPath = str(path)
    stages = [refiner.OptimizationStage.PostLayout]
    refiner.GraphRefiner(graph, stages, None, refiner.GraphRefinerContext()).optimize()
    first, second = json.loads(path.read_text())["graphs"]["g"]["transforms"]
    assert (first["dest_tensors"], second["dest_tensors"]) == (["x_pre_transposed"], ["x"])
    assert second["operator"]["op_type"] == "Transpose"
    assert sorted(second["operator"]["attributes"]["perm"]) == [0, 1, 2, 3]
    assert second["operator"]["output_shapes"] == [[1, 5, 7, 3]]
