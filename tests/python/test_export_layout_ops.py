"""Ops with a layout: channels last under one axis order, in front under the other, the same results."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import pytest
from export_graphs import run_op
from export_reference import channel_first, conv, floats, pool, transpose_conv, u32

DATA, KERNEL = floats(2, 7, 8, 6), floats(3, 2, 6, 4)
GROUPED, DEPTHWISE = floats(3, 2, 3, 4), floats(3, 2, 1, 12)
VOLUME, VOLUME_KERNEL = floats(1, 4, 5, 3, 2), floats(2, 1, 3, 2, 3)
STAMPS, GROUP_STAMPS = floats(3, 2, 6, 4), floats(3, 2, 6, 2)
CONV_BIAS = floats(4)
WINDOW = {"stride": u32(2, 1), "dilation": u32(1, 2)}
PADS = np.array([[1, 0], [0, 2]], np.uint32)
UNEVEN = np.array([[1, 0], [0, 0]], np.uint32)  # 8 columns of extent 3 at stride 3: the last window lacks one


@dataclass
class LayoutCase:
    """An op with data in input 0 and a weight in input 1; channels last, as its output. `weight_order` leads
    to the weight of the other axis order."""

    op_type: str
    values: dict
    inputs: list
    output: np.ndarray
    weight_order: tuple[int, ...] = ()


def _conv_case(
    op_type: str, x: np.ndarray, weight: np.ndarray, pads: list, group: int = 1, **values
) -> LayoutCase:
    count = x.ndim - 2
    stride = values.pop("stride", [2, 1, 1][:count])
    dilation = values.pop("dilation", [1, 2, 1][:count])
    y = conv(x, weight, stride, dilation, pads, group)
    given = {
        "stride": u32(*stride),
        "dilation": u32(*dilation),
        "pad_amount": np.array(pads, np.uint32),
        **values,
    }
    if op_type != "DepthWiseConv2d":
        given["group"] = np.uint32(group)
    order = (count + 1, count, *range(count))
    return LayoutCase(op_type, given, [x, weight], y, order)


LAYOUT_CASES = {
    "conv": _conv_case("Conv2d", DATA, KERNEL, [[1, 0], [0, 2]]),
    "conv of groups": _conv_case("Conv2d", DATA, GROUPED, [[1, 0], [0, 2]], 2),
    "conv of volumes": _conv_case("Conv3d", VOLUME, VOLUME_KERNEL, [[0, 1], [0, 0], [1, 1]]),
    "depthwise, two per channel": _conv_case("DepthWiseConv2d", DATA, DEPTHWISE, [[1, 0], [0, 2]], 6),
    "depthwise as groups": _conv_case("Conv2d", DATA, DEPTHWISE, [[1, 0], [0, 2]], 6),
    "conv without its pads": LayoutCase(
        "Conv2d",
        {**WINDOW, "pad_amount": PADS, "padding_size_strategy": np.uint8(0)},
        [DATA, KERNEL],
        conv(DATA, KERNEL, [2, 1], [1, 2], [[0, 0], [0, 0]]),
        (3, 2, 0, 1),
    ),
    "conv, larger half before": LayoutCase(
        "Conv2d",
        {"stride": u32(2, 1), "pad_amount": PADS * 0, "padding_size_strategy": np.uint8(1)},
        [DATA, KERNEL],
        conv(DATA, KERNEL, [2, 1], [1, 1], [[1, 1], [1, 0]]),
        (3, 2, 0, 1),
    ),
    "conv, larger half behind": LayoutCase(
        "Conv2d",
        {"stride": u32(2, 1), "pad_amount": PADS * 0, "padding_size_strategy": np.uint8(2)},
        [DATA, KERNEL],
        conv(DATA, KERNEL, [2, 1], [1, 1], [[1, 1], [0, 1]]),
        (3, 2, 0, 1),
    ),
    "conv that rounds up": LayoutCase(
        "Conv2d",
        {"stride": u32(3, 3), "pad_amount": PADS * 0, "padding_size_strategy": np.uint8(3)},
        [DATA, KERNEL],
        conv(DATA, KERNEL, [3, 3], [1, 1], [[0, 2], [0, 0]]),
        (3, 2, 0, 1),
    ),
    "transposed conv": LayoutCase(
        "TransposeConv2d",
        {
            "stride": u32(2, 3),
            "pad_amount": np.array([[1, 0], [0, 1]], np.uint32),
            "output_padding": u32(1, 2),
        },
        [DATA, STAMPS],
        transpose_conv(DATA, STAMPS, [2, 3], [[1, 0], [0, 1]], [1, 2]),
        (2, 3, 0, 1),
    ),
    "transposed conv of groups": LayoutCase(
        "TransposeConv2d",
        {"stride": u32(2, 1), "pad_amount": np.array([[1, 1], [0, 0]], np.uint32), "group": np.uint32(2)},
        [DATA, GROUP_STAMPS],
        transpose_conv(DATA, GROUP_STAMPS, [2, 1], [[1, 1], [0, 0]], [0, 0], 2),
        (2, 3, 0, 1),
    ),
    "depth to space, blocks of unlike sides": LayoutCase(
        "DepthToSpace",
        {"block_size": u32(3, 2), "mode": np.uint32(0)},
        [DATA],
        DATA.reshape(2, 7, 8, 3, 2, 1).transpose(0, 1, 3, 2, 4, 5).reshape(2, 21, 16, 1),
    ),
    "depth to space, depth outside": LayoutCase(
        "DepthToSpace",
        {"block_size": u32(1, 2), "mode": np.uint32(1)},
        [DATA],
        DATA.reshape(2, 7, 8, 3, 1, 2).transpose(0, 1, 4, 2, 5, 3).reshape(2, 7, 16, 3),
    ),
    "space to depth": LayoutCase(
        "SpaceToDepth",
        {"block_size": u32(1, 4), "mode": np.uint32(0)},
        [DATA],
        DATA.reshape(2, 7, 1, 2, 4, 6).transpose(0, 1, 3, 2, 4, 5).reshape(2, 7, 2, 24),
    ),
    "max pool that rounds up": LayoutCase(
        "Pool",
        {
            "pool_type": "MaxPool2d",
            "kernel_shape": u32(2, 3),
            "stride": u32(2, 3),
            "pad_amount": UNEVEN,
            "ceil_mode": True,
        },
        [DATA],
        pool(DATA, [2, 3], [2, 3], [[1, 0], [0, 0]], [4, 3], "max"),
    ),
    "average pool of what lies inside": LayoutCase(
        "Pool",
        {
            "pool_type": "AveragePool2d",
            "kernel_shape": u32(2, 3),
            "stride": u32(2, 3),
            "pad_amount": UNEVEN,
            "ceil_mode": True,
            "count_include_pad": False,
        },
        [DATA],
        pool(DATA, [2, 3], [2, 3], [[1, 0], [0, 0]], [4, 3], "average"),
    ),
    "average pool with pads": LayoutCase(
        "Pool",
        {
            "pool_type": "AveragePool2d",
            "kernel_shape": u32(2, 3),
            "stride": u32(1, 1),
            "pad_amount": PADS,
            "count_include_pad": True,
        },
        [DATA],
        pool(DATA, [2, 3], [1, 1], [[1, 0], [0, 2]], [7, 8], "average with pads"),
    ),
    "nearest resize": LayoutCase(
        "Resize",
        {
            "interpolation_mode": np.uint32(0),
            "transformation_mode": np.uint32(3),
            "nearest_mode": np.uint32(2),
        },
        [DATA],
        DATA.repeat(2, axis=1).repeat(3, axis=2),
    ),
    "instance norm": LayoutCase(
        "InstanceNorm",
        {"epsilon": 0.1},
        [DATA, np.ones(6, np.float32), np.zeros(6, np.float32)],
        (DATA - DATA.mean((1, 2), keepdims=True)) / np.sqrt(DATA.var((1, 2), keepdims=True) + 0.1),
    ),
}


@pytest.mark.parametrize("order", ["first", "last"])
@pytest.mark.parametrize("name", LAYOUT_CASES)
def test_op_computes_the_same_in_both_layouts(name: str, order: str) -> None:
    case = LAYOUT_CASES[name]
    inputs, output = list(case.inputs), case.output.astype(np.float32)
    if order == "last":
        inputs[0], output = channel_first(inputs[0]), channel_first(output)
        if case.weight_order:
            inputs[1] = np.ascontiguousarray(inputs[1].transpose(case.weight_order))
    static = (1,) if len(inputs) > 1 else ()
    (found,) = run_op(case.op_type, case.values, inputs, [output], order, static)
    np.testing.assert_allclose(found, output, rtol=2e-4, atol=2e-5)


def test_a_weight_that_is_computed_is_moved_at_run_time() -> None:
    case = LAYOUT_CASES["conv"]
    (found,) = run_op(case.op_type, case.values, case.inputs, [case.output])
    np.testing.assert_allclose(found, case.output, rtol=2e-4, atol=2e-5)
