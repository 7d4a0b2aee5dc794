#pragma once

#include <pybind11/numpy.h>

#include <cstdint>
#include <vector>

#include "ir/IrTensor.h"
#include "ir/IrTypes.h"

namespace netforge::bindings {

namespace py = pybind11;

/// The element type that a NumPy dtype stands for. Raises TypeError for a dtype without one.
DataType dataTypeOf(const py::dtype& dtype);

/// The dtype in which elements of a type are seen: fixed-point types as integers of their width, 2- and 4-bit
/// types as one byte per element, BFLOAT_16 and FLOAT_8 as unsigned integers. Raises TypeError for types
/// that have none.
py::dtype dtypeOf(DataType type);

/// Bytes of one element as `dtypeOf` sees it; 0 for types that have no dtype.
std::uint32_t elementBytes(DataType type);

/// The array itself when it is C-contiguous, aligned and in the machine's byte order, else a copy that is.
py::array plainArray(const py::array& array);

/// Its dims. Raises ValueError for what doesn't fit 32 bits, and for rank 0 (a tensor with data has dims).
std::vector<std::uint32_t> dimsOf(const std::string& name, const py::array& array);

/// Bytes of the array. Raises ValueError beyond 32 bits.
std::uint32_t bytesOf(const std::string& name, const py::array& array);

/// A view of a static tensor's bytes that keeps the tensor alive; writable when the tensor owns its bytes.
py::array viewOf(const std::shared_ptr<IrStaticTensor>& tensor);

/// The same as a flat view of bytes, whatever the type.
py::array bytesView(const std::shared_ptr<IrStaticTensor>& tensor);

}  // namespace netforge::bindings
