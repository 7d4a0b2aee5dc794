"""Random graphs, their values, and the differential test of the passes.

A graph is drawn from a seed by `generation.generate`: some background ops and some plants. A plant puts the
pattern of a pass, or a near miss of it, into the graph. All plants stand in modules `plants_<family>.py` of
this package, which are found by their names. A plant for a new pass takes a few lines:

    from random_graphs.plants import plant

    @plant("FoldConcats")                      # more names where the pattern concerns several passes
    def concats(b):
        x = b.tensor([2, 3, 5])                # a float tensor: existing, a graph input, or just produced
        y = b.tensor([2, b.pick([1, 3]), 5])
        inner = b.op("Concat", [x, y], axis=1)
        b.share(inner)                         # now and then: a second reader, or a graph output
        b.op("Concat", [inner, b.pick([x, inner])], axis=b.pick([1, 1, 2]))

What the builder `b` offers:

    b.rng                      random.Random; b.pick(sequence), b.chance(p), b.shuffled(sequence)
    b.dims_of_rank(rank)       small dims, now and then equal ones side by side or ones of 1
    b.permutation(rank)        an order, seldom the identity; b.inverse(order)
    b.tensor(dims, words="")   words of the text form behind the dims: "f32 NHWC src=NCHW"
    b.input(dims, words="")    a graph input in any case
    b.constant(values, type="f32", words="")   nested lists or an array; equal ones may be shared
    b.random_constant(dims)    of normal numbers
    b.op(type, inputs, outputs=1, **attributes)
                               the name of the output, or a list of names when there are several. `outputs` is
                               their number, or a list of the words behind each name: ["[2,1]", "[2,1] i32"].
                               An attribute is a number, bool, list, or text of the text form ("3:i32", "sum")
    b.eltwise(operation, x, y), b.relu(x), b.reshape(x, dims), b.transpose(x, order)
    b.dims(name)               the dims of a tensor; b.spatial_first tells the graph's axis order
    b.output(name)             makes it a graph output; b.read(name) gives it one more reader
    b.share(name, p=0.25)      with probability p one of the two

An op that the graph refuses (say, for dynamic axes) ends the plant; what it put in so far stays, and is
valid. What a plant leaves unread becomes a graph output or is read by other ops. Draw from `b` alone, never
from the order of a set. Values must stay tame: no logarithm of what may be negative.

Ops: `evaluator.evaluate` computes graphs in NumPy; a type without a kernel raises UnknownOp. Kernels are
functions `@kernel("Type")` in the modules `kernels_*.py`.

Where a pass may change values, names or dims: `exceptions.py`, a table of predicates on the graph before.

Run `make fuzz N=... SEED=...`, or in tests/python: python -m random_graphs --count 500 --passes FoldConcats.
Each failure is written to a file that `python -m random_graphs --replay FILE` takes.
"""
