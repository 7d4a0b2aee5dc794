#pragma once

#include <memory>
#include <stdexcept>
#include <string_view>
#include "ir/Failure.h"

namespace netforge {

class IrTensor;
namespace ops {
class IrOp;
}

// The argument tests that the graph's operations share. `function` is the reporting function's name.

inline void requireOp(const std::shared_ptr<ops::IrOp>& op, std::string_view function) {
  if (op != nullptr) return;
  fail<std::runtime_error>(function, "Invalid op: received null op pointer, expected a valid op");
}

inline void requireTensor(const std::shared_ptr<IrTensor>& tensor, std::string_view function) {
  if (tensor != nullptr) return;
  fail<std::runtime_error>(function, "Invalid tensor: received null tensor pointer, expected a valid tensor");
}

}  // namespace netforge
