#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>
#include "ir/IrOp.h"

/// What convolutions and transpose convolutions share. `spatialAxes` is 2 or 3 throughout.

namespace netforge::ops {

/// The first `count` elements of the tensor attribute `name`. Throws std::out_of_range when there are fewer.
std::vector<std::uint32_t> readLeadingValues(const IrOp& op, const std::string& name, std::uint32_t count);

/// Replaces the tensor attribute `name` by an ordinary one under the old tensor's name.
void rewriteTensor(const IrOp& op, const std::string& name, const std::vector<std::uint32_t>& dims,
                   const std::vector<std::uint32_t>& values);

/// Dims in the layout of the axis order from batch, spatial sizes and channels.
std::vector<std::uint32_t> makeSpatialDims(const AxisOrder& axisOrder, std::uint32_t batch,
                                           const std::vector<std::uint32_t>& sizes, std::uint32_t channels);

/// Throws std::invalid_argument in the name of `function` unless `dims`, those of the data or of the weight,
/// have as many entries as a convolution over that many spatial axes needs. `what` is "data" or "weight".
void requireConvRank(const IrOp& op, const char* function, const char* what,
                     const std::vector<std::uint32_t>& dims, std::uint32_t spatialAxes);

/// Elements of one filter, the kernel's spatial sizes times the input channels, out of weight dims
/// (spatial..., input channels, output channels).
std::uint64_t filterElements(const std::vector<std::uint32_t>& weight, std::uint32_t spatialAxes);

/// Splits a total padding into (before, after) by an implicit strategy.
std::pair<std::uint32_t, std::uint32_t> splitPadding(std::uint64_t total, std::uint8_t strategy);

bool isImplicitPadding(std::uint8_t strategy);

/// The defaults that all convolution classes have in common.
void addConvDefaults(const IrOp& op);

}  // namespace netforge::ops
