#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "ir/IrAttributes.h"

/// How canonicalizeOp writes values back.

namespace netforge::ops {

/// Puts a static tensor of unsigned 32-bit values with dims [count] in the place of the tensor attribute
/// `name`. It bears the old tensor's name and is an ordinary parameter, whatever the old one was.
void replaceUint32Values(const std::shared_ptr<IrAttributes>& attributes, const std::string& name,
                         const std::vector<std::uint32_t>& values);

}  // namespace netforge::ops
