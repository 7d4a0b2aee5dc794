#pragma once

#include <string>
#include "output/OrloTypes.h"

namespace netforge::testing {

/// "operation=u32 3, beta=f32 0.5, axes=[2] u32 01000000 02000000": the parameters of an op.
std::string paramsText(const Orlo_OpConfig_t& config);
/// "x[2,3] f32 type 0", then what isn't usual: "dynamic 01 00", "sparse 5 2", "size 24", "data ...", and the
/// quantisation.
std::string tensorText(const Orlo_Tensor_t& tensor);
/// The definition, the kind and the group's fields in the order of the record; empty when undefined. Follows
/// every pointer. `entries` says how many entries the arrays have whose length the record doesn't tell.
std::string quantText(const Orlo_QuantizeParams_t& params, std::uint32_t rank, std::uint32_t entries);
/// All of it.
std::string configText(const Orlo_OpConfig_t& config);

}  // namespace netforge::testing
