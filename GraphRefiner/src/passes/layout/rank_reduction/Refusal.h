#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include "ir/Failure.h"
#include "ir/IrOp.h"

namespace netforge::graphrefiner {

/// Ends the optimization: the handler of that name has no way to lower the op.
template <class... Parts>
[[noreturn]] void refuseRank(const char* handler, const std::shared_ptr<ops::IrOp>& op,
                             const Parts&... parts) {
  fail<std::runtime_error>(std::string("netforge::graphrefiner::Replace6dOpPass::") + handler, "Op ",
                           op->getName(), parts...);
}

/// The usual text of refuseRank; `type` is the op's type in words.
[[noreturn]] inline void refuseMerged(const char* handler, const std::shared_ptr<ops::IrOp>& op,
                                      const char* type) {
  refuseRank(handler, op, " (type: ", type,
             ") cannot be replaced with an implementation that operates within a tensor rank of 5 or lower.");
}

}  // namespace netforge::graphrefiner
