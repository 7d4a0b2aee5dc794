#pragma once

#include <cstdint>
#include "output/OrloTypes.h"

namespace netforge {

/// The rules that hold for ops of every type: names are there, tensors are well formed, sparse tensors and
/// dynamic dimensions stand only where the runtime takes them, tensor parameters bring their data. Gives
/// ORLO_VALIDATION_OK, or logs what is wrong and gives ORLO_VALIDATION_FAILED at the first fault.
std::uint32_t checkOpConfig(const Orlo_OpConfig_t& config);

}  // namespace netforge
