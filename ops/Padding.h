#pragma once

#include <cstdint>

namespace netforge::ops {

/// How a convolution comes by its pads and rounds its output size, stored as the unsigned 8-bit attribute
/// "padding_size_strategy". A value without an enumerator counts as PaddingExplicitCeil.
enum PaddingSizeStrategy : std::uint8_t {
  PaddingValid = 0,          ///< no pads enter the size; "pad_amount" is carried as given
  PaddingSameBegin = 1,      ///< computed; an odd total puts the larger half before
  PaddingSameEnd = 2,        ///< computed; an odd total puts the larger half after
  PaddingExplicitCeil = 3,   ///< pads as given, the size rounds up
  PaddingExplicitFloor = 5,  ///< pads as given, the size rounds down
};

/// Output size of a convolution along one spatial axis, with e = (kernel - 1) * dilation + 1:
///
///   PaddingValid                      ceil((inputSize - e + 1) / stride)
///   PaddingSameBegin, PaddingSameEnd  ceil(inputSize / stride)
///   PaddingExplicitFloor              floor((inputSize - e + padBefore + padAfter) / stride) + 1
///   any other                         ceil((inputSize - e + padBefore + padAfter) / stride) + 1
///
/// The quotient is a single-precision one, so sizes beyond 2^24 are inexact. A kernel that does not fit into
/// the padded input gives a size below 1 that wraps around 2^32. Throws std::invalid_argument for a stride of
/// 0.
std::uint32_t calcOutputSize(std::uint32_t inputSize, std::uint32_t kernel, std::uint32_t padBefore,
                             std::uint32_t padAfter, std::uint32_t stride, std::uint32_t dilation,
                             std::uint8_t strategy);

}  // namespace netforge::ops
