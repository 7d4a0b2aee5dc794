"""The expansion of sparse ops, checked in ONNX Runtime on the dense form of what the graphs compute."""

from __future__ import annotations

from collections.abc import Callable

import libPyGraphRefiner312 as refiner
import netforge
import numpy as np
import pytest
from export_graphs import make_op
from export_reference import floats

FLOAT = netforge.DataType.ORLO_DATATYPE_FLOAT_32
COUNT = np.uint32(5)
DIMS = [1, 3, 4, 2]
WEIGHT = floats(3, 3, 2, 2)
PLACES = np.array([[0, 2, 2], [0, 0, 1], [0, 1, 0], [0, 1, 3], [0, 2, 0]], np.int32)
SPARSE = netforge.SparseParams(0, int(COUNT), 3)


class Net:
    """Begins with a graph input x, or with x at `PLACES` and the graph input v as its values."""

    def __init__(self, with_places: bool = False) -> None:
        self.graph = netforge.IrGraph("sparse", netforge.SpatialFirstAxisOrder())
        name, dims = ("v", [int(COUNT), DIMS[-1]]) if with_places else ("x", DIMS)
        tensor = netforge.IrTensor(name, dims, FLOAT, tensorType=netforge.TensorType.GraphInput)
        if not with_places:
            tensor.setSparseParams(SPARSE)
        self.graph.addTensor(tensor)
        if with_places:
            self.graph.addTensor(netforge.IrStaticTensor("places", PLACES, copy=True))
            self.add("CreateSparse", "x", ["places", "v"])

    def add(
        self, op_type: str, name: str, inputs: list[str], dims: list[int] = DIMS, **values: object
    ) -> str:
        self.graph.addOp(make_op(op_type, name, values), inputs, [name], outputShapes=[dims])
        if dims == DIMS:
            self.graph.getTensor(name).setSparseParams(SPARSE)
        return name

    def activated(self, name: str, source: str, operation: int) -> str:
        rows = [int(COUNT), DIMS[-1]]
        places = self.add(
            "GetSparseIndices", f"{name}_i", [source], [int(COUNT), 3], num_specified_elements=COUNT
        )
        values = self.add("GetSparseValues", f"{name}_v", [source], rows, num_specified_elements=COUNT)
        values = self.add("ElementWiseNeuron", f"{name}_a", [values], rows, operation=np.uint32(operation))
        return self.add("CreateSparse", name, [places, values])

    def conv(self, name: str, source: str, reuse: bool = True) -> str:
        weight = netforge.IrStaticTensor(f"{name}_w", WEIGHT, copy=True)
        self.graph.addTensor(weight)
        words = {
            "stride": np.array([1, 1], np.uint32),
            "pad_amount": np.array([[1, 1], [1, 1]], np.uint32),
            "reuse_sparse_indices": reuse,
        }
        return self.add("Conv2d", name, [source, weight.name], **words)

    def finished(self, name: str) -> netforge.IrGraph:
        tensor = self.graph.getTensor(name)
        self.graph.removeTensor(name)
        tensor.setTensorType(netforge.TensorType.GraphOutput)
        self.graph.addTensor(tensor)
        return self.graph


def activation(operation: int) -> netforge.IrGraph:
    net = Net()
    return net.finished(net.add("ElementWiseNeuron", "y", ["x"], operation=np.uint32(operation)))


def residual(reuse: bool = True) -> netforge.IrGraph:
    """The activation makes rows of zeros, which stay specified."""
    net = Net(with_places=True)
    a = net.activated("a", "x", 4)
    b = net.conv("b", net.activated("d", net.conv("c", a, reuse), 4))
    return net.finished(net.add("Eltwise_Binary", "y", [a, b], operation=np.uint32(0)))


@pytest.mark.parametrize(
    ("build", "gone"),
    [
        (lambda: activation(4), "ElementWiseNeuron y"),
        (lambda: activation(6), "ElementWiseNeuron y"),  # of 0 it makes 0.5
        (residual, "Eltwise_Binary y"),
    ],
)
def test_the_expansion_keeps_what_a_graph_computes(build: Callable[[], netforge.IrGraph], gone: str) -> None:
    before, after = build(), build()
    context = refiner.GraphRefinerContext()
    context.optimizer_config = {"enabledPasses": ["ExpandSparseOpStructure"]}
    stages = [refiner.OptimizationStage.PostLayout]
    refiner.GraphRefiner(after, stages, netforge.BackendInfo(0), context).optimize()
    assert gone not in {f"{op.type} {op.name}" for op in after.ops}
    assert {"GetSparseIndices", "CreateSparse"} <= {op.type for op in after.ops}
    report = netforge.check(before, after)
    assert report.ok, str(report)


def test_other_places_show_in_the_check() -> None:
    assert not netforge.check(residual(), residual(reuse=False)).ok
