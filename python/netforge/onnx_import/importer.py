"""The import of a model, from file to graph."""

from __future__ import annotations

import os
from collections.abc import Callable, Mapping, Sequence
from pathlib import Path
from typing import TYPE_CHECKING

import onnx

from netforge.onnx_import import (  # noqa: F401  the modules enter their converters
    ops_convolution,
    ops_elementwise,
    ops_indexing,
    ops_matrix,
    ops_movement,
    ops_normalization,
    ops_pooling,
    ops_recurrent,
    ops_reduction,
)
from netforge.onnx_import.account import ImportAccount
from netforge.onnx_import.builder import Builder
from netforge.onnx_import.errors import OnnxImportError
from netforge.onnx_import.loading import load_model
from netforge.onnx_import.plan import Plan
from netforge.onnx_import.preparation import Model, prepare
from netforge.onnx_import.registry import convert_node
from netforge.onnx_import.spatial import spatial_values
from netforge.onnx_import.specialization import specialize

if TYPE_CHECKING:
    from netforge import IrGraph

LAYOUTS = ("spatial_first", "source")
Progress = Callable[[float, str], None]


def plan_model(
    source: str | os.PathLike[str] | onnx.ModelProto,
    layout: str,
    random_weights: int | None,
    account: ImportAccount,
    external_data_dir: str | os.PathLike[str] | None,
    progress: Progress,
    input_shapes: Mapping[str, Sequence[int]] | None = None,
    constant_inputs: Mapping[str, object] | None = None,
) -> tuple[Plan, Model]:
    """Everything up to the graph itself. Raises OnnxImportError, without a file name."""
    progress(0.0, "reading")
    loaded = load_model(source, external_data_dir)
    loaded.proto = specialize(loaded.proto, input_shapes or {}, constant_inputs or {})
    progress(0.2, "folding constants")
    model = prepare(
        loaded,
        random_weights,
        account,
        lambda done: progress(min(0.2 + 0.4 * done, 0.6), "folding constants"),
    )
    progress(0.6, "converting")
    builder = Builder(model, layout == "spatial_first", spatial_values(model))
    for node in model.nodes:
        convert_node(builder, node, account)
    builder.node = None
    plan = builder.finish()
    _count(plan, model, account)
    return plan, model


def _count(plan: Plan, model: Model, account: ImportAccount) -> None:
    converted = {op.node for op in plan.ops}
    dropped = []
    for node in model.nodes:
        if node.name not in converted:
            merged = node.op_type in ("Identity", "Dropout")
            (account.merged_nodes if merged else dropped).append(node.name)
            account.plain_reasons.pop(node.name, None)
    account.dropped_nodes.extend(dropped)
    for op in plan.ops:
        if op.for_layout:
            account.layout_transposes += 1
        elif op.plain:
            account.plain_ops[op.type] += 1
        else:
            account.typed_ops[op.type] += 1


def graph_name(source: str | os.PathLike[str] | onnx.ModelProto, model: Model) -> str:
    if model.name or isinstance(source, onnx.ModelProto):
        return model.name or "graph"
    return Path(source).stem


def from_onnx(
    source: str | os.PathLike[str] | onnx.ModelProto,
    layout: str = "spatial_first",
    random_weights: int | None = None,
    *,
    external_data_dir: str | os.PathLike[str] | None = None,
    input_shapes: Mapping[str, Sequence[int]] | None = None,
    constant_inputs: Mapping[str, object] | None = None,
    account: ImportAccount | None = None,
    progress: Progress | None = None,
) -> IrGraph:
    """Imports an ONNX model of opset 7 or newer as an IrGraph.

    `layout` "spatial_first" makes ops that have a layout work channel-last under a SpatialFirstAxisOrder,
    with Transposes around them and on their weights; "source" keeps the model's layout under an
    OnnxAxisOrder. Graph inputs and outputs keep name, shape and type in both. Constants are borrowed from
    the loaded model or stay in their external files until they are read; `external_data_dir` says where
    those lie, by default beside the model. `random_weights` is a seed: weights that the model fills with
    one value get random ones instead.

    `input_shapes` settles the shapes of inputs by name; their symbols get the same sizes everywhere.
    `constant_inputs` gives the values of inputs that the graph shall not have, such as a sampling rate or a
    training flag, whereupon branches and sizes that hang on them are decided. `progress(fraction, what)` is
    called now and then.

    The account of the import is filled into `account` where one is given, and is found by
    `import_account(graph)`. Raises OnnxImportError, a ValueError, for a model that is broken, of an
    unsupported version, or beyond what the IR can hold, and OSError for a file that can't be opened.
    """
    from netforge.onnx_import.account import attach
    from netforge.onnx_import.emission import emit

    if layout not in LAYOUTS:
        raise ValueError(f"layout is {layout!r}, expected one of {', '.join(LAYOUTS)}")
    account = ImportAccount() if account is None else account
    report = progress or (lambda fraction, what: None)
    try:
        plan, model = plan_model(
            source,
            layout,
            random_weights,
            account,
            external_data_dir,
            report,
            input_shapes,
            constant_inputs,
        )
        report(0.7, "building the graph")
        graph = emit(plan, model, graph_name(source, model), layout == "spatial_first")
    except OnnxImportError as error:
        # One reason per import, and the file that the caller named.
        error.file = None if isinstance(source, onnx.ModelProto) else os.fspath(source)
        account.refused.append(error.reason)
        raise
    report(1.0, "done")
    attach(graph, account)
    return graph
