"""Operators whose old form the onnx package brings to a newer version with another meaning, or not at all."""

from __future__ import annotations

from collections.abc import Callable

from netforge.onnx_export.element_types import FLOAT, INT64
from netforge.onnx_export.op_writer import OpWriter

Attributes = dict[str, object]


def write_changed(
    op: OpWriter, name: str, version: int, inputs: list[str], outputs: list[str], attributes: Attributes
) -> bool:
    """Writes a node of an older version in the words of the graph's, when it is one of these operators."""
    last, writer = _CHANGED.get(name, (0, None))
    if writer is None or version > last:
        return False
    writer(op, inputs, outputs, attributes)
    return True


def _scatter(op: OpWriter, inputs: list[str], outputs: list[str], attributes: Attributes) -> None:
    op.graph.add("ScatterElements", inputs, outputs, op.op.name, attributes)


def _hardmax(op: OpWriter, inputs: list[str], outputs: list[str], attributes: Attributes) -> None:
    """All axes from the given one on count as one."""
    (x,) = inputs
    dims = op.dims(x)
    axis = int(attributes.get("axis", 1))  # type: ignore[call-overload]
    axis += len(dims) if axis < 0 else 0
    if axis == len(dims) - 1:
        op.graph.add("Hardmax", [x], outputs, op.op.name, {"axis": axis})
        return
    flat = op.node("Hardmax", [op.node("Flatten", [x], {"axis": axis})], {"axis": 1})
    is_static = None not in dims
    shape = op.shape(dims) if is_static else op.node("Shape", [x], kind=INT64)  # type: ignore[arg-type]
    zero = None if is_static and 0 not in dims else {"allowzero": 1}
    op.graph.add("Reshape", [flat, shape], outputs, op.op.name, zero)


def _resize(op: OpWriter, inputs: list[str], outputs: list[str], attributes: Attributes) -> None:
    """The corners of the images lie on each other; the scales were an attribute once."""
    changed = dict(attributes)
    scales = changed.pop("scales", None)
    scales = inputs[1] if scales is None else op.constant(scales, FLOAT, "scales")
    changed.update(coordinate_transformation_mode="asymmetric", nearest_mode="floor")
    op.graph.add("Resize", [inputs[0], "", scales], outputs, op.op.name, changed)


def _roi_align(op: OpWriter, inputs: list[str], outputs: list[str], attributes: Attributes) -> None:
    changed = {**attributes, "coordinate_transformation_mode": "output_half_pixel"}
    op.graph.add("RoiAlign", inputs, outputs, op.op.name, changed)


def _grid_sample(op: OpWriter, inputs: list[str], outputs: list[str], attributes: Attributes) -> None:
    mode = str(attributes.get("mode", "bilinear"))
    modes = {"bilinear": "linear", "bicubic": "cubic"}
    op.graph.add("GridSample", inputs, outputs, op.op.name, {**attributes, "mode": modes.get(mode, mode)})


# Name -> the last version of the old form, and its writer.
_CHANGED: dict[str, tuple[int, Callable[[OpWriter, list[str], list[str], Attributes], None]]] = {
    "Scatter": (10, _scatter),
    "Hardmax": (12, _hardmax),
    "Resize": (10, _resize),
    "Upsample": (9, _resize),
    "RoiAlign": (15, _roi_align),
    "GridSample": (19, _grid_sample),
}
