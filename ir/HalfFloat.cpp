#include "ir/HalfFloat.h"

#include <bit>
#include <cmath>

namespace netforge {

std::uint16_t floatToHalf(float value) {
  // Multiplying by 2^112 sends what overflows a half to infinity; 2^-110 then brings the rest to four times
  // its size. Adding a power of two whose last mantissa bit is worth one unit of the half lets the float
  // adder do the rounding; the floor of the exponent keeps that unit at 2^-24 for subnormal halves.
  float rounded = (std::fabs(value) * 0x1.0p+112f) * 0x1.0p-110f;

  const auto bits = std::bit_cast<std::uint32_t>(value);
  const std::uint32_t withoutSign = bits + bits;
  const std::uint32_t sign = bits & 0x80000000u;
  std::uint32_t exponent = withoutSign & 0xFF000000u;
  exponent = exponent < 0x71000000u ? 0x71000000u : exponent;

  rounded = std::bit_cast<float>((exponent >> 1) + 0x07800000u) + rounded;
  const auto roundedBits = std::bit_cast<std::uint32_t>(rounded);
  // A carry of the mantissa adds one to the exponent, as it must.
  const std::uint32_t magnitude = ((roundedBits >> 13) & 0x7C00u) + (roundedBits & 0x0FFFu);
  const bool isNan = withoutSign > 0xFF000000u;
  return static_cast<std::uint16_t>((sign >> 16) | (isNan ? 0x7E00u : magnitude));
}

}  // namespace netforge
