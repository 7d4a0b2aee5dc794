from __future__ import annotations

import netforge
import pytest
from netforge import AxisFormat, DataType, IrGraph, IrTensor, TensorType

FLOAT32 = DataType.ORLO_DATATYPE_FLOAT_32


def make_chain() -> IrGraph:
    """x [2,3,5,7] -> Transpose a [2,5,7,3] -> Softmax y, a graph output."""
    graph = IrGraph("chain")
    graph.addTensor(IrTensor("x", [2, 3, 5, 7], FLOAT32, AxisFormat.NCHW, tensorType=TensorType.GraphInput))
    graph.addOp(netforge.createOp("Transpose", "a", {"perm": [0, 2, 3, 1]}), ["x"], ["a"])
    graph.addTensor(IrTensor("y", [2, 5, 7, 3], FLOAT32, tensorType=TensorType.GraphOutput))
    graph.addOp(netforge.createOp("Softmax", "soft", {"axis": 3}), ["a"], ["y"])
    return graph


@pytest.fixture
def chain() -> IrGraph:
    return make_chain()
