"""Builds a small network by hand, optimizes it and shows it before and after.

The network is what a converter makes of a channel-first model for a channel-last runtime: each layer between
two Transposes. The pairs between the layers cancel out.
"""

from __future__ import annotations

import libPyGraphRefiner312 as refiner
import netforge
import numpy as np
from netforge import AxisFormat, DataType, IrGraph, IrStaticTensor, IrTensor, TensorType

FLOAT32 = DataType.ORLO_DATATYPE_FLOAT_32


def build() -> IrGraph:
    graph = IrGraph("two_layers")
    graph.addTensor(IrTensor("x", [1, 3, 8, 6], FLOAT32, AxisFormat.NCHW, tensorType=TensorType.GraphInput))
    scale = np.linspace(0.5, 1.5, 3, dtype=np.float32)
    last = "x"
    for layer in range(2):
        graph.addOp(
            netforge.createOp("Transpose", f"to_last{layer}", {"perm": [0, 2, 3, 1]}),
            [last],
            [f"to_last{layer}"],
        )
        graph.addTensor(IrStaticTensor(f"scale{layer}", scale))
        # Operation 13 of Eltwise_Binary is the product; the scale is laid out along the last axis.
        product = netforge.createOp("Eltwise_Binary", f"scaled{layer}", {"operation": 13})
        graph.addOp(product, [f"to_last{layer}", f"scale{layer}"], [f"scaled{layer}"])
        last = f"to_first{layer}"
        graph.addOp(netforge.createOp("Transpose", last, {"perm": [0, 3, 1, 2]}), [f"scaled{layer}"], [last])
    graph.addTensor(IrTensor("y", [1, 3, 8, 6], FLOAT32, AxisFormat.NCHW, tensorType=TensorType.GraphOutput))
    graph.addOp(netforge.createOp("ElementWiseNeuron", "relu", {"operation": 4}), [last], ["y"])
    return graph


def main() -> None:
    graph = build()
    print(graph)
    refiner.GraphRefiner(
        graph, [refiner.OptimizationStage.PostLayout], None, refiner.GraphRefinerContext()
    ).optimize()
    print(graph)
    print(f"{graph.countOpsOfType('Transpose')} Transposes are left of 4")


if __name__ == "__main__":
    main()
