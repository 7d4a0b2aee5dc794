"""Python values as attributes and parameters: which type each one gets."""

from __future__ import annotations

from collections.abc import Callable

import netforge
import numpy as np
import pytest
from netforge import AttrClass, DataType, IrAttributes, IrOp, IrStaticTensor

# Value, the type it gets, and what is read back.
SCALARS = [
    (True, "BOOL_8", True),
    (np.bool_(False), "BOOL_8", False),
    (0, "UINT_32", 0),
    (4294967295, "UINT_32", 4294967295),
    (-1, "INT_32", -1),
    (np.int64(7), "UINT_32", 7),
    (np.int64(-7), "INT_32", -7),
    (np.uint8(5), "UINT_8", 5),
    (np.int8(5), "INT_32", 5),
    (np.int32(3), "INT_32", 3),
    (np.uint32(7), "UINT_32", 7),
    (np.array(3, np.int32)[()], "INT_32", 3),
    (0.5, "FLOAT_32", 0.5),
    (np.float32(0.1), "FLOAT_32", float(np.float32(0.1))),
    (np.float64(-2.5), "FLOAT_32", -2.5),
    ("text", "STRING", "text"),
]
TENSORS = [
    ([1, 2, 3], "UINT_32", [1, 2, 3]),
    ((1, -1), "UINT_32", [1, 4294967295]),
    ([[1, 2], [3, 4]], "UINT_32", [[1, 2], [3, 4]]),
    ([], "UINT_32", []),
    (np.array([[5], [6]], np.uint32), "UINT_32", [[5], [6]]),
    (np.array([1, 2]), "UINT_32", [1, 2]),
    (np.array([1, -2], np.int32), "INT_32", [1, -2]),
    (np.arange(6, dtype=np.float32).reshape(2, 3).T, "FLOAT_32", [[0, 3], [1, 4], [2, 5]]),
]
REFUSED = [
    (None, TypeError),
    (b"bytes", TypeError),
    ({}, TypeError),
    (1j, TypeError),
    ([1.5], None),  # a tensor of an attribute, no list of words
    (["a"], TypeError),
    ([[1], [2, 3]], (TypeError, ValueError)),
    (2**32, ValueError),
    (-(2**31) - 1, ValueError),
    ([2**32], ValueError),
    (np.uint64(2**63), ValueError),
]


def type_name(attributes: IrAttributes, name: str) -> str:
    return attributes.getDataType(name).name.removeprefix("ORLO_DATATYPE_")


def test_scalars_get_one_type_each() -> None:
    for value, name, back in SCALARS:
        attributes = IrAttributes({"key": value})
        assert (type_name(attributes, "key"), attributes["key"]) == (name, back), repr(value)
        assert type(attributes["key"]) is type(back)
        assert attributes.getAttrClass("key") == AttrClass.ATTR_ORDINARY


def test_lists_and_arrays_become_constants_with_their_dims() -> None:
    for value, name, back in TENSORS:
        attributes = IrAttributes({"key": value}, opName="op")
        tensor = attributes["key"]
        assert isinstance(tensor, IrStaticTensor) and not tensor.isDataBorrowed()
        assert (type_name(attributes, "key"), tensor.numpy().tolist(), tensor.name) == (name, back, "op_key")
    own = IrStaticTensor("mine", np.ones(2, np.float32))
    assert IrAttributes({"key": own}).getStaticTensor("key") is own


def test_values_that_have_no_type_are_refused() -> None:
    adders: list[Callable[[object], object]] = [
        lambda value: IrAttributes().add("key", value),
        lambda value: netforge.createOp("Transpose", "t", {"perm": value}),
        lambda value: IrOp("o", "Custom", {"key": value}),
    ]
    for value, error in REFUSED:
        for add in adders:
            if error is not None:
                with pytest.raises(error):
                    add(value)
    with pytest.raises(TypeError, match="must hold integers, not float64"):
        netforge.createOp("Transpose", "t", {"perm": [1.5]})
    for number in (0, 4, 256):
        with pytest.raises(ValueError, match="class is 1, 2 or 3"):
            IrAttributes().add("key", 1, number)


def test_the_table_is_dict_like_in_the_order_of_names() -> None:
    attributes = IrAttributes({"b": 2, "a": 1.5, "c": "x"}, attrClass=2)
    assert list(attributes) == attributes.keys() == ["a", "b", "c"]
    assert attributes.toDict() == {"a": 1.5, "b": 2, "c": "x"}
    assert len(attributes) == 3 and "a" in attributes and "d" not in attributes and 5 not in attributes
    assert attributes.get("d") is None and attributes.get("d", 7) == 7 and attributes.get("b") == 2
    assert attributes.isSupplemental("a")
    copy = attributes.copy()
    attributes.add("b", np.int32(2), 3)
    assert (type_name(attributes, "b"), attributes.getAttrClass("b")) == ("INT_32", AttrClass.ATTR_EXTRA)
    assert type_name(copy, "b") == "UINT_32"
    attributes.remove("a")
    with pytest.raises(KeyError):
        attributes["a"]
    with pytest.raises(RuntimeError, match="Attribute 'a' not present"):
        attributes.getAttr("a")
    with pytest.raises(ValueError, match="Unable to remove attribute 'a'"):
        attributes.remove("a")


def test_create_op_reads_every_parameter_of_a_plain_int() -> None:
    conv = netforge.createOp(
        "Conv2d",
        "conv",
        {"stride": [2, 1], "pad_amount": [[0, 1], [2, 3]], "group": 4, "padding_size_strategy": 1},
    )
    assert conv.attributes["padding_size_strategy"] == 1 and conv.attributes["group"] == 4
    assert conv.attributes["pad_amount"].numpy().tolist() == [[0, 1], [2, 3]]
    assert conv.attributes["stride"].name == "conv_stride"
    assert netforge.createOp("Gather", "g", {"axis": 2}).attributes["axis"] == 2
    assert netforge.createOp("Gather", "g", {"axis": -2}).attributes["axis"] == -2
    assert netforge.createOp("Softmax", "s", {"axis": 1, "beta": 2}).attributes["beta"] == 2.0
    assert type_name(netforge.createOp("Concat", "c", {"axis": 1}).attributes, "axis") == "UINT_32"
    assert type_name(netforge.createOp("Concat", "c", {"axis": np.int32(1)}).attributes, "axis") == "INT_32"
    reshape = netforge.createOp("Reshape", "r", {"shape": [2, -1]})
    assert reshape.attributes["shape"].numpy().view(np.int32).tolist() == [2, -1]
    for params in (None, {}):
        with pytest.raises(RuntimeError, match="Mandatory attribute 'perm' not supplied"):
            netforge.createOp("Transpose", "t", params)
    with pytest.raises(RuntimeError, match="netforge::graphrefiner::createOp: Op not supported: Nope"):
        netforge.createOp("Nope", "n")


def test_apply_method_builds_typed_ops_around_exact_attributes() -> None:
    attributes = IrAttributes({"perm": IrStaticTensor("order", [1, 0])})
    op = netforge.applyMethod("Transpose", "t", attributes)
    assert op.attributes is attributes and op.type == "Transpose"
    op.addInput(netforge.IrTensor("x", [4, 9], DataType.ORLO_DATATYPE_FLOAT_32))
    with pytest.raises(RuntimeError, match="lockWeakPtr"):
        op.getInputs()  # nobody holds the tensor
    held = netforge.IrTensor("x", [4, 9], DataType.ORLO_DATATYPE_FLOAT_32)
    op = netforge.applyMethod("Transpose", "t", {"perm": [1, 0]}, [held])
    assert op.inferOutputShapes(netforge.SpatialFirstAxisOrder(), 1) == [[9, 4]]
    assert netforge.hasMethod("Transpose") and not netforge.hasMethod("transpose")
    with pytest.raises(RuntimeError, match="Error creating translation type: Nope"):
        netforge.applyMethod("Nope", "n")
