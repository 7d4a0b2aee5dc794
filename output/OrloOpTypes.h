#pragma once

#include <optional>
#include <string>
#include "ir/IrOp.h"

namespace netforge {

/// The runtime's type of an op, and its attributes rewritten to the runtime's parameters: strings that name
/// an operation become its code "operation", the modes of a Resize become flags. Nothing when the runtime
/// has no type for the op. Throws std::invalid_argument for a value without a code, before any change.
std::optional<std::string> chooseOrloType(const ops::IrOp& op, const std::string& targetName);

}  // namespace netforge
