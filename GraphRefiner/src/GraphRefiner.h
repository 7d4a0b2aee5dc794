#pragma once

#include <memory>
#include <string>
#include <vector>
#include "GraphRefiner/src/GraphRefinerContext.h"

namespace netforge {
class BackendInfo;
class IrGraph;
}  // namespace netforge

namespace netforge::graphrefiner {

/// The driver: rewrites one graph through the passes of the stages that the caller asks for.
///
/// The graph stays the caller's and is rewritten in place. The context is copied and its pass names are
/// resolved at construction, so a later change of the caller's context has no effect. Everything runs on the
/// caller's thread.
class GraphRefiner {
 public:
  /// `stages` run in list order, and one may repeat. `backendInfo` may be null: then only the default passes
  /// run. Throws std::invalid_argument for a null graph and std::runtime_error for an unknown name in
  /// "enabledPasses" or "disabledPasses".
  GraphRefiner(const std::shared_ptr<IrGraph>& graph, const std::vector<OptimizationStage>& stages,
               const std::shared_ptr<BackendInfo>& backendInfo, const GraphRefinerContext& context);

  /// Runs the stages. May be called again: the rewritten graph carries over, the record of executed passes
  /// does not. A failure of a pass or a dump goes through as it is and leaves the graph as far as the passes
  /// got. Dumps land in the current directory.
  void optimize();

  /// The names of the passes that the pipelines list for the stages, in order of execution; runs nothing.
  std::vector<std::string> getCurrentExecutionPassNames();

 private:
  std::shared_ptr<IrGraph> graph;
  std::vector<OptimizationStage> stages;
  std::shared_ptr<BackendInfo> backendInfo;
  GraphRefinerContext context;
};

/// What the Python module binds: shares one `GraphRefiner` and forwards to it.
class PyGraphRefiner {
 public:
  PyGraphRefiner(const std::shared_ptr<IrGraph>& graph, const std::vector<OptimizationStage>& stages,
                 const std::shared_ptr<BackendInfo>& backendInfo, const GraphRefinerContext& context);
  void optimize();
  std::vector<std::string> getCurrentExecutionPassNames();

 private:
  std::shared_ptr<GraphRefiner> refiner;
};

}  // namespace netforge::graphrefiner
