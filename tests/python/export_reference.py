"""What ops mean, in NumPy: the slow and plain way, channels last."""

from __future__ import annotations

import itertools
from collections.abc import Sequence

import numpy as np

_RANDOM = np.random.default_rng(7)


def floats(*dims: int) -> np.ndarray:
    return _RANDOM.standard_normal(dims).astype(np.float32)


def u32(*values: int) -> np.ndarray:
    return np.array(values, np.uint32)


def conv(
    x: np.ndarray,
    weight: np.ndarray,
    stride: Sequence[int],
    dilation: Sequence[int],
    pads: Sequence[Sequence[int]],
    group: int = 1,
) -> np.ndarray:
    """x [N, *spatial, C], weight [*kernel, C / group, K]; one window at a time."""
    count = x.ndim - 2
    kernel, per_in, outputs = weight.shape[:count], weight.shape[-2], weight.shape[-1]
    x = np.pad(x, [(0, 0), *pads, (0, 0)])
    extents = [(k - 1) * d + 1 for k, d in zip(kernel, dilation, strict=True)]
    sizes = [(s - e) // t + 1 for s, e, t in zip(x.shape[1:-1], extents, stride, strict=True)]
    y = np.zeros((x.shape[0], *sizes, outputs), x.dtype)
    for place in itertools.product(*map(range, sizes)):
        at = [slice(p * s, p * s + e, d) for p, s, e, d in zip(place, stride, extents, dilation, strict=True)]
        window = x[(slice(None), *at)]
        for index in range(group):
            part = window[..., index * per_in : (index + 1) * per_in]
            kept = slice(index * (outputs // group), (index + 1) * (outputs // group))
            axes = [*list(range(1, count + 1)), count + 1]
            y[(slice(None), *place, kept)] = np.tensordot(
                part, weight[..., kept], (axes, list(range(count + 1)))
            )
    return y


def transpose_conv(
    x: np.ndarray,
    weight: np.ndarray,
    stride: Sequence[int],
    pads: Sequence[Sequence[int]],
    output_padding: Sequence[int],
    group: int = 1,
) -> np.ndarray:
    """x [N, H, W, C], weight [h, w, C, K / group]; every input element stamps its kernel on the output."""
    n, height, width, channels = x.shape
    kh, kw, _, per_out = weight.shape
    full = [
        (s - 1) * t + k + p
        for s, t, k, p in zip((height, width), stride, (kh, kw), output_padding, strict=True)
    ]
    y = np.zeros((n, *full, per_out * group), x.dtype)
    per_in = channels // group
    for i, j, c in itertools.product(range(height), range(width), range(channels)):
        index = c // per_in
        stamp = x[:, i, j, c][:, None, None, None] * weight[:, :, c][None]
        kept = slice(index * per_out, (index + 1) * per_out)
        y[:, i * stride[0] : i * stride[0] + kh, j * stride[1] : j * stride[1] + kw, kept] += stamp
    (top, bottom), (left, right) = pads
    return y[:, top : full[0] - bottom, left : full[1] - right]


def pool(
    x: np.ndarray,
    kernel: Sequence[int],
    stride: Sequence[int],
    pads: Sequence[Sequence[int]],
    sizes: Sequence[int],
    kind: str,
) -> np.ndarray:
    """x [N, H, W, C]; "max", "average" over what lies inside, or "average with pads"."""
    y = np.zeros((x.shape[0], *sizes, x.shape[3]), x.dtype)
    for i, j in itertools.product(*map(range, sizes)):
        top, left = i * stride[0] - pads[0][0], j * stride[1] - pads[1][0]
        window = x[:, max(top, 0) : top + kernel[0], max(left, 0) : left + kernel[1]]
        if kind == "max":
            y[:, i, j] = window.max(axis=(1, 2))
        else:
            count = (
                kernel[0] * kernel[1] if kind == "average with pads" else window.shape[1] * window.shape[2]
            )
            y[:, i, j] = window.sum(axis=(1, 2)) / count
    return y


def layer_norm(
    x: np.ndarray, axes: Sequence[int], epsilon: float, gamma: np.ndarray, beta: np.ndarray
) -> np.ndarray:
    """gamma and beta follow the axes in the order in which these are given."""
    axes = tuple(axes)
    rest = [axis for axis in range(x.ndim) if axis not in axes]
    moved = x.transpose(*rest, *axes)
    last = tuple(range(len(rest), x.ndim))
    centred = moved - moved.mean(axis=last, keepdims=True)
    y = centred / np.sqrt((centred**2).mean(axis=last, keepdims=True) + epsilon) * gamma + beta
    return y.transpose(np.argsort([*rest, *axes]))


def hadamard(size: int) -> np.ndarray:
    """Sylvester's matrix through bits: (-1) to the number of common ones of row and column."""
    return np.array([[(-1.0) ** bin(i & j).count("1") for j in range(size)] for i in range(size)])


def channel_first(x: np.ndarray) -> np.ndarray:
    return np.ascontiguousarray(np.moveaxis(x, -1, 1))
