"""Kernels in NumPy, for any float type, of the operators that the reference evaluator is too slow at."""

from __future__ import annotations

import itertools
import math

import numpy as np
from onnx.reference.op_run import OpRun


def _windows(
    x: np.ndarray, kernel: list[int], strides: list[int], dilations: list[int], out: list[int]
) -> np.ndarray:
    """A view [batch, channels, *out, *kernel] of padded data."""
    steps = x.strides
    moving = [step * stride for step, stride in zip(steps[2:], strides, strict=True)]
    inner = [step * dilation for step, dilation in zip(steps[2:], dilations, strict=True)]
    shape = (*x.shape[:2], *out, *kernel)
    return np.lib.stride_tricks.as_strided(x, shape, (*steps[:2], *moving, *inner), writeable=False)


def _geometry(
    sizes: tuple[int, ...], kernel: list[int], strides: list[int], dilations: list[int],
    pads: list[int] | None, auto_pad: str, ceil_mode: int = 0,
) -> tuple[list[tuple[int, int]], list[int]]:  # fmt: skip
    """Pads (before, after) per axis, and the sizes of the result."""
    count = len(sizes)
    given = list(pads or [0] * 2 * count)
    pairs, out = [], []
    for axis, size in enumerate(sizes):
        extent, stride = (kernel[axis] - 1) * dilations[axis] + 1, strides[axis]
        before, after = given[axis], given[axis + count]
        if auto_pad in ("SAME_UPPER", "SAME_LOWER"):
            total = max((-(-size // stride) - 1) * stride + extent - size, 0)
            before = total // 2 if auto_pad == "SAME_UPPER" else total - total // 2
            after = total - before
        elif auto_pad == "VALID":
            before = after = 0
        room = size + before + after - extent
        steps = -(-room // stride) if ceil_mode else room // stride
        if ceil_mode and steps * stride >= size + before:
            steps -= 1  # that window would lie in the padding alone
        pairs.append((before, after))
        out.append(steps + 1)
    return pairs, out


def _padded(
    x: np.ndarray, pads: list[tuple[int, int]], kernel: list[int], strides: list[int], dilations: list[int],
    out: list[int], value: float,
) -> np.ndarray:  # fmt: skip
    """With as much behind as the last window reaches."""
    full = []
    for axis, (before, after) in enumerate(pads):
        reach = (out[axis] - 1) * strides[axis] + (kernel[axis] - 1) * dilations[axis] + 1
        full.append((before, max(after, reach - x.shape[2 + axis] - before)))
    return np.pad(x, [(0, 0), (0, 0), *full], constant_values=value)


class Conv(OpRun):
    def _run(
        self,
        X,
        W,
        B=None,
        auto_pad=None,
        dilations=None,
        group=None,
        kernel_shape=None,
        pads=None,
        strides=None,
    ):
        kernel = list(W.shape[2:])
        count = len(kernel)
        strides, dilations = list(strides or [1] * count), list(dilations or [1] * count)
        pairs, out = _geometry(X.shape[2:], kernel, strides, dilations, pads, auto_pad or "NOTSET")
        view = _windows(
            _padded(X, pairs, kernel, strides, dilations, out, 0), kernel, strides, dilations, out
        )
        groups = group or 1
        per_in, per_out = X.shape[1] // groups, W.shape[0] // groups
        result = np.empty((X.shape[0], W.shape[0], *out), X.dtype)
        if per_in == 1 and per_out == 1:
            axes = "abcdefg"[:count]
            result = np.einsum(
                f"nk{axes.upper()}{axes},k{axes}->nk{axes.upper()}", view, W[:, 0], optimize=False
            )
        else:
            contracted = [1, *range(2 + count, 2 + 2 * count)]
            for index in range(groups):
                part = view[:, index * per_in : (index + 1) * per_in]
                weight = W[index * per_out : (index + 1) * per_out]
                product = np.tensordot(part, weight, (contracted, list(range(1, 2 + count))))
                result[:, index * per_out : (index + 1) * per_out] = np.moveaxis(product, -1, 1)
        if B is not None:
            result = result + B.reshape(1, -1, *[1] * count)
        return (np.ascontiguousarray(result),)


class ConvTranspose(OpRun):
    def _run(
        self, X, W, B=None, auto_pad=None, dilations=None, group=None, kernel_shape=None, output_padding=None,
        output_shape=None, pads=None, strides=None,
    ):  # fmt: skip
        kernel = list(W.shape[2:])
        count = len(kernel)
        strides, dilations = list(strides or [1] * count), list(dilations or [1] * count)
        extra, given = list(output_padding or [0] * count), list(pads or [0] * 2 * count)
        sizes, before = [], []
        for axis, size in enumerate(X.shape[2:]):
            full = (size - 1) * strides[axis] + (kernel[axis] - 1) * dilations[axis] + 1 + extra[axis]
            wished = output_shape[-count:][axis] if output_shape is not None else None
            if wished is None and auto_pad in ("SAME_UPPER", "SAME_LOWER"):
                wished = size * strides[axis]
            if wished is None:
                sizes.append(full - given[axis] - given[axis + count])
                before.append(given[axis])
            else:
                total = max(full - wished, 0)
                sizes.append(wished)
                before.append(total // 2 if auto_pad == "SAME_UPPER" else total - total // 2)
        groups = group or 1
        per_in, per_out = X.shape[1] // groups, W.shape[1]
        reach = [
            max((X.shape[2 + a] - 1) * strides[a] + (kernel[a] - 1) * dilations[a] + 1, sizes[a] + before[a])
            for a in range(count)
        ]
        result = np.zeros((X.shape[0], per_out * groups, *reach), X.dtype)
        for index in range(groups):
            part = X[:, index * per_in : (index + 1) * per_in]
            weight = W[index * per_in : (index + 1) * per_in]
            target = result[:, index * per_out : (index + 1) * per_out]
            for place in itertools.product(*map(range, kernel)):
                product = np.moveaxis(
                    np.tensordot(part, weight[(slice(None), slice(None), *place)], ([1], [0])), -1, 1
                )
                at = [
                    slice(
                        place[a] * dilations[a],
                        place[a] * dilations[a] + (X.shape[2 + a] - 1) * strides[a] + 1,
                        strides[a],
                    )
                    for a in range(count)
                ]
                target[(slice(None), slice(None), *at)] += product
        cut = [slice(start, start + size) for start, size in zip(before, sizes, strict=True)]
        result = result[(slice(None), slice(None), *cut)]
        if B is not None:
            result = result + B.reshape(1, -1, *[1] * count)
        return (np.ascontiguousarray(result),)


class MaxPool(OpRun):
    def _run(
        self, x, auto_pad=None, ceil_mode=None, dilations=None, kernel_shape=None, pads=None,
        storage_order=None, strides=None,
    ):  # fmt: skip
        if len(self.output) > 1:
            raise NotImplementedError("the places of the maxima")
        count = len(kernel_shape)
        strides, dilations = list(strides or [1] * count), list(dilations or [1] * count)
        pairs, out = _geometry(
            x.shape[2:], kernel_shape, strides, dilations, pads, auto_pad or "NOTSET", ceil_mode or 0
        )
        lowest = -np.inf if x.dtype.kind == "f" else np.iinfo(x.dtype).min
        view = _windows(
            _padded(x, pairs, kernel_shape, strides, dilations, out, lowest),
            kernel_shape,
            strides,
            dilations,
            out,
        )
        return (view.max(axis=tuple(range(2 + count, 2 + 2 * count))),)


class AveragePool(OpRun):
    def _run(
        self, x, auto_pad=None, ceil_mode=None, count_include_pad=None, dilations=None, kernel_shape=None,
        pads=None, strides=None,
    ):  # fmt: skip
        count = len(kernel_shape)
        strides, dilations = list(strides or [1] * count), list(dilations or [1] * count)
        pairs, out = _geometry(
            x.shape[2:], kernel_shape, strides, dilations, pads, auto_pad or "NOTSET", ceil_mode or 0
        )
        ones = np.ones((1, 1, *x.shape[2:]), x.dtype)
        if count_include_pad:
            ones = np.pad(ones, [(0, 0), (0, 0), *pairs], constant_values=1)
            x, pairs = np.pad(x, [(0, 0), (0, 0), *pairs]), [(0, 0)] * count
        axes = tuple(range(2 + count, 2 + 2 * count))

        def total(values: np.ndarray) -> np.ndarray:
            padded = _padded(values, pairs, kernel_shape, strides, dilations, out, 0)
            return _windows(padded, kernel_shape, strides, dilations, out).sum(axis=axes)

        return (total(x) / total(ones),)


class LRN(OpRun):
    def _run(self, x, alpha=None, beta=None, bias=None, size=None):
        before = (size - 1) // 2
        squares = np.pad(x * x, [(0, 0), (before, size - 1 - before), *[(0, 0)] * (x.ndim - 2)])
        total = np.lib.stride_tricks.sliding_window_view(squares, size, axis=1).sum(axis=-1)
        return ((x / (bias + alpha / size * total) ** beta).astype(x.dtype),)


class Erf(OpRun):
    """Abramowitz and Stegun's 7.1.5 and 7.1.14 cost more than the library's own function in a loop."""

    def _run(self, x):
        flat = [math.erf(value) for value in x.reshape(-1).tolist()]
        return (np.array(flat, x.dtype).reshape(x.shape),)


FAST_KERNELS = [Conv, ConvTranspose, MaxPool, AveragePool, LRN, Erf]
