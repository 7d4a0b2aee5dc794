"""Graphs of one op, built by hand, and their runs in the runtime."""

from __future__ import annotations

from collections.abc import Mapping, Sequence

import netforge
import numpy as np
import onnx
import onnxruntime
from netforge import DataType, IrGraph, IrStaticTensor, IrTensor, TensorType

_CLASSES = {"eltwise_type": 2, "reduce_type": 2, "arg_type": 2, "pool_type": 2, "num_specified_elements": 2}
_TYPES = {
    "f4": "FLOAT_32", "f8": "FLOAT_64", "f2": "FLOAT_16", "i1": "INT_8", "i2": "INT_16", "i4": "INT_32",
    "i8": "INT_64", "u1": "UINT_8", "u2": "UINT_16", "u4": "UINT_32", "u8": "UINT_64", "b1": "BOOL_8",
}  # fmt: skip
ORDERS = {"first": netforge.SpatialFirstAxisOrder, "last": netforge.OnnxAxisOrder}


def data_type(dtype: np.dtype | str) -> DataType:
    return getattr(DataType, f"ORLO_DATATYPE_{_TYPES[np.dtype(dtype).str[1:]]}")


def attributes_of(op_name: str, values: Mapping[str, object]) -> netforge.IrAttributes:
    """NumPy arrays become static tensors, NumPy scalars say which integer type is meant."""
    attributes = netforge.IrAttributes({})
    for name, value in values.items():
        if isinstance(value, np.ndarray):
            value = IrStaticTensor(f"{op_name}_{name}", value, copy=True)
        attr_class = 2 if name in _CLASSES or name == "shape" else 1
        attributes.add(name, value, attr_class)
    return attributes


def make_op(op_type: str, name: str, values: Mapping[str, object]) -> netforge.IrOp:
    attributes = attributes_of(name, values)
    if netforge.hasMethod(op_type):
        return netforge.applyMethod(op_type, name, attributes)
    return netforge.IrOp(name, op_type, attributes)


def one_op_graph(
    op_type: str,
    values: Mapping[str, object],
    inputs: Sequence[np.ndarray],
    outputs: Sequence[np.ndarray],
    order: str = "first",
    static: Sequence[int] = (),
) -> IrGraph:
    """The op "op" with inputs x0, x1 ... (those at `static` places constants) and outputs y0, y1 ..."""
    graph = IrGraph("one_op", ORDERS[order]())
    for place, array in enumerate(inputs):
        if place in static:
            graph.addTensor(IrStaticTensor(f"x{place}", array, copy=True))
        else:
            kind = data_type(array.dtype)
            graph.addTensor(IrTensor(f"x{place}", array.shape, kind, tensorType=TensorType.GraphInput))
    for place, array in enumerate(outputs):
        kind = data_type(array.dtype)
        graph.addTensor(IrTensor(f"y{place}", array.shape, kind, tensorType=TensorType.GraphOutput))
    shapes = [list(array.shape) for array in outputs]
    names = [
        [f"{letter}{place}" for place in range(len(arrays))]
        for letter, arrays in (("x", inputs), ("y", outputs))
    ]
    graph.addOp(make_op(op_type, "op", values), *names, outputShapes=shapes)
    return graph


def run(model: onnx.ModelProto, feeds: Mapping[str, np.ndarray]) -> list[np.ndarray]:
    """Checks the model in full and runs it with the runtime's optimisations off."""
    onnx.checker.check_model(model, full_check=True)
    options = onnxruntime.SessionOptions()
    options.graph_optimization_level = onnxruntime.GraphOptimizationLevel.ORT_DISABLE_ALL
    options.log_severity_level = 4
    session = onnxruntime.InferenceSession(
        model.SerializeToString(), options, providers=["CPUExecutionProvider"]
    )
    names = {info.name for info in session.get_inputs()}
    return session.run(None, {name: array for name, array in feeds.items() if name in names})


def run_op(
    op_type: str,
    values: Mapping[str, object],
    inputs: Sequence[np.ndarray],
    outputs: Sequence[np.ndarray],
    order: str = "first",
    static: Sequence[int] = (),
) -> list[np.ndarray]:
    """What the exported op computes; `outputs` give its dims and types."""
    model = netforge.to_onnx(one_op_graph(op_type, values, inputs, outputs, order, static))
    return run(model, {f"x{place}": array for place, array in enumerate(inputs)})
