#include "ops/Padding.h"

#include <cmath>

#include "ops/OpFailure.h"

namespace netforge::ops {

std::uint32_t calcOutputSize(std::uint32_t inputSize, std::uint32_t kernel, std::uint32_t padBefore,
                             std::uint32_t padAfter, std::uint32_t stride, std::uint32_t dilation,
                             std::uint8_t strategy) {
  if (stride == 0) throwInvalidArgument("netforge::ops::calcOutputSize", "Stride must be at least 1.");

  // Unsigned 64-bit sums wrap, and read as signed they are right for every kernel that exceeds its input.
  const std::uint64_t extent = (std::uint64_t{kernel} - 1) * dilation + 1;
  const auto quotient = [stride](std::uint64_t numerator) {
    return static_cast<float>(static_cast<std::int64_t>(numerator)) / static_cast<float>(stride);
  };
  const auto toSize = [](float rounded, std::int64_t plus) {
    return static_cast<std::uint32_t>(static_cast<std::int64_t>(rounded) + plus);
  };

  switch (strategy) {
    case PaddingValid:
      return toSize(std::ceil(quotient(inputSize - extent + 1)), 0);
    case PaddingSameBegin:
    case PaddingSameEnd:
      return toSize(std::ceil(quotient(inputSize)), 0);
    case PaddingExplicitFloor:
      return toSize(std::floor(quotient(inputSize - extent + padBefore + padAfter)), 1);
    default:
      return toSize(std::ceil(quotient(inputSize - extent + padBefore + padAfter)), 1);
  }
}

}  // namespace netforge::ops
