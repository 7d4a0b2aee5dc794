"""Plants for the folding of batch normalization, and for TopK."""

from __future__ import annotations

from random_graphs.background import convolution
from random_graphs.builder import Builder
from random_graphs.plants import plant


def _product(b: Builder) -> str:
    """The output of a MatMul or FullyConnected."""
    inputs, outputs = b.pick([2, 3]), b.pick([2, 3, 3, 4])
    bias = [b.random_constant([outputs])] if b.chance(0.6) else []
    if b.chance(0.4):
        x = b.tensor([b.pick([1, 2, 3]), inputs])
        weight = b.random_constant([outputs, inputs] if b.spatial_first else [inputs, outputs])
        operands = [x, weight, *bias]
        y = b.op("FullyConnected", operands, transpose_b=not b.spatial_first, keep_dims=b.chance(0.5))
        if b.chance(0.2):
            b.op("FullyConnected", operands, transpose_b=not b.spatial_first, keep_dims=False)
        return str(y)
    rank = b.pick([2, 2, 3])
    is_transposed = b.chance(0.5)
    lead = [2] if rank == 3 else []
    x = b.tensor([*lead, *([b.pick([1, outputs])] if b.chance(0.5) else [b.pick([2, 3])]), inputs])
    matrix = [outputs, inputs] if is_transposed else [inputs, outputs]
    weight = b.random_constant([*lead, *matrix] if b.chance(0.6) else matrix)
    y = b.op("MatMul", [x, weight, *bias], transpose_in1=is_transposed)
    return str(y)


@plant("SquashBatchnorm")
def normalized(b: Builder) -> None:
    y = convolution(b, 0.85) if b.chance(0.6) else _product(b)
    for operand in b.graph.getTensor(y).producer.inputs[1:]:
        b.share(operand.name, 0.08)
    b.share(y, 0.08)
    if b.chance(0.25):
        dims = b.dims(y)
        shape = b.pick([[*dims, 1], [*dims, 1, 1], [1, *dims], b.refactored(dims), [dims[0], 1, *dims[1:]]])
        y = b.reshape(y, shape)
        b.share(y, 0.08)
    dims = b.dims(y)
    axis = len(dims) - 1 if b.spatial_first or len(dims) < 2 else 1
    count = b.pick([1, *[dims[axis]] * 6])
    gamma = b.random_constant([count])
    beta = b.random_constant([dims[axis]]) if b.chance(0.8) else b.constant([0.0] * dims[axis])
    z = b.op("Batchnorm", [y, gamma, gamma if b.chance(0.05) else beta])
    if b.chance(0.3):
        z = b.op("Batchnorm", [z, gamma, beta])
    if b.chance(0.5):
        b.read(z)


@plant("MatchTopK")
def maximum(b: Builder) -> None:
    rank = b.pick([1, 2, 3, 4, 4])
    x = b.tensor(b.dims_of_rank(rank))
    b.share(x, 0.1)
    axis = b.rng.randrange(rank)
    for kind in b.shuffled(["Reduce", "Arg"]):
        keep = b.chance(0.5)
        dims = b.dims(x)
        if keep:
            dims[axis] = 1
        else:
            dims = dims[:axis] + dims[axis + 1 :] or [1]
        if kind == "Reduce":
            axes = [axis - rank if b.chance(0.3) else axis]
            if rank > 1 and b.chance(0.1):
                axes.append((axis + 1) % rank)
            best = b.pick(["ReduceMax"] * 8 + ["ReduceMin"])
            m = b.op("Reduce", [x], axes=axes, reduce_type=best, keep_dims=keep)
            if b.chance(0.5):
                b.read(m)
        else:
            other = axis if b.chance(0.9) else (axis + 1) % rank
            if other != axis:
                continue
            words = [f"[{','.join(str(size) for size in dims)}] i32"]
            best = b.pick(["Argmax"] * 8 + ["Argmin"])
            b.op("Arg", [x], words, arg_type=best, axis=f"{axis}:u32", keep_dims=keep)
