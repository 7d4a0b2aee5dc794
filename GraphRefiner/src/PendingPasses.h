#pragma once

#include "GraphRefiner/src/Pass.h"

namespace netforge::graphrefiner {

/// Stands in the registry for a pass whose rewrite has not been written yet, so that its name, its number and
/// its place in the pipeline are already in force. Changes nothing.
class PendingPass : public Pass {
 public:
  bool run(std::shared_ptr<IrGraph>& /*graph*/) override { return false; }
};

}  // namespace netforge::graphrefiner
