"""Which values of a model are laid out as batch, channels, spatial axes."""

from __future__ import annotations

from netforge.onnx_import.layout import SPATIAL_FORMATS
from netforge.onnx_import.preparation import Model

# Operators whose first input and first output have channels and spatial axes.
LAYOUT_OPERATORS = frozenset((
    "AveragePool", "BatchNormalization", "Conv", "ConvTranspose", "DepthToSpace", "GlobalAveragePool",
    "GlobalMaxPool", "InstanceNormalization", "LRN", "LpPool", "MaxPool", "Resize", "SpaceToDepth",
    "Upsample",
))  # fmt: skip
# Operators that leave the axes of their operands where they are.
_KEEPING = frozenset((
    "Abs", "Add", "Cast", "Clip", "Concat", "Div", "Dropout", "Elu", "Exp", "HardSigmoid", "HardSwish",
    "Identity", "LeakyRelu", "Max", "Mean", "Min", "Mul", "Neg", "PRelu", "Pad", "Pow", "Relu", "Selu",
    "Sigmoid", "Slice", "Softplus", "Sqrt", "Sub", "Sum", "Tanh",
))  # fmt: skip


def spatial_values(model: Model) -> set[str]:
    """Names of the values of rank 3 to 5 that a layout operator reads or writes, and of those that follow."""
    found: set[str] = set()
    for node in model.nodes:
        if node.op_type in LAYOUT_OPERATORS and not node.domain:
            found.update(name for name in (node.inputs[0], node.outputs[0]) if _has_spatial_rank(model, name))
    if not found:
        return found
    keeping = [node for node in model.nodes if node.op_type in _KEEPING and not node.domain]
    for node in keeping:
        _spread(model, found, node.inputs, node.outputs[:1])
    for node in reversed(keeping):
        _spread(model, found, node.outputs[:1], node.inputs)
    return found


def _spread(model: Model, found: set[str], known: list[str], others: list[str]) -> None:
    ranks = {model.type_of(name).rank for name in known if name in found}
    found.update(
        name
        for name in filter(None, others)
        if _has_spatial_rank(model, name) and model.type_of(name).rank in ranks
    )


def _has_spatial_rank(model: Model, name: str) -> bool:
    return model.type_of(name).rank in SPATIAL_FORMATS
