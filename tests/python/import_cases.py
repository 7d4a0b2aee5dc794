"""The single-operator cases of the onnx package, and what every imported graph must fulfil."""

from __future__ import annotations

import functools
import warnings

import netforge
import numpy as np
import onnx
from onnx import numpy_helper

LAYOUTS = ("spatial_first", "source")
COMPLETE = (
    "netforge::IrGraph::validateTraceInfoCompleteness: Framework tracing record is complete in stage import."
)


@functools.cache
def node_cases() -> list:
    with warnings.catch_warnings(), np.errstate(all="ignore"):
        warnings.simplefilter("ignore")
        from onnx.backend.test.case.node import collect_testcases

        return collect_testcases(None)


def with_constants(case) -> onnx.ModelProto | None:
    """The case's model with all inputs but the first made constants; None when they are no tensors."""
    model = onnx.ModelProto()
    model.CopyFrom(case.model)
    names = [info.name for info in model.graph.input]
    arrays = case.data_sets[0][0]
    if len(names) < 2 or not all(isinstance(array, (np.ndarray, np.generic)) for array in arrays[1:]):
        return None
    if any(np.asarray(array).dtype.kind == "O" for array in arrays[1:]):
        return None
    pairs = zip(names[1:], arrays[1:], strict=True)
    model.graph.initializer.extend(numpy_helper.from_array(np.asarray(array), name) for name, array in pairs)
    del model.graph.input[1:]
    model.ir_version = max(model.ir_version, 4)
    return model


def dims_of(info: onnx.ValueInfoProto) -> list[int]:
    """Dims as the graph shows them: 1 stands at a dynamic axis."""
    return [dim.dim_value if dim.HasField("dim_value") else 1 for dim in info.type.tensor_type.shape.dim]


def check_graph(graph: netforge.IrGraph, model: onnx.ModelProto) -> None:
    """Inputs and outputs are the model's, links are whole, dims are those of inference.

    Prints what the trace validation finds, which is COMPLETE and nothing else.
    """
    constants = {tensor.name for tensor in model.graph.initializer}
    inputs = [info for info in model.graph.input if info.name not in constants]
    for tensors, infos in ((graph.graphInputs, inputs), (graph.graphOutputs, model.graph.output)):
        assert [tensor.name for tensor in tensors] == [info.name for info in infos]
        for tensor, info in zip(tensors, infos, strict=True):
            assert list(tensor.dims) == dims_of(info), tensor
    assert graph.checkInvariants() == []
    graph.validateTraceInfoCompleteness("import")
    for op in graph.ops:
        tensors = (*op.inputs, *op.outputs)
        if netforge.hasMethod(op.type) and not any(tensor.dynamicAxes for tensor in tensors):
            expected = [list(tensor.dims) for tensor in op.outputs]
            # Recurrent ops tell the dims of all outputs that they may have.
            found = [list(dims) for dims in op.inferOutputShapes(graph.axisOrder, len(op.outputs))]
            assert found[: len(expected)] == expected, op
