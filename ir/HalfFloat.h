#pragma once

#include <cstdint>

namespace netforge {

/// IEEE 754 conversion from binary32 to binary16, round to nearest, ties to even. Values that round beyond
/// 65504 give infinity, values below half of the smallest subnormal (2^-24) give a zero of their sign.
/// Any NaN gives 0x7E00 with the sign of the input.
std::uint16_t floatToHalf(float value);

}  // namespace netforge
