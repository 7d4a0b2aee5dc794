"""Constant data between NumPy and the graph: borrowing, lifetimes, types and files."""

from __future__ import annotations

import gc
import mmap
import subprocess
import sys
import weakref
from pathlib import Path

import numpy as np
import pytest
from netforge import (
    AxisFormat,
    DataType,
    EncodingInfo,
    IrGraph,
    IrStaticTensor,
    QuantEncodingKind,
    QuantInfo,
    TensorType,
)

DTYPES = {
    np.int8: "INT_8",
    np.int16: "INT_16",
    np.int32: "INT_32",
    np.int64: "INT_64",
    np.uint8: "UINT_8",
    np.uint16: "UINT_16",
    np.uint32: "UINT_32",
    np.uint64: "UINT_64",
    np.float16: "FLOAT_16",
    np.float32: "FLOAT_32",
    np.float64: "FLOAT_64",
    np.bool_: "BOOL_8",
}


def data_type(name: str) -> DataType:
    return getattr(DataType, f"ORLO_DATATYPE_{name}")


def test_every_dtype_goes_in_and_comes_back() -> None:
    for dtype, name in DTYPES.items():
        array = np.array([[0, 1, 2], [3, 0, 5]]).astype(dtype)
        tensor = IrStaticTensor("t", array)
        assert (tensor.dataType, tensor.dims, tensor.getDataSize()) == (
            data_type(name),
            [2, 3],
            array.nbytes,
        )
        assert tensor.numpy().dtype == array.dtype and np.array_equal(tensor.numpy(), array)
        assert (tensor.tensorType, tensor.axisFormat) == (TensorType.Static, AxisFormat.NOT_YET_DEFINED)
    for wrong in (np.zeros(2, np.complex64), np.array(["a"]), np.array([object()])):
        with pytest.raises(TypeError, match="have no data type here"):
            IrStaticTensor("t", wrong)


def test_contiguous_arrays_are_borrowed_and_others_copied() -> None:
    base = np.arange(24, dtype=np.float32).reshape(2, 3, 4)
    read_only = base.copy()
    read_only.flags.writeable = False
    swapped = base.astype(">f4")
    unaligned = np.frombuffer(b"\0" + base.tobytes(), np.uint8)[1:].view(np.float32).reshape(2, 3, 4)
    cases = [(base, True), (read_only, True), (base[1:], True), (base.transpose(2, 0, 1), False)]
    cases += [(base[:, ::2], False), (base[:, :, ::-1], False), (swapped, False), (unaligned, False)]
    for array, shares in cases:
        tensor = IrStaticTensor("t", array)
        assert np.shares_memory(tensor.numpy(), array) is shares
        assert np.array_equal(tensor.numpy(), array)
        assert tensor.isDataBorrowed() and not tensor.numpy().flags.writeable
    owning = IrStaticTensor("t", base, copy=True)
    assert not owning.isDataBorrowed() and not np.shares_memory(owning.numpy(), base)
    owning.numpy()[0, 0, 0] = 9
    assert owning.numpy()[0, 0, 0] == 9 and base[0, 0, 0] == 0


class Watched(np.ndarray):
    pass


def watched(values: np.ndarray) -> Watched:
    return values.copy().view(Watched)


def test_the_array_lives_as_long_as_the_tensor_or_a_view_of_it() -> None:
    array = watched(np.arange(6, dtype=np.float32))
    gone = weakref.ref(array)
    graph = IrGraph("g")
    graph.addTensor(IrStaticTensor("w", array))
    del array
    gc.collect()
    assert gone() is not None
    view = graph.getStaticTensor("w").numpy()
    graph.removeTensor("w")
    gc.collect()
    assert gone() is not None and view.tolist() == [0, 1, 2, 3, 4, 5]
    del view
    gc.collect()
    assert gone() is None


def test_a_tensor_that_outlives_the_interpreter_does_no_harm() -> None:
    script = (
        "import netforge, numpy as np, sys\n"
        "graph = netforge.IrGraph('g')\n"
        "graph.addTensor(netforge.IrStaticTensor('w', np.ones(3)))\n"
        "sys.kept = graph, graph.getTensor('w').numpy()\n"
    )
    subprocess.run([sys.executable, "-c", script], check=True)


def test_updating_leaves_the_borrowed_array_alone() -> None:
    array = np.zeros(3, np.float32)
    tensor = IrStaticTensor("t", array)
    tensor.updateData(np.array([1, 2, 3], np.float32)[::-1])
    assert (array.tolist(), tensor.numpy().tolist()) == ([0, 0, 0], [3, 2, 1])
    assert not tensor.isDataBorrowed()
    tensor.updateData(np.array([0, 0, 128, 63] * 3, np.uint8))  # raw bytes of 1.0
    assert tensor.numpy().tolist() == [1, 1, 1]
    with pytest.raises(ValueError, match="existing data size: 12 provided data size: 8"):
        tensor.updateData(np.zeros(2, np.float32))
    with pytest.raises(TypeError, match="an array of dtype int32 does not hold"):
        tensor.updateData(np.zeros(3, np.int32))


def test_another_type_of_the_same_width() -> None:
    info = QuantInfo(QuantEncodingKind.ScaleOffset, EncodingInfo(bitwidth=8, scale=0.5))
    array = np.array([1, 255], np.uint8)
    tensor = IrStaticTensor("t", array, data_type("UFIXED_POINT_8"), quantInfo=info)
    assert tensor.isQuantized() and tensor.getQuantInfo() == info
    assert tensor.numpy().dtype == np.uint8
    for name, dtype in (("SFIXED_POINT_4", np.int8), ("BFLOAT_16", np.uint16), ("SFIXED_POINT_32", np.int32)):
        assert IrStaticTensor("t", np.ones(2, dtype), data_type(name)).numpy().dtype == dtype
    for name in ("FLOAT_32", "STRING", "UNDEFINED"):
        with pytest.raises(TypeError, match="another width"):
            IrStaticTensor("t", array, data_type(name))
    words = IrStaticTensor("axes", [3, 4294967295])
    assert (words.dataType, words.dims, words.getElement(1)) == (data_type("UINT_32"), [2], 4294967295)
    with pytest.raises(IndexError, match="Index out of bounds for IrStaticTensor"):
        words.getElement(2)


def test_shapes_at_the_edge() -> None:
    empty = IrStaticTensor("t", np.zeros((2, 0, 3), np.float32))
    assert (empty.dims, empty.numpy().shape, empty.getDataSize()) == ([2, 0, 3], (2, 0, 3), 0)
    with pytest.raises(ValueError, match="rank 0"):
        IrStaticTensor("t", np.array(1, np.float32))
    huge = np.lib.stride_tricks.as_strided(np.zeros(1, np.uint8), (2**32,), (0,))
    with pytest.raises(ValueError, match="too long"):
        IrStaticTensor("t", huge)


def test_external_data_is_read_on_first_use(tmp_path: Path) -> None:
    path = tmp_path / "weights.bin"
    values = np.arange(6, dtype=np.float32)
    tensor = IrStaticTensor.fromExternal("w", [2, 3], data_type("FLOAT_32"), str(path), 8, 24)
    assert (tensor.isDataLoaded(), tensor.getDataSize(), tensor.getExternalData().offset) == (False, 24, 8)
    assert str(path) in repr(tensor) and not tensor.isDataLoaded()
    with pytest.raises(RuntimeError, match="Failed to open the file: "):
        tensor.numpy()
    path.write_bytes(b"\xff" * 8 + values.tobytes())
    assert tensor.numpy().tolist() == [[0, 1, 2], [3, 4, 5]] and tensor.isDataLoaded()
    half = IrStaticTensor.fromExternal("h", [6], data_type("FLOAT_16"), str(path), 8, 24)
    assert half.numpy().dtype == np.float16 and half.numpy().tolist() == values.tolist()
    for dims, length in (([2, 3], 20), ([7], 24), ([2**31, 2**31, 4], 0)):
        with pytest.raises(ValueError, match="bytes in its file"):
            IrStaticTensor.fromExternal("w", dims, data_type("FLOAT_32"), str(path), 0, length)


def test_mapped_files_are_borrowed(tmp_path: Path) -> None:
    path = tmp_path / "weights.bin"
    path.write_bytes(np.arange(1024, dtype=np.int64).tobytes())
    with path.open("rb") as file:
        mapping = mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ)
    tensor = IrStaticTensor("w", np.frombuffer(mapping, np.int64))
    with pytest.raises(BufferError):
        mapping.close()
    assert int(tensor.numpy().sum()) == 1023 * 512
