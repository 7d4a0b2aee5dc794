#pragma once

#include <cstdint>

namespace netforge::graphrefiner {

// Values of the attribute "operation" that passes look for or make.
// Eltwise_Binary
constexpr std::uint32_t kAdd = 0;
constexpr std::uint32_t kAnd = 1;
constexpr std::uint32_t kDivide = 2;
constexpr std::uint32_t kGreater = 6;
constexpr std::uint32_t kMultiply = 13;
constexpr std::uint32_t kPower = 16;
constexpr std::uint32_t kSubtract = 18;
// Eltwise_Unary
constexpr std::uint32_t kNegate = 8;
constexpr std::uint32_t kSquareRoot = 15;
// ElementWiseNeuron
constexpr std::uint32_t kGelu = 1;
constexpr std::uint32_t kRelu = 4;
constexpr std::uint32_t kSigmoid = 6;
constexpr std::uint32_t kTanh = 8;

}  // namespace netforge::graphrefiner
