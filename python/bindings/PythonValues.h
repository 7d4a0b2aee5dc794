#pragma once

#include <pybind11/pybind11.h>

#include <memory>
#include <string>

#include "ir/IrAttributes.h"
#include "ops/OpFactory.h"

namespace netforge::bindings {

namespace py = pybind11;

// Python values become typed values by one rule, everywhere:
//   bool, np.bool_ -> bool; float and NumPy floats -> float; str -> string; np.uint8 -> unsigned 8-bit;
//   np.int8, np.int16, np.int32 -> signed 32-bit; np.uint16, np.uint32 -> unsigned 32-bit; int, np.int64 and
//   np.uint64 -> unsigned 32-bit when >= 0, else signed 32-bit; lists and arrays of integers -> a list of
//   unsigned 32-bit words, negative entries in two's complement.
// TypeError for any other value, ValueError for a number beyond 32 bits. `name` is for the messages.

/// A parameter of createOp. A Python number that carries no type fills every field that can hold it besides
/// the one of its tag, so that a factory that reads an 8-bit or float field doesn't find a zero there.
graphrefiner::OpParam paramOf(const std::string& name, py::handle value);
graphrefiner::OpParams paramsOf(const py::dict& values);

/// Adds an attribute. Lists and arrays become constant tensors that own their bytes and keep their dims:
/// integers of 64 bits and Python lists as UINT_32, other dtypes as they are. The tensor is named
/// "<opName>_<name>", or "<name>" without an op. An IrStaticTensor is taken as it is.
void addAttribute(IrAttributes& attributes, const std::string& name, py::handle value, AttrClass attrClass,
                  const std::string& opName);

/// None gives an empty table, a dict a new one (class 1 throughout), an IrAttributes itself. TypeError else.
std::shared_ptr<IrAttributes> attributesOf(py::handle values, const std::string& opName);

/// int, float, bool, str or IrStaticTensor.
py::object valueOf(const IrAttribute& attribute);

/// 1, 2 or 3 as a class; ValueError for other numbers.
AttrClass attrClassOf(int number);

}  // namespace netforge::bindings
