"""The export of a graph, from ops to model."""

from __future__ import annotations

import os
from collections.abc import Iterable
from pathlib import Path

import onnx
from onnx import helper

import netforge
from netforge.onnx_export import (  # noqa: F401  the modules enter their writers
    writers_convolution,
    writers_elementwise,
    writers_indexing,
    writers_matrix,
    writers_movement,
    writers_normalization,
    writers_quantization,
    writers_recurrent,
    writers_sparse,
)
from netforge.onnx_export.element_types import element_type
from netforge.onnx_export.errors import OnnxExportError
from netforge.onnx_export.graph_writer import GraphWriter, dims_of
from netforge.onnx_export.op_writer import OpWriter
from netforge.onnx_export.plain import OLDEST_OPSET, choose_opset, is_plain, write_plain
from netforge.onnx_export.registry import writers
from netforge.onnx_export.storage import LARGEST_INSIDE, inside, outside, total_bytes

# opset version -> the oldest IR version that may hold it
_IR_VERSIONS = ((21, 10), (23, 11), (24, 12))


def _write_graph(graph: netforge.IrGraph, opset: int, shown: Iterable[str] = ()) -> GraphWriter:
    writer = GraphWriter(graph, opset)
    writer.shown.update(shown)
    for op in graph.ops:
        op_writer = OpWriter(writer, op)
        function = None if is_plain(op) else writers.get(op.type)
        try:
            (write_plain if function is None else function)(op_writer)
        except OnnxExportError as error:
            if error.op:
                raise
            raise op_writer.fail(str(error)) from error
        except (ArithmeticError, LookupError, TypeError, ValueError, RuntimeError) as error:
            raise op_writer.fail(f"it can't be exported: {error}") from error
    for tensor in graph.graphOutputs:
        _show(writer, tensor)
    writer.remove_dead()
    return writer


def _show(writer: GraphWriter, tensor: netforge.IrTensor) -> None:
    """A graph output that no op writes is a constant: an Identity brings it out under its name."""
    if tensor.producer is not None or tensor.isGraphInput():
        return
    if not isinstance(tensor, netforge.IrStaticTensor):
        raise OnnxExportError(f"no op computes the graph output '{tensor.name}'")
    writer.add("Identity", [writer.read(tensor)], [tensor.name], f"{tensor.name}_shown")


def _value_info(tensor: netforge.IrTensor, symbols: bool) -> onnx.ValueInfoProto:
    dims: list[int | str | None] = list(dims_of(tensor))
    if symbols:
        dims = [f"{tensor.name}_{axis}" if size is None else size for axis, size in enumerate(dims)]
    return helper.make_tensor_value_info(tensor.name, element_type(tensor.dataType), dims)


def _model(
    graph: netforge.IrGraph, writer: GraphWriter, initializers: list[onnx.TensorProto]
) -> onnx.ModelProto:
    shown = {tensor.name for tensor in (*graph.graphInputs, *graph.graphOutputs)}
    written = {name for node in writer.nodes for name in node.output} - shown
    inner = [tensor for name, tensor in graph.tensors.items() if name in written]
    proto = helper.make_graph(
        writer.nodes,
        graph.name or "graph",
        [_value_info(tensor, True) for tensor in graph.graphInputs],
        [_value_info(tensor, False) for tensor in graph.graphOutputs],
        value_info=[_value_info(tensor, False) for tensor in sorted(inner, key=lambda tensor: tensor.name)],
    )
    proto.initializer.extend(initializers)
    opsets = [helper.make_opsetid("", writer.opset)]
    opsets += [helper.make_opsetid(domain, version) for domain, version in sorted(writer.domains.items())]
    ir_version = next((ir for last, ir in _IR_VERSIONS if writer.opset <= last), onnx.IR_VERSION)
    return helper.make_model(
        proto,
        opset_imports=opsets,
        ir_version=ir_version,
        producer_name="netforge",
        producer_version=netforge.__version__,
    )


def _opset(graph: netforge.IrGraph, wished: int | None) -> int:
    newest = onnx.defs.onnx_opset_version()
    if wished is None:
        return choose_opset(graph)
    if not OLDEST_OPSET <= wished <= newest:
        raise OnnxExportError(f"opset {wished} can't be written; the versions are {OLDEST_OPSET} to {newest}")
    return wished


def to_onnx(
    graph: netforge.IrGraph, *, opset: int | None = None, external_data: str | os.PathLike[str] | None = None
) -> onnx.ModelProto:
    """States a graph as an ONNX model with the names, shapes and types of the graph's inputs and outputs.

    Ops that ONNX lacks are written as the operators that define them. The graph's axis order tells where
    the channels of its data are. `opset` is the version of the default domain, 18 or newer; without it 21 is
    taken, or what plain ops of another version ask for.

    `external_data` names a file that the bytes of larger constants are written to; the model finds it by its
    file name and has to be saved beside it. Without it all constants lie inside the model.

    Raises OnnxExportError, a ValueError, for an op or a type that ONNX can't state, and for constants of
    more than 2 GB without `external_data`.
    """
    writer = _write_graph(graph, _opset(graph, opset))
    constants = list(writer.initializers.values())
    if external_data is not None:
        return _model(graph, writer, outside(constants, external_data))
    total = total_bytes(constants)
    if total > LARGEST_INSIDE:
        raise OnnxExportError(
            f"{total} bytes of constants are more than one model can hold: name a file for external data"
        )
    return _model(graph, writer, [inside(found) for found in constants])


def to_onnx_with(graph: netforge.IrGraph, shown: Iterable[str]) -> onnx.ModelProto:
    """The model with computed tensors of these names as further outputs, for looking into it."""
    names = list(dict.fromkeys(shown))
    writer = _write_graph(graph, choose_opset(graph), names)
    model = _model(graph, writer, [inside(found) for found in writer.initializers.values()])
    there = {info.name for info in model.graph.output}
    model.graph.output.extend(
        _value_info(graph.getTensor(name), False) for name in names if name not in there
    )
    kept = [info for info in model.graph.value_info if info.name not in set(names)]
    del model.graph.value_info[:]
    model.graph.value_info.extend(kept)
    return model


def save_onnx(
    graph: netforge.IrGraph,
    path: str | os.PathLike[str],
    *,
    opset: int | None = None,
    external_data: bool | str | None = None,
) -> None:
    """Writes a graph to an ONNX file, as `to_onnx` states it.

    `external_data` is the name of a file in the same folder for the bytes of larger constants; True stands
    for `<path>.data`, which is also taken for constants of more than 2 GB. An existing file is replaced.
    """
    path = Path(path)
    writer = _write_graph(graph, _opset(graph, opset))
    constants = list(writer.initializers.values())
    if external_data is True or (external_data is None and total_bytes(constants) > LARGEST_INSIDE):
        external_data = f"{path.name}.data"
    if external_data:
        if Path(external_data).name != external_data:
            raise OnnxExportError(f"'{external_data}' is no file name in the model's folder")
        protos = outside(constants, path.parent / external_data)
    else:
        protos = [inside(found) for found in constants]
    path.write_bytes(_model(graph, writer, protos).SerializeToString())
