"""Layouts by rank: names of the formats, and the orders that lead from one to the other.

An order is a Transpose's perm: output axis i is input axis order[i].
"""

from __future__ import annotations

from netforge.onnx_import.values import Dims

SOURCE = "source"  # as the model has it: batch, channels, spatial axes
LAST = "last"  # batch, spatial axes, channels

SPATIAL_FORMATS = {3: ("NCF", "NFC"), 4: ("NCHW", "NHWC"), 5: ("NCDHW", "NDHWC")}
TO_LAST = {3: (0, 2, 1), 4: (0, 2, 3, 1), 5: (0, 2, 3, 4, 1)}
TO_SOURCE = {3: (0, 2, 1), 4: (0, 3, 1, 2), 5: (0, 4, 1, 2, 3)}

# rank -> (format in the model, format with spatial axes first, order from one to the other)
CONV_WEIGHT = {4: ("OIHW", "HWIO", (2, 3, 1, 0)), 5: ("OIDHW", "DHWIO", (2, 3, 4, 1, 0))}
TRANSPOSED_CONV_WEIGHT = {4: ("IOHW", "HWIO", (2, 3, 0, 1)), 5: ("IODHW", "DHWIO", (2, 3, 4, 0, 1))}


def permuted(values: Dims | list, order: tuple[int, ...]) -> tuple:
    return tuple(values[axis] for axis in order)


def plain_format(rank: int) -> str:
    """Format of a tensor of which no layout op says what its axes are."""
    return {1: "ANY", 2: "NF"}.get(rank, "NONTRIVIAL")
