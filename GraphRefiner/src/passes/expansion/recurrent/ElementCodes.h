#pragma once

#include <cstdint>

namespace netforge::graphrefiner {

// Values of "operation" that recurrent ops are taken apart into.
constexpr std::uint32_t kAdd = 0;  // Eltwise_Binary
constexpr std::uint32_t kMultiply = 13;
constexpr std::uint32_t kSubtract = 18;
constexpr std::uint32_t kRelu = 4;  // ElementWiseNeuron
constexpr std::uint32_t kSigmoid = 6;
constexpr std::uint32_t kTanh = 8;

}  // namespace netforge::graphrefiner
