#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>
#include "GraphRefiner/src/GraphRefinerContext.h"

namespace netforge {
class BackendInfo;
class IrGraph;
namespace ops {
class IrOp;
}
}  // namespace netforge

namespace netforge::graphrefiner {

class Pass;

/// Runs passes over a graph: asks the pipelines for a stage's list, filters it by the caller's enable and
/// disable lists, repeats the passes that are registered to repeat, dumps around each pass and notes which
/// passes changed the graph. One manager serves one call of `GraphRefiner::optimize`; what it notes
/// accumulates over the stages.
///
/// Passes see the manager never. An exception of a pass or of a dump goes through unchanged.
class PassManager {
 public:
  explicit PassManager(const GraphRefinerContext& context);

  /// Everything that happens in one stage: the default pipeline, the follow-up when "Replace6dOps" has
  /// changed the graph (in this stage or an earlier one), the pipeline of the backend, the post steps.
  /// `backendInfo` may be null.
  void runOptimizationStage(std::shared_ptr<IrGraph>& graph, const std::shared_ptr<BackendInfo>& backendInfo,
                            OptimizationStage stage);

  /// Runs passes in list order. An id that the stage's table lacks is skipped silently. With `debug_log`, a
  /// debug build checks the graph's invariants in front of the first pass and behind each, and throws
  /// std::logic_error that names the pass and what is broken.
  void applyOptimizationPasses(std::shared_ptr<IrGraph>& graph, const std::vector<PassId>& passIds,
                               OptimizationStage stage);

  /// The steps behind the last pass of a stage: trace check, cost totals, checkpoint dump.
  void runPostOptimizationSteps(std::shared_ptr<IrGraph>& graph, OptimizationStage stage);

  /// The names that the stage's pipelines list. Runs nothing; the follow-up and the enable and disable lists
  /// play no part. Mind the argument order: stage first here, backend first in `runOptimizationStage`.
  std::vector<std::string> getCurrentExecutionPassNames(OptimizationStage stage,
                                                        const std::shared_ptr<BackendInfo>& backendInfo);

  /// The passes that reported a change, in order of execution, once per run that changed something.
  std::vector<std::string> getExecutedPasses() const;

  /// Builds the pass and enters it in the stage's table. Always true, so that a file-scope static can be
  /// initialised by one call; a stage outside 0 to 3 has no table and enters nothing. Throws
  /// std::runtime_error for an id that the table already holds or that no pass bears. Mind the argument
  /// order: enableMode before keepMatchedOps.
  static bool registerPass(PassId id, OptimizationStage stage, const std::set<std::uint32_t>& backends,
                           PassRunMode runMode, std::uint32_t enableMode, std::uint32_t keepMatchedOps);

  /// The registration that all passes of this system share: stage `PostLayout`, listed for the kind 7, the
  /// run mode of the pass table, on by default, with clean-up.
  static bool registerPass(PassId id);

  /// A 64-bit fingerprint over the op's type, the names of its tensors and the bytes of its static inputs
  /// (which are loaded for that): FNV-1a of the texts, mixed with a running hash of the bytes.
  static std::uint64_t opFingerprint(const std::shared_ptr<ops::IrOp>& op);

 private:
  using OpHashes = std::map<std::string, std::set<std::uint64_t>>;  // fingerprints by op type

  bool isSelected(PassId id, const Pass& pass) const;
  bool dumpsPass(const std::string& passName) const;
  OpHashes hashWatchedOps(const std::shared_ptr<IrGraph>& graph) const;
  /// Dumps by op type; returns whether anything was dumped. `suffix` is "_After<pass><counter>.json".
  bool dumpChangedOpTypes(const std::shared_ptr<IrGraph>& graph, const OpHashes& before,
                          const std::string& suffix) const;

  GraphRefinerContext context;
  std::vector<std::string> executedPasses;
};

}  // namespace netforge::graphrefiner
