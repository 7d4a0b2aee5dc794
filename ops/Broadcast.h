#pragma once

#include <cstdint>
#include <memory>
#include <vector>
#include "ir/AxisOrder.h"
#include "ir/IrTensorShape.h"

namespace netforge::ops {

/// Broadcasts two dims against each other from the last axis to the first: equal sizes stay, a 1 takes the
/// other side's size. With `permuted` both are taken to the spatial-first layout by their rank first (ranks 1
/// to 5) and the result is taken back, so that in a spatial-last order channels meet channels; without it the
/// shorter dims count as having ones in front and `axisOrder` is not used (it may be null). Throws
/// std::invalid_argument when two sizes do not fit.
std::vector<std::uint32_t> getBroadcastedShape(const std::vector<std::uint32_t>& dimsOne,
                                               const std::vector<std::uint32_t>& dimsTwo,
                                               const std::shared_ptr<AxisOrder>& axisOrder, bool permuted);

/// Three dims: the broadcast of (first, second) with the broadcast of (second, third).
std::vector<std::uint32_t> getBroadcastedShape(const std::vector<std::uint32_t>& dimsOne,
                                               const std::vector<std::uint32_t>& dimsTwo,
                                               const std::vector<std::uint32_t>& dimsThree,
                                               const std::shared_ptr<AxisOrder>& axisOrder, bool permuted);

/// Broadcasts two shapes with their dynamic axes; the lower rank is padded with ones in front. A dynamic axis
/// fits a dynamic axis of the same placeholder size, or a static 1. Its placeholder is never read as a 1.
/// Throws std::invalid_argument when two axes do not fit.
IrTensorShape getBroadcastedTensorShape(const IrTensorShape& shapeOne, const IrTensorShape& shapeTwo);

}  // namespace netforge::ops
