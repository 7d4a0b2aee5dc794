#pragma once

#include <pybind11/pybind11.h>

#include "output/OrloTypes.h"

namespace netforge::bindings {

namespace py = pybind11;

// The target's records as dicts, for a person or a validator to read. Data is copied.

/// name, packageName, typeName (None without one), params by name, inputs and outputs. A scalar parameter is
/// {dataType, value}, a tensor one is a tensor's dict.
py::dict opConfigDict(const Orlo_OpConfig_t& config);

/// id, name, type, dataType, dims, dynamicAxes, data (an array, None without data), dataSize in bytes,
/// quantization (None when undefined) and sparse (None for a dense tensor).
py::dict tensorDict(const Orlo_Tensor_t& tensor);

/// encoding, definition and the group in force. Arrays whose length a record doesn't tell stay out: scales
/// of blocks, and the table's bytes.
py::object quantizationDict(const Orlo_QuantizeParams_t& params, std::uint32_t rank);

}  // namespace netforge::bindings
