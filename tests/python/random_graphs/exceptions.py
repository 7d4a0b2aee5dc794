"""Where a pass may change what a graph computes or shows.

A row of the table is a predicate on the graph in front of the pass, with the values of its tensors, and the
kinds of difference that it lets pass: "value", "dims", "names", "count", "inconsistent" (dims inside the
graph that don't fit), "throws". Everything else must agree.
"""

from __future__ import annotations

from collections.abc import Callable, Iterator
from dataclasses import dataclass

import netforge
import numpy as np

from random_graphs.evaluator import Node, Values, data_of
from random_graphs.rank_refusals import is_refused

# Equal on reals, but computed in another order or from constants that were rounded: 1e-5 of the largest
# value. All other passes must give the same bits.
ROUNDING = frozenset(
    (
        "FoldSoftmax", "ExpandGruOpStructure", "FullyConnectedToHadamard", "FoldHadamardWithMul",
        "SquashConstantInput", "MatchGeluApprox", "ExpandLstmOpStructure", "SquashBatchnorm", "ExpandInverse",
        "RemoveInverseTransposePair", "AdjustNormOpBuffers",
    )
)  # fmt: skip


@dataclass(frozen=True)
class Approximation:
    """Which ops of a pass stand for another function, and how far off their results may be."""

    applies: Callable[[Node], bool]
    bound: Callable[[np.ndarray], np.ndarray]


APPROXIMATIONS = {
    # The tanh form of GELU is at most 4.8e-4 off, and the constants of the cluster may be 0.1 % off. The
    # result is never larger than its operand, and near to it where it is large.
    "MatchGeluApprox": Approximation(
        lambda node: node.type == "ElementWiseNeuron" and int(node.value("operation")) == 1,
        lambda y: 3e-3 * np.maximum(1.0, np.abs(y)),
    ),
}

Predicate = Callable[[netforge.IrGraph, Values], bool]


@dataclass(frozen=True)
class Row:
    passes: tuple[str, ...]
    predicate: Predicate
    kinds: frozenset[str]


_table: list[Row] = []


def _exception(*passes: str, kinds: tuple[str, ...]) -> Callable[[Predicate], Predicate]:
    def register(predicate: Predicate) -> Predicate:
        _table.append(Row(passes, predicate, frozenset(kinds)))
        return predicate

    return register


def allowed(pass_name: str, graph: netforge.IrGraph, values: Values) -> frozenset[str]:
    """The kinds of difference that the pass may make to this graph."""
    rows = (row for row in _table if pass_name in row.passes and row.predicate(graph, values))
    return frozenset().union(*(row.kinds for row in rows))


def _operation(op: netforge.IrOp) -> int:
    return int(op.attributes.get("operation", -1))


def _ops(graph: netforge.IrGraph, *types: str) -> Iterator[netforge.IrOp]:
    return (op for op in graph.ops if op.type in types)


def _order(op: netforge.IrOp) -> list[int]:
    return [int(axis) for axis in op.attributes.getStaticTensor("perm").numpy().reshape(-1)]


@_exception("RemoveNoOps1", "RemoveNoOps2", kinds=("value", "dims", "inconsistent"))
def _ones_broadcast(graph: netforge.IrGraph, values: Values) -> bool:
    """Ones that broadcast the dividend."""
    return any(
        _operation(op) == 2
        and op.inputs[1].isStatic()
        and bool(np.all(data_of(op.inputs[1]) == 1))  # type: ignore[arg-type]
        and op.inputs[0].dims != op.outputs[0].dims
        for op in _ops(graph, "Eltwise_Binary")
    )


@_exception("ForcePruneCast", kinds=("value",))
def _cast_changes(graph: netforge.IrGraph, values: Values) -> bool:
    return any(
        not np.array_equal(values[op.inputs[0].name], values[op.outputs[0].name], equal_nan=True)
        for op in _ops(graph, "Cast")
    )


@_exception("HoistTransposeAboveElementWiseMux", kinds=("value",))
def _dims_invariant(graph: netforge.IrGraph, values: Values) -> bool:
    """Dims that the order leaves alike, though it moves a long axis: the operand counts as permuted."""
    for mux in _ops(graph, "ElementWiseMux"):
        orders = [_order(reader) for reader in mux.outputs[0].consumers if reader.type == "Transpose"]
        for dims in (tensor.dims for tensor in mux.inputs):
            for order in orders:
                alike = len(dims) == len(order) and [dims[axis] for axis in order] == list(dims)
                if alike and any(axis != place and dims[axis] > 1 for place, axis in enumerate(order)):
                    return True
    return False


@_exception("MatchTopK", kinds=("value",))
def _ties(graph: netforge.IrGraph, values: Values) -> bool:
    """Equal maxima along an axis, of which another may be taken."""
    for op in _ops(graph, "Arg"):
        x = values[op.inputs[0].name]
        axis = int(op.attributes.get("axis", 0))
        at_most = x == x.max(axis=axis, keepdims=True)
        if bool((at_most.sum(axis=axis) != 1).any()):
            return True
    return False


@_exception("ExpandLstmOpStructure", kinds=("value",))
def _lstm_features(graph: netforge.IrGraph, values: Values) -> bool:
    """Clipping, peepholes, projection and layer norm, and states that are reset: all dropped."""
    for op in _ops(graph, "Lstm"):
        attributes = op.attributes
        if any(attributes.get(f"{kind}_clip_threshold", 0.0) for kind in ("cell", "output")):
            return True
        for place in (*range(12, 16), *range(18, 21), *range(22, 25)):
            if place < len(op.inputs) and values[op.inputs[place].name].size:
                return True
        states = [values[op.inputs[place].name] for place in (10, 11) if place < len(op.inputs)]
        if attributes.get("reset_state_at_time_step_0", False) and any(state.any() for state in states):
            return True
    return False


@_exception("ExpandGruOpStructure", kinds=("value",))
def _gru_activations(graph: netforge.IrGraph, values: Values) -> bool:
    known = ("Sigmoid", "Tanh", "Relu")
    return any(
        op.attributes.get(name, "Sigmoid") not in known
        for op in _ops(graph, "Gru")
        for name in ("gate_activation", "rec_gate_activation")
    )


@_exception("SquashBatchnorm", kinds=("value",))
def _grouped_transposed_conv(graph: netforge.IrGraph, values: Values) -> bool:
    """Weights that all groups share can't take a factor that differs between them."""
    if isinstance(graph.axisOrder, netforge.SpatialFirstAxisOrder):
        return False
    for op in _ops(graph, "Batchnorm"):
        producer = op.inputs[0].producer
        if producer is None or not producer.type.startswith("TransposeConv"):
            continue
        group = int(producer.attributes.get("group", 1))
        gamma = values[op.inputs[1].name]
        if (
            group > 1
            and gamma.size > 1
            and bool((gamma.reshape(group, -1) != gamma[: gamma.size // group]).any())
        ):
            return True
    return False


@_exception("SinkTransposeBelowSum", kinds=("names",))
def _sum_is_output(graph: netforge.IrGraph, values: Values) -> bool:
    return any(_operation(op) == 0 and op.outputs[0].isGraphOutput() for op in _ops(graph, "Eltwise_Binary"))


@_exception("UnrollLstm", "UnrollGruTimeSteps", kinds=("count",))
def _colon_in_name(graph: netforge.IrGraph, values: Values) -> bool:
    return any(":" in tensor.name for tensor in graph.graphOutputs)


@_exception("SquashConstantInput", kinds=("value",))
def _gelu_of_integers(graph: netforge.IrGraph, values: Values) -> bool:
    return any(
        _operation(op) == 1 and op.inputs[0].isStatic() and "INT" in op.inputs[0].dataType.name
        for op in _ops(graph, "ElementWiseNeuron")
    )


@_exception("InjectCastForGather", kinds=("value", "inconsistent"))
def _no_whole_indices(graph: netforge.IrGraph, values: Values) -> bool:
    for op in _ops(graph, "Gather"):
        indices = values[op.inputs[1].name]
        if bool(((indices != np.trunc(indices)) | (np.abs(indices) >= 2.0**31)).any()):
            return True
    return False


@_exception("MatchSpaceToDepth", kinds=("value", "dims", "inconsistent"))
def _channel_last_result(graph: netforge.IrGraph, values: Values) -> bool:
    """The SpaceToDepth is channel-last: so is a graph output, and a channel-first graph reads it wrongly."""
    if not isinstance(graph.axisOrder, netforge.SpatialFirstAxisOrder):
        return True
    return any(op.outputs[0].isGraphOutput() for op in _ops(graph, "Reshape"))


@_exception("Replace6dOps", kinds=("throws",))
def _refused_rank(graph: netforge.IrGraph, values: Values) -> bool:
    """An op of high rank that can't be lowered ends the optimization."""
    return any(is_refused(op) for op in graph.ops)


def _chain(op: netforge.IrOp, *types: str) -> list[netforge.IrOp]:
    """The op and its producers by their first inputs, if they are of these types; else none."""
    ops = [op]
    for wanted in types:
        producer = ops[-1].inputs[0].producer
        if producer is None or producer.type != wanted:
            return []
        ops.append(producer)
    return ops


@_exception("MatchSpaceToDepth", kinds=("value", "dims"))
def _no_block_move(graph: netforge.IrGraph, values: Values) -> bool:
    """Reshapes and Transposes that don't move a block of space into the channels, or whose result is a graph
    output, which keeps the channels last."""
    for op in _ops(graph, "Reshape"):
        ops = _chain(op, "Transpose", "Reshape", "Transpose", "Reshape", "Transpose", "Reshape")
        if not ops:
            continue
        x, y = values[ops[-1].inputs[0].name], values[op.outputs[0].name]
        if op.outputs[0].isGraphOutput() or x.ndim != 4 or y.ndim != 4 or x.shape[2] % y.shape[2]:
            return True
        block = x.shape[2] // y.shape[2]
        n, c, h, w = x.shape
        if w % block:
            return True
        parts = x.reshape(n, c, h // block, block, w // block, block).transpose(0, 3, 5, 1, 2, 4)
        if y.shape != (n, c * block * block, h // block, w // block) or (y != parts.reshape(y.shape)).any():
            return True
    return False


@_exception("OptimizeDepthToSpace", kinds=("value",))
def _mixed_channels(graph: netforge.IrGraph, values: Values) -> bool:
    """A DepthToSpace with several channels, unequal parts, or parts in another order than the Split's."""
    for concat in _ops(graph, "Concat"):
        producers = [tensor.producer for tensor in concat.inputs]
        if not all(op is not None and op.type == "DepthToSpace" for op in producers):
            continue
        parts = [op.inputs[0] for op in producers]
        splits = [part.producer for part in parts]
        if not all(split is not None and split.type == "Split" for split in splits):
            continue
        blocks = {tuple(op.attributes.getStaticTensor("block_size").numpy().tolist()) for op in producers}
        in_order = [part.name for part in parts] == [tensor.name for tensor in splits[0].outputs]
        alike = len({tuple(part.dims) for part in parts}) == 1 and len(blocks) == 1
        if not (in_order and alike and all(tensor.dims[-1] == 1 for tensor in concat.inputs)):
            return True
    return False


@_exception("OptimizeGatherND", kinds=("value", "dims", "inconsistent"))
def _other_width(graph: netforge.IrGraph, values: Values) -> bool:
    """A flat index that isn't row * width + column of the first two axes, or a result that is a graph output,
    whose layout changes."""
    for out in _ops(graph, "Reshape"):
        ops = _chain(out, "Transpose", "Reshape", "Gather", "Reshape", "Transpose")
        if not ops:
            continue
        data, flat, index = ops[-1].outputs[0], ops[-2].outputs[0], ops[3].inputs[1].producer
        if index is None or out.outputs[0].isGraphOutput():
            return True
        if list(flat.dims) != [data.dims[0] * data.dims[1], *data.dims[2:]]:
            return True
        scales = [tensor for side in index.inputs if side.producer for tensor in side.producer.inputs]
        if not any(tensor.isStatic() and (values[tensor.name] == data.dims[1]).all() for tensor in scales):
            return True
    return False
