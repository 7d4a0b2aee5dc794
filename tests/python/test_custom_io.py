"""Fixed-point buffers of the application: what asks for them, what comes of it, and how it is checked."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path

import libPyGraphRefiner312 as refiner
import netforge
import numpy as np
import onnx
import pytest
import sample_models
from conftest import make_chain
from netforge import CustomIOError, Verdict
from netforge.checking.boundaries import LinearEncoding
from netforge.checking.comparison import compare_quantised
from netforge.checking.running import Session

GOOD = """
- tensor: x
  type: int8
  scale: 0.5
  offset: -3
- {tensor: y, scale: 1, optional: true}
- {tensor: "a"}
"""


def optimize(graph: netforge.IrGraph) -> netforge.IrGraph:
    stages = [refiner.OptimizationStage.PostLayout]
    refiner.GraphRefiner(graph, stages, None, refiner.GraphRefinerContext()).optimize()
    return graph


def test_entries_come_from_a_file_and_from_a_list(tmp_path: Path, chain: netforge.IrGraph) -> None:
    path = tmp_path / "io.yaml"
    path.write_text(GOOD)
    netforge.set_custom_io(chain, path)
    x, y, a = chain.customIOEntries
    assert (x.tensorName, x.dataType, x.quantParams.scale, x.quantParams.offset) == ("x", "int8", 0.5, -3)
    assert (y.dataType, y.quantParams.scale, y.quantParams.offset, y.optional) == (None, 1.0, 0, True)
    assert (a.quantParams, a.optional) == (None, False)
    netforge.set_custom_io(chain, [{"tensor": "x", "scale": np.float32(0.25), "offset": np.int64(4)}, y])
    assert [entry.tensorName for entry in chain.customIOEntries] == ["x", "y"]
    assert chain.customIOEntries[0].quantParams.offset == 4
    with pytest.raises(CustomIOError, match="the model has no tensor 'q'"):
        netforge.set_custom_io(chain, [{"tensor": "q"}])


@pytest.mark.parametrize(
    ("content", "told"),
    [
        ("", "holds a list"),
        ("tensor: x", "holds a list"),
        ("- [x]", "entry 1 is no mapping"),
        ("- {tensor: x}\n- 7", "entry 2 is no mapping"),
        ("- {tensor: x}\n- {tensor: x}", "entry 2 is the second for tensor 'x'"),
        ("- {tensor: x, tensor: y}", "a key stands twice"),
        ("- {scale: 1}", "the tensor's name is None"),
        ("- {tensor: on}", "the tensor's name is True; write it in quotes"),
        ("- {tensor: x, bits: 8}", "has the key 'bits'; the keys are tensor, type"),
        ("- {tensor: x, [1]: 8}", "no YAML"),
        ("- {tensor: x, type: int8}", "a type or an offset needs a scale"),
        ("- {tensor: x, scale: 1, type: float32}", "the type is 'float32'; the types are uint8, int8"),
        ("- {tensor: x, scale: 1, type: [uint8]}", "the type is a list"),
        ("- {tensor: x, scale: 0}", "the scale is 0, not a positive 32-bit float"),
        ("- {tensor: x, scale: .nan}", "the scale is nan"),
        ("- {tensor: x, scale: .inf}", "the scale is inf"),
        ("- {tensor: x, scale: 1.0e-60}", "the scale is 1e-60"),
        ("- {tensor: x, scale: true}", "the scale is True"),
        ("- {tensor: x, scale: '1'}", "the scale is '1'"),
        ("- {tensor: x, scale: " + "9" * 400 + "}", "the scale is"),
        ("- {tensor: x, scale: 1, offset: 0.5}", "the offset is 0.5, not a signed 32-bit integer"),
        ("- {tensor: x, scale: 1, offset: 2147483648}", "the offset is 2147483648"),
        ("- {tensor: x, optional: 1}", "optional is 1, not true or false"),
        ("- tensor: x\n\tscale: 1", "no YAML"),
        ("- &a {tensor: x}\n- {<<: *a}", "no YAML"),
        ("- !!python/object/apply:os.getcwd []", "no YAML"),
        ("- 2021-13-45", "no YAML"),
        ("[" * 20000, "no "),
        (b"- {tensor: \xff}", "no YAML"),
        (b"\x00", "no YAML"),
        (b" " * (17 << 20), "are too many"),
    ],
)  # fmt: skip
def test_files_that_are_no_custom_io_files_are_refused(
    tmp_path: Path, content: str | bytes, told: str
) -> None:
    path = tmp_path / "io.yaml"
    path.write_bytes(content if isinstance(content, bytes) else content.encode())
    with pytest.raises(CustomIOError) as raised:
        netforge.read_custom_io(path)
    text = str(raised.value)
    assert told in text
    assert str(path) in text
    assert "\n" not in text and len(text) < 500


@pytest.mark.parametrize("layout", ["spatial_first", "source"])
def test_a_vision_network_with_quantised_buffers_computes_the_same(layout: str) -> None:
    path = sample_models.light_model("squeezenet")
    graph = netforge.from_onnx(path, layout, random_weights=3)
    x, y = graph.graphInputs[0].name, graph.graphOutputs[0].name
    entries = [
        {"tensor": x, "type": "uint8", "scale": 1 / 64, "offset": -128},
        {"tensor": y, "type": "uint8", "scale": 2.0**-16},
    ]
    netforge.set_custom_io(graph, entries)
    optimize(graph)
    model = netforge.to_onnx(graph)
    kinds = [info.type.tensor_type.elem_type for info in (*model.graph.input, *model.graph.output)]
    assert kinds == [onnx.TensorProto.UINT8] * 2
    assert (model.graph.node[0].op_type, model.graph.node[-1].op_type) == (
        "DequantizeLinear",
        "QuantizeLinear",
    )
    before = netforge.from_onnx(path, layout, random_weights=3)
    report = netforge.check(before, graph, regimes=("normal", "large"), time_limit=1.0)
    assert report.worst <= Verdict.ROUNDING, str(report)
    # Another scale of the input is another network.
    netforge.set_custom_io(before, [{**entries[0], "offset": -100}, entries[1]])
    other = netforge.check(graph, optimize(before), regimes=("normal",), time_limit=1.0)
    assert other.worst is Verdict.DIFFERENT, str(other)


TYPES = ("uint8", "int8", "uint16", "int16")


@pytest.mark.parametrize("opset", [18, 21])
@pytest.mark.parametrize("offset", [0, -3, 5, -100000])
@pytest.mark.parametrize("type_name", TYPES)
def test_every_type_and_offset_runs(type_name: str, offset: int, opset: int) -> None:
    """The numbers of the table of types, whether ONNX has an operator for the zero point or not."""
    graph = make_chain()
    entries = [{"tensor": name, "type": type_name, "scale": 0.25, "offset": offset} for name in ("x", "y")]
    netforge.set_custom_io(graph, entries)
    model = netforge.to_onnx(optimize(graph), opset=opset)
    limits = np.iinfo(type_name)
    random = np.random.default_rng(0)
    q = random.integers(limits.min, limits.max + 1, (2, 3, 5, 7)).astype(type_name)
    found = Session(model).run({"x": q})["y"]
    x = (q.astype(np.float64) + offset) * 0.25
    x = np.exp(x.transpose(0, 2, 3, 1) - x.transpose(0, 2, 3, 1).max(axis=3, keepdims=True))
    y = x / x.sum(axis=3, keepdims=True)
    expected = np.clip(np.rint(y / 0.25) - offset, limits.min, limits.max)
    assert found.dtype == type_name
    assert np.abs(found.astype(np.int64) - expected).max() <= (np.abs(y / 0.25 % 1 - 0.5) < 1e-3).any()


def test_integer_inputs_are_cast_back() -> None:
    graph = netforge.IrGraph("integers")
    kinds = netforge.DataType.ORLO_DATATYPE_INT_32, netforge.AxisFormat.NF
    graph.addTensor(netforge.IrTensor("x", [2, 3], *kinds, tensorType=netforge.TensorType.GraphInput))
    graph.addTensor(netforge.IrTensor("y", [2, 3], *kinds, tensorType=netforge.TensorType.GraphOutput))
    graph.addOp(netforge.createOp("Eltwise_Binary", "y", {"operation": 0}), ["x", "x"], ["y"])
    before = netforge.to_onnx(graph)
    netforge.set_custom_io(graph, [{"tensor": "x", "type": "int16", "scale": 1.0, "offset": 2}])
    report = netforge.check(before, optimize(graph))
    assert report.worst is Verdict.SAME_BITS, str(report)


def test_verdicts_of_integer_outputs_follow_the_noise() -> None:
    encoding = LinearEncoding(0.5, 10, np.dtype(np.uint8))
    before = np.array([0.0, 0.25, 3.1, 500.0, np.inf, -np.inf], np.float32)
    exact = encoding.quantise(before)
    assert exact.tolist() == [10, 10, 16, 255, 255, 0]
    double = before.astype(np.float64) + 1e-3
    tie, neighbour, two = (exact.copy() for _ in range(3))
    tie[1] += 1  # 0.25 lies half way
    neighbour[2] += 1
    two[1] += 2
    verdicts = [compare_quantised(before, q, double, encoding).verdict for q in (exact, tie, two)]
    assert verdicts == [Verdict.SAME_BITS, Verdict.ROUNDING, Verdict.SUSPICIOUS]
    small, small_double = before[:3], double[:3] - 1e-3 + 1e-9
    assert compare_quantised(small, neighbour[:3], small_double, encoding).verdict is Verdict.DIFFERENT


def test_the_command_quantises_and_records(tmp_path: Path, chain: netforge.IrGraph) -> None:
    netforge.save_onnx(chain, tmp_path / "m.onnx")
    (tmp_path / "io.yaml").write_text(
        "- {tensor: x, scale: 0.0625, offset: -128}\n- {tensor: y, scale: 0.01}\n"
    )
    (tmp_path / "t.json").write_text('{"graphs": {"g": {"execution_order": 0}}}')

    def command(*more: str) -> subprocess.CompletedProcess[str]:
        line = [sys.executable, "-m", "netforge", "optimize", "m.onnx", "--quiet", *more]
        return subprocess.run(line, cwd=tmp_path, capture_output=True, text=True, timeout=120, env=os.environ)

    given = ["--custom-io", "io.yaml", "--transform-metadata", "t.json", "--dump", "stage", "--dump-dir", "d"]
    done = command(*given, "--output", "q.onnx", "--check")
    assert (done.returncode, done.stderr) == (0, "")
    assert onnx.load(tmp_path / "q.onnx").graph.input[0].type.tensor_type.elem_type == onnx.TensorProto.UINT8
    assert '"version": "1.0.0"' in (tmp_path / "t.json").read_text()
    done = command("--custom-io", "io.yaml", "--check", "each-pass")
    assert (done.returncode, done.stderr) == (0, "")
    (tmp_path / "io.yaml").write_text("- {tensor: q}")
    (tmp_path / "t.json").write_text("{")
    for arguments, told in (
        (["--custom-io", "io.yaml"], "the model has no tensor 'q'"),
        (["--custom-io", "none.yaml"], "none.yaml"),
        (["--transform-metadata", "t.json"], "JSON parse error in file"),
    ):
        done = command(*arguments)
        assert done.returncode == 1
        assert told in done.stderr and done.stderr.count("\n") == 1
    assert (tmp_path / "t.json").read_text() == "{"
