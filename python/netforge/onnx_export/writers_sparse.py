"""Writers of the sparse ops on the dense form of their tensors."""

from __future__ import annotations

from netforge.onnx_export.op_writer import OpWriter
from netforge.onnx_export.registry import writer
from netforge.onnx_export.sparse_form import gather_rows, keep_places, places_of, spread_rows


def _places(op: OpWriter) -> str:
    return places_of(op, int(op.attribute("num_specified_elements")))


@writer("GetSparseIndices")
def get_sparse_indices(op: OpWriter) -> None:
    places = _places(op)
    op.result(places)
    op.graph.places_in[op.op.outputs[0].name] = places


@writer("GetSparseValues")
def get_sparse_values(op: OpWriter) -> None:
    op.result(gather_rows(op, op.x, _places(op)))


@writer("CreateSparse")
def create_sparse(op: OpWriter) -> None:
    # An index tensor that was read from a tensor stands for that tensor's places.
    places = op.graph.places_in.get(op.x) or op.as_index(op.x)
    op.result(spread_rows(op, places, op.input(1)))
    keep_places(op, op.op.outputs[0].name, places)
