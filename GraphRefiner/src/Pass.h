#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include "GraphRefiner/src/GraphRefinerContext.h"

namespace netforge {
class IrGraph;
}

namespace netforge::graphrefiner {

/// Base of every pass. A pass object is built once per process, lives in the registry and is shared by all
/// managers; it may hold the state of the run in progress, so two graphs never go through it at once.
class Pass {
 public:
  /// Rewrites the graph in place and returns whether anything changed. The manager relies on the answer: for
  /// repeating the pass, for its list of executed passes and for the dumps. An exception ends the
  /// optimization and leaves the graph as far as the pass got.
  virtual bool run(std::shared_ptr<IrGraph>& graph) = 0;
  virtual ~Pass();

  // Set by PassManager::registerPass.
  std::set<std::uint32_t> backends;  ///< backend kinds that get_dump_pass_config lists the pass for
  OptimizationStage stage = OptimizationStage::PostLayout;
  PassRunMode runMode = PassRunMode::Once;
  std::uint32_t keepMatchedOps = 0;  ///< non-zero: no clean-up of bound ops after a rewrite
  std::uint32_t enableMode = 0;      ///< 0: runs unless disabled; 1: runs only when listed in "enabledPasses"
};

}  // namespace netforge::graphrefiner
