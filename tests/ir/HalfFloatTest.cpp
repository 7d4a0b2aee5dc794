#include "ir/HalfFloat.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>

namespace netforge {
namespace {

#if defined(__FLT16_MAX__)
// The compiler's own conversion is the reference.
__extension__ typedef _Float16 Half;

std::uint16_t referenceHalf(float value) {
  return std::bit_cast<std::uint16_t>(static_cast<Half>(value));
}

float exactFloat(std::uint16_t half) {
  return static_cast<float>(std::bit_cast<Half>(half));
}

// Counts instead of asserting each value: a broken rounding fails hundreds of thousands of times.
class Comparison {
 public:
  void check(float value) {
    for (const float each : {value, -value}) {
      if (std::isnan(each) || floatToHalf(each) == referenceHalf(each)) continue;
      if (mismatches++ == 0) first = each;
    }
  }
  std::size_t mismatches = 0;
  float first = 0.0f;
};

// Ties, and the floats next to them, are where rounding goes wrong: between any two halves in a row.
TEST(HalfConversion, AgreesAroundEveryHalfAndEveryTie) {
  Comparison comparison;
  constexpr float kUp = std::numeric_limits<float>::infinity();
  for (std::uint16_t half = 0; half < 0x7C00; ++half) {
    const float value = exactFloat(half);
    // The half behind the largest finite one would be 65536.
    const float next = half == 0x7BFF ? 65536.0f : exactFloat(static_cast<std::uint16_t>(half + 1));
    const float tie = (value + next) / 2.0f;
    for (const float each : {value, std::nextafter(value, kUp), std::nextafter(tie, -kUp), tie,
                             std::nextafter(tie, kUp), std::nextafter(next, -kUp)}) {
      comparison.check(each);
    }
  }
  EXPECT_EQ(comparison.mismatches, 0u) << "first at " << comparison.first;
}

TEST(HalfConversion, AgreesOverTheWholeRangeOfFloats) {
  Comparison comparison;
  for (std::uint64_t bits = 0; bits <= 0x7F800000u; bits += 4093) {
    comparison.check(std::bit_cast<float>(static_cast<std::uint32_t>(bits)));
  }
  EXPECT_EQ(comparison.mismatches, 0u) << "first at " << comparison.first;
}
#endif

TEST(HalfConversion, NamedValues) {
  const std::pair<float, std::uint16_t> rows[] = {
      {0.0f, 0x0000},
      {-0.0f, 0x8000},
      {-1.0f, 0xBC00},
      {65504.0f, 0x7BFF},
      {65519.0f, 0x7BFF},
      {65520.0f, 0x7C00},
      {-1.0e30f, 0xFC00},
      {std::numeric_limits<float>::infinity(), 0x7C00},
      {0x1.0p-24f, 0x0001},    // smallest subnormal
      {0x1.0p-25f, 0x0000},    // half of it: a tie, to even
      {0x1.8p-25f, 0x0001},    // above the tie
      {0x1.0p-14f, 0x0400},    // smallest normal
      {0x1.ff8p-15f, 0x03FF},  // largest subnormal
      {std::numeric_limits<float>::denorm_min(), 0x0000},
      {std::bit_cast<float>(0x7FC00000u), 0x7E00},
      {std::bit_cast<float>(0x7F800001u), 0x7E00},  // payload in bits that a half lacks
      {std::bit_cast<float>(0xFFFFFFFFu), 0xFE00},
  };
  for (const auto& [value, half] : rows) EXPECT_EQ(floatToHalf(value), half) << value;
}

}  // namespace
}  // namespace netforge
