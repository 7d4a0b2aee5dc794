"""Writers of gathering, scattering, sorting, running sums and reductions."""

from __future__ import annotations

from netforge.onnx_export.element_types import BOOL, INT32, INT64
from netforge.onnx_export.op_writer import OpWriter
from netforge.onnx_export.registry import writer


def _indices(op: OpWriter, value: str) -> str:
    return value if op.kind(value) in (INT32, INT64) else op.as_index(value)


@writer("Gather")
def gather(op: OpWriter) -> None:
    axis = op.axis(op.rank(op.x))
    op.result(op.node("Gather", [op.x, _indices(op, op.input(1))], {"axis": axis}))


@writer("GatherElements")
def gather_elements(op: OpWriter) -> None:
    axis = op.axis(op.rank(op.x))
    op.result(op.node("GatherElements", [op.x, _indices(op, op.input(1))], {"axis": axis}))


@writer("GatherNd")
def gather_nd(op: OpWriter) -> None:
    batch_dims = op.axis(op.rank(op.x), "batch_dims", 0)
    op.result(op.node("GatherND", [op.x, op.as_index(op.input(1))], {"batch_dims": batch_dims}))


@writer("ScatterNd")
def scatter_nd(op: OpWriter) -> None:
    names = [op.x, op.as_index(op.input(1)), op.cast(op.input(2), op.kind(op.x))]
    op.result(op.node("ScatterND", names, {"reduction": str(op.attribute("reduction", "none"))}))


@writer("TopK")
def top_k(op: OpWriter) -> None:
    """Along the last axis, the largest or smallest first, of equal values the one of the lower index."""
    from netforge.onnx_export.element_types import computing_type

    kind = op.kind(op.x)
    computing = computing_type("TopK", kind)
    attributes = {"axis": op.rank(op.x) - 1, "largest": int(bool(op.attribute("largest", True))), "sorted": 1}
    names = [op.cast(op.x, computing), op.shape([int(op.attribute("k"))], "k")]
    found = op.nodes("TopK", names, attributes, [computing, INT64])
    for position in range(len(op.op.outputs)):
        op.result(op.cast(found[0], kind) if position == 0 else found[1], position)


@writer("Arg")
def arg(op: OpWriter) -> None:
    names = {"Argmax": "ArgMax", "Argmin": "ArgMin"}
    arg_type = str(op.attribute("arg_type"))
    if arg_type not in names:
        raise op.fail(f"arg_type is '{arg_type}'")
    keep = bool(op.attribute("keep_dims", False))
    attributes = {"axis": op.axis(op.rank(op.x)), "keepdims": int(keep)}
    place = op.node(names[arg_type], [op.x], attributes, kind=INT64)
    op.result(place if keep or op.rank(op.x) > 1 else op.reshape(place, op.out_dims()))


@writer("CumulativeSum")
def cumulative_sum(op: OpWriter) -> None:
    attributes = {name: int(bool(op.attribute(name, False))) for name in ("exclusive", "reverse")}
    axis = op.constant(op.axis(op.rank(op.x)), INT64, "axis")
    op.result(op.node("CumSum", [op.x, axis], attributes))


_REDUCTIONS = ("ReduceSum", "ReduceMean", "ReduceMax", "ReduceMin", "ReduceProd")


@writer("Reduce", "ReduceL2")
def reduction(op: OpWriter) -> None:
    name = str(op.attribute("reduce_type")) if op.op.type == "Reduce" else "ReduceL2"
    if name not in (*_REDUCTIONS, "ReduceL2"):
        raise op.fail(f"reduce_type is '{name}'")
    rank = op.rank(op.x)
    axes = sorted({axis + rank if axis < 0 else axis for axis in op.integers("axes")} - {rank})
    keep = bool(op.attribute("keep_dims", False))
    x = op.cast(op.x, INT32) if op.kind(op.x) == BOOL else op.x
    x = x if name in ("ReduceSum", "ReduceMax", "ReduceMin", "ReduceProd") else op.require_float(x)
    reduced = op.node(name, [x, op.shape(axes, "axes")], {"keepdims": int(keep), "noop_with_empty_axes": 1})
    # What is left of a full reduction is one element, here of dims [1].
    op.result(reduced if keep or len(axes) < rank else op.reshape(reduced, op.out_dims()))
