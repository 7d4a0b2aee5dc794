"""Values in front of functions that hide differences.

Behind a Softmax that is sure of itself every element is 0 or 1, whatever its operand is. So the operand of
such a function, where it makes a graph output, is compared as well.
"""

from __future__ import annotations

import onnx
from onnx import TensorProto, helper

_HIDING = frozenset(("Softmax", "Sigmoid", "HardSigmoid", "Tanh", "ArgMax", "ArgMin"))
_PASSING = frozenset(
    ("Cast", "Flatten", "Identity", "QuantizeLinear", "Reshape", "Squeeze", "Transpose", "Unsqueeze")
)


def add_probes(model: onnx.ModelProto) -> dict[str, str]:
    """Makes operands of hiding functions further outputs of the model.

    Gives, by graph output and function ("y before Softmax"), the name of the value.
    """
    producers = {output: node for node in model.graph.node for output in node.output}
    kinds = {info.name: info.type for info in (*model.graph.input, *model.graph.value_info)}
    there = {info.name for info in model.graph.output}
    probes = {}
    for info in list(model.graph.output):
        node = producers.get(info.name)
        while node is not None and node.op_type in _PASSING and not node.domain:
            node = producers.get(node.input[0])
        if node is None or node.domain or node.op_type not in _HIDING or node.input[0] not in producers:
            continue
        operand = node.input[0]
        probes[f"{info.name} before {node.op_type}"] = operand
        if operand not in there:
            there.add(operand)
            type_proto = kinds.get(operand) or helper.make_tensor_type_proto(TensorProto.FLOAT, None)
            model.graph.output.append(helper.make_value_info(operand, type_proto))
    return probes
