"""One type for operands that an operator wants of one type.

The IR's ops take operands of mixed types, and a pass that takes a Cast away leaves such; ONNX's don't.
"""

from __future__ import annotations

from collections.abc import Sequence

from onnx import defs

from netforge.onnx_export.element_types import BFLOAT, DOUBLE, FLOAT, HALF


def common_types(
    op_type: str, version: int, domain: str, kinds: Sequence[int]
) -> tuple[list[int], dict[str, int]]:
    """The types that the operands have to be cast to, given theirs (0 for an absent one), and the type of
    each variable of the operator's signature.

    Operands of one variable get the widest float among them, else the type of the first.
    """
    wanted = list(kinds)
    try:
        schema = defs.get_schema(op_type, version, domain)
    except defs.SchemaError:
        return wanted, {}
    variables = {constraint.type_param_str for constraint in schema.type_constraints}
    places: dict[str, list[int]] = {}
    for place, kind in enumerate(kinds):
        formal = schema.inputs[min(place, len(schema.inputs) - 1)]
        if kind and formal.type_str in variables and formal.is_homogeneous:
            places.setdefault(formal.type_str, []).append(place)
    bound = {}
    for variable, taken in places.items():
        held = [kinds[place] for place in taken]
        bound[variable] = next((kind for kind in (DOUBLE, FLOAT, BFLOAT, HALF) if kind in held), held[0])
        for place in taken:
            wanted[place] = bound[variable]
    return wanted, bound


def output_types(op_type: str, version: int, domain: str, count: int, bound: dict[str, int]) -> list[int]:
    """The types of the first `count` outputs where the operands' say so, else 0."""
    if not bound:
        return [0] * count
    outputs = defs.get_schema(op_type, version, domain).outputs
    return [bound.get(outputs[min(place, len(outputs) - 1)].type_str, 0) for place in range(count)]
