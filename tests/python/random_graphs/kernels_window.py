"""Kernels of convolutions and pooling, computed with the channels in front."""

from __future__ import annotations

import itertools

import numpy as np
from numpy.lib.stride_tricks import sliding_window_view

from random_graphs.evaluator import Inconsistent, Node, contract, kernel

_VALID, _ROUNDING_DOWN = 0, (0, 1, 2, 5)


def _window(node: Node, kernel_shape: list[int]) -> tuple[list[int], list[int], list[tuple[int, int]]]:
    """Stride, dilation and pads of each spatial axis."""
    count = len(kernel_shape)
    amounts = node.integers("pad_amount", [0] * 2 * count)
    if int(node.value("padding_size_strategy", 5)) == _VALID:
        amounts = [0] * 2 * count
    pads = list(zip(amounts[::2], amounts[1::2], strict=True))
    return node.integers("stride", [1] * count), node.integers("dilation", [1] * count), pads


def _windows(node: Node, x: np.ndarray, kernel_shape: list[int], fill: float) -> np.ndarray:
    """[n, c, *places, *kernel]; where sizes round up, the last window reaches behind the pads."""
    stride, dilation, pads = _window(node, kernel_shape)
    out = node.out_dims()[1:-1] if node.channels_last else node.out_dims()[2:]
    rounds_up = bool(node.value("ceil_mode", False)) or (
        int(node.value("padding_size_strategy", 5)) not in _ROUNDING_DOWN
    )
    extents = [(size - 1) * step + 1 for size, step in zip(kernel_shape, dilation, strict=True)]
    if rounds_up:
        reach = [
            (count - 1) * step + extent for count, step, extent in zip(out, stride, extents, strict=True)
        ]
        pads = [
            (before, max(behind, needed - size - before))
            for (before, behind), needed, size in zip(pads, reach, x.shape[2:], strict=True)
        ]
    x = np.pad(x, [(0, 0), (0, 0), *pads], constant_values=fill)
    axes = tuple(range(2, x.ndim))
    views = sliding_window_view(x, extents, axis=axes)  # type: ignore[arg-type]
    places = tuple(slice(None, None, step) for step in stride)
    offsets = tuple(slice(None, None, step) for step in dilation)
    return views[(slice(None), slice(None), *places, *offsets)]


def _biased(node: Node, y: np.ndarray, bias: tuple[np.ndarray, ...]) -> np.ndarray:
    if bias and bias[0].size:
        y = y + bias[0].reshape([1, -1, *[1] * (y.ndim - 2)])
    return node.from_channels_first(y)


@kernel("Conv2d", "Conv3d", "DepthWiseConv2d")
def conv(node: Node, x: np.ndarray, weight: np.ndarray, *bias: np.ndarray) -> np.ndarray:
    """Weights [*kernel, inputs, outputs] under the spatial-first order, else [outputs, inputs, *kernel]."""
    x = node.channels_first(x)
    if node.channels_last:
        weight = np.moveaxis(weight, [-1, -2], [0, 1])
    if node.type == "DepthWiseConv2d":
        weight = weight.reshape(-1, 1, *weight.shape[2:])
    groups = x.shape[1] if node.type == "DepthWiseConv2d" else int(node.value("group", 1))
    spatial = weight.ndim - 2
    if x.shape[1] != groups * weight.shape[1]:
        raise Inconsistent(f"{x.shape[1]} channels in {groups} groups of {weight.shape[1]}")
    windows = _windows(node, x, list(weight.shape[2:]), 0.0)
    parts = []
    for data, filters in zip(np.split(windows, groups, axis=1), np.split(weight, groups), strict=True):
        rows = np.moveaxis(data, 1, 1 + spatial)  # [n, *places, c, *kernel]
        rows = np.ascontiguousarray(rows).reshape(*rows.shape[: 1 + spatial], -1)
        y = contract(rows[..., None, :], filters.reshape(len(filters), -1))
        parts.append(np.moveaxis(y, -1, 1))
    result = _biased(node, np.concatenate(parts, axis=1), bias)
    reuse = "reuse_sparse_indicies" if node.type == "Conv3d" else "reuse_sparse_indices"
    if node.has(reuse) and node.value(reuse) and node.channels_last:
        result = result * (np.moveaxis(x, 1, -1) != 0).any(axis=-1, keepdims=True)
    return result


@kernel("TransposeConv2d", "TransposeConv3d")
def transpose_conv(node: Node, x: np.ndarray, weight: np.ndarray, *bias: np.ndarray) -> np.ndarray:
    """Weights [*kernel, inputs, outputs] under the spatial-first order, else [inputs, outputs, *kernel]."""
    x = node.channels_first(x)
    if node.channels_last:
        weight = np.moveaxis(weight, [-2, -1], [0, 1])
    kernel_shape = list(weight.shape[2:])
    stride, dilation, pads = _window(node, kernel_shape)
    out = node.out_dims()[1:-1] if node.channels_last else node.out_dims()[2:]
    groups, outputs = int(node.value("group", 1)), weight.shape[1]
    full = [
        max((size - 1) * step + (width - 1) * spread + 1, before + after + wanted)
        for size, step, width, spread, (before, after), wanted in zip(
            x.shape[2:], stride, kernel_shape, dilation, pads, out, strict=True
        )
    ]
    y = np.zeros([x.shape[0], groups * outputs, *full])
    for group, (data, filters) in enumerate(
        zip(np.split(x, groups, axis=1), np.split(weight, groups), strict=True)
    ):
        channels = slice(group * outputs, (group + 1) * outputs)
        for offset in itertools.product(*(range(width) for width in kernel_shape)):
            share = contract(np.moveaxis(data, 1, -1)[..., None, :], filters[(..., *offset)].T)
            places = tuple(
                slice(place * spread, place * spread + (size - 1) * step + 1, step)
                for place, spread, size, step in zip(offset, dilation, x.shape[2:], stride, strict=True)
            )
            y[(slice(None), channels, *places)] += np.moveaxis(share, -1, 1)
    kept = tuple(slice(before, before + wanted) for (before, _), wanted in zip(pads, out, strict=True))
    return _biased(node, y[(slice(None), slice(None), *kept)], bias)


@kernel("Pool", "Pool3d")
def pool(node: Node, x: np.ndarray) -> np.ndarray:
    kind = str(node.value("pool_type"))
    x = node.channels_first(x)
    kernel_shape = node.integers("kernel_shape")
    axes = tuple(range(x.ndim, x.ndim + len(kernel_shape)))
    if kind.startswith("MaxPool"):
        return node.from_channels_first(_windows(node, x, kernel_shape, -np.inf).max(axis=axes))
    if not kind.startswith("AveragePool"):
        raise Inconsistent(f"pool_type is '{kind}'")
    sums = _windows(node, x, kernel_shape, 0.0).sum(axis=axes)
    counted = np.ones_like(x)
    fill = 1.0 if node.value("count_include_pad", False) else 0.0
    return node.from_channels_first(sums / _windows(node, counted, kernel_shape, fill).sum(axis=axes))
