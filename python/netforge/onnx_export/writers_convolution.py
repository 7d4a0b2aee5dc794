"""Writers of convolutions, transposed convolutions and pooling, whose channels ONNX has in front."""

from __future__ import annotations

from dataclasses import dataclass

from netforge.onnx_export.graph_writer import Dim
from netforge.onnx_export.op_writer import OpWriter
from netforge.onnx_export.registry import writer
from netforge.onnx_export.sparse_form import finish_at_places, reuses_places

VALID, SAME_BEGIN, SAME_END, EXPLICIT_FLOOR = 0, 1, 2, 5
# Orders to ONNX's weights: [outputs, inputs, kernel], for transposed convolutions [inputs, outputs, kernel].
_TO_OUTPUTS_FIRST = {4: (3, 2, 0, 1), 5: (4, 3, 0, 1, 2)}
_TO_INPUTS_FIRST = {4: (2, 3, 0, 1), 5: (3, 4, 0, 1, 2)}


@dataclass
class Windows:
    """Kernel, stride, dilation and pads (before, after) of each spatial axis."""

    kernel: list[int]
    stride: list[int]
    dilation: list[int]
    pads: list[tuple[int, int]]

    def extent(self, axis: int) -> int:
        return (self.kernel[axis] - 1) * self.dilation[axis] + 1

    def attributes(self) -> dict[str, object]:
        return {
            "kernel_shape": self.kernel,
            "strides": self.stride,
            "dilations": self.dilation,
            "pads": [before for before, _ in self.pads] + [after for _, after in self.pads],
        }


def _windows(op: OpWriter, kernel: list[int]) -> Windows:
    count = len(kernel)
    amounts = op.integers("pad_amount", [0] * 2 * count)
    windows = Windows(
        kernel, op.integers("stride", [1] * count), op.integers("dilation", [1] * count),
        list(zip(amounts[::2], amounts[1::2], strict=False)),
    )  # fmt: skip
    if {len(values) for values in (windows.stride, windows.dilation, windows.pads)} != {count}:
        raise op.fail("stride, dilation or pads don't fit the kernel")
    return windows


@writer("Conv2d", "Conv3d", "DepthWiseConv2d")
def conv(op: OpWriter) -> None:
    x = op.channel_first(op.require_float(op.x))
    weight = op.cast(op.input(1), op.kind(x))
    if op.graph.channel_last:
        weight = op.transpose(weight, _order(op, _TO_OUTPUTS_FIRST, weight))
    kernel = list(op.static_dims(weight)[2:])
    windows = _windows(op, kernel)
    dims, out = op.dims(x), op.channel_first_dims(op.out_dims())
    attributes = _resolve(op, windows, dims[2:], out[2:])
    depthwise = op.op.type == "DepthWiseConv2d"
    channels = dims[1] if dims[1] is not None else op.static_dims(weight)[0]
    attributes["group"] = channels if depthwise else int(op.attribute("group", 1))
    y = op.node("Conv", [x, weight, *_bias(op, x)], attributes)
    if reuses_places(op):
        finish_at_places(op, op.transpose(y, (0, *range(2, len(dims)), 1)))
    else:
        op.channel_first_result(y)


def _order(op: OpWriter, orders: dict[int, tuple[int, ...]], weight: str) -> tuple[int, ...]:
    rank = op.rank(weight)
    if rank not in orders or op.rank(op.x) != rank:
        raise op.fail(f"its weight is of rank {rank}, its data are of rank {op.rank(op.x)}")
    return orders[rank]


def _bias(op: OpWriter, x: str) -> list[str]:
    if not op.input(2):
        return []
    bias = op.cast(op.input(2), op.kind(x))
    return [op.reshape(bias, (max(op.static_dims(bias)),)) if op.rank(bias) > 1 else bias]


def _resolve(
    op: OpWriter, windows: Windows, sizes: tuple[Dim, ...], out: tuple[Dim, ...]
) -> dict[str, object]:
    """Attributes with the pads that the padding strategy asks for."""
    strategy = int(op.attribute("padding_size_strategy", EXPLICIT_FLOOR))
    if strategy == VALID:
        windows.pads = [(0, 0)] * len(windows.pads)
    elif strategy in (SAME_BEGIN, SAME_END):
        if None in sizes or None in out:
            attributes = windows.attributes()
            del attributes["pads"]
            attributes["auto_pad"] = "SAME_LOWER" if strategy == SAME_BEGIN else "SAME_UPPER"
            return attributes
        for axis, (size, after) in enumerate(zip(sizes, out, strict=True)):
            total = (after - 1) * windows.stride[axis] + windows.extent(axis) - size
            if total >= 0:
                small, large = total // 2, total - total // 2
                windows.pads[axis] = (large, small) if strategy == SAME_BEGIN else (small, large)
    if strategy not in (SAME_BEGIN, SAME_END, EXPLICIT_FLOOR):
        _round_up(op, windows, sizes, out)
    return windows.attributes()


def _round_up(op: OpWriter, windows: Windows, sizes: tuple[Dim, ...], out: tuple[Dim, ...]) -> None:
    """Sizes that round up reach behind the given pads: the last window gets the pads that it lacks."""
    for axis, (size, after) in enumerate(zip(sizes, out, strict=True)):
        if windows.stride[axis] == 1:
            continue
        if size is None or after is None:
            raise op.fail("sizes that round up have no ONNX form for axes of unknown size")
        before, behind = windows.pads[axis]
        reach = (after - 1) * windows.stride[axis] + windows.extent(axis)
        windows.pads[axis] = (before, max(behind, reach - size - before))


@writer("TransposeConv2d", "TransposeConv3d")
def transpose_conv(op: OpWriter) -> None:
    x = op.channel_first(op.require_float(op.x))
    weight = op.cast(op.input(1), op.kind(x))
    if op.graph.channel_last:
        weight = op.transpose(weight, _order(op, _TO_INPUTS_FIRST, weight))
    windows = _windows(op, list(op.static_dims(weight)[2:]))
    count = len(windows.kernel)
    padding = op.integers("output_padding", [0] * count)
    strategy = int(op.attribute("padding_size_strategy", EXPLICIT_FLOOR))
    sizes, out = op.dims(x)[2:], op.channel_first_dims(op.out_dims())[2:]
    if strategy == VALID:
        windows.pads = [(0, 0)] * count
    for axis, (size, after) in enumerate(zip(sizes, out, strict=True)):
        if size is None or after is None:
            continue
        # What stands out over the wished size is cut off, what it lacks is added behind.
        total = (size - 1) * windows.stride[axis] + windows.extent(axis) + padding[axis] - after
        if strategy in (SAME_BEGIN, SAME_END) and total >= 0:
            small, large = total // 2, total - total // 2
            windows.pads[axis] = (large, small) if strategy == SAME_BEGIN else (small, large)
        padding[axis] -= total - sum(windows.pads[axis])
        if padding[axis] < 0:
            raise op.fail(f"its output of size {after} is smaller than its pads leave it")
    attributes = windows.attributes()
    attributes["group"] = int(op.attribute("group", 1))
    attributes["output_padding"] = padding
    op.channel_first_result(op.node("ConvTranspose", [x, weight, *_bias(op, x)], attributes))


@writer("Pool", "Pool3d")
def pool(op: OpWriter) -> None:
    name = str(op.attribute("pool_type")).removesuffix("1d").removesuffix("2d").removesuffix("3d")
    if name not in ("MaxPool", "AveragePool", "LpPool"):
        raise op.fail(f"pool_type is '{op.attribute('pool_type')}'")
    x = op.channel_first(op.x if name == "MaxPool" else op.require_float(op.x))
    windows = _windows(op, op.integers("kernel_shape"))
    ceil_mode = bool(op.attribute("ceil_mode", False))
    include_pad = name == "AveragePool" and bool(op.attribute("count_include_pad", False))
    if ceil_mode and not include_pad and _fill_last(op, windows, op.dims(x)[2:]):
        ceil_mode = False
    attributes = windows.attributes()
    attributes["ceil_mode"] = int(ceil_mode)
    if name == "AveragePool":
        attributes["count_include_pad"] = int(include_pad)
        if set(windows.dilation) == {1}:
            del attributes["dilations"]
    if name == "LpPool":
        attributes["p"] = int(op.attribute("p", 2))
    op.channel_first_result(op.node(name, [x], attributes))


def _fill_last(op: OpWriter, windows: Windows, sizes: tuple[Dim, ...]) -> bool:
    """Pads behind that make the last window a whole one: they count for nothing, and runtimes don't agree on
    whether a window that lies in the padding alone counts when sizes round up. False for unknown sizes."""
    out = op.channel_first_dims(op.out_dims())[2:]
    if None in sizes or None in out:
        return False
    pads = []
    for axis, (size, count) in enumerate(zip(sizes, out, strict=True)):
        before, stride, extent = windows.pads[axis][0], windows.stride[axis], windows.extent(axis)
        behind = max((count - 1) * stride + extent - size - before, 0)
        if (size + before + behind - extent) // stride + 1 != count:
            return False
        pads.append((before, behind))
    windows.pads = pads
    return True
