#include "GraphRefiner/src/GraphRefiner.h"

#include <iostream>
#include <stdexcept>
#include "GraphRefiner/src/NameNumbers.h"
#include "GraphRefiner/src/PassManager.h"
#include "GraphRefiner/src/PassRegistry.h"
#include "ir/Failure.h"
#include "ir/IrGraph.h"
#include "output/ModelDump.h"

namespace netforge::graphrefiner {

GraphRefiner::GraphRefiner(const std::shared_ptr<IrGraph>& givenGraph,
                           const std::vector<OptimizationStage>& givenStages,
                           const std::shared_ptr<BackendInfo>& givenBackendInfo,
                           const GraphRefinerContext& givenContext)
    : graph(givenGraph), stages(givenStages), backendInfo(givenBackendInfo), context(givenContext) {
  if (!graph) {
    fail<std::invalid_argument>("netforge::graphrefiner::GraphRefiner::GraphRefiner",
                                "The graph must not be null");
  }
  if (context.optimizer_config.empty()) return;
  for (const std::string& name : context.optimizer_config["enabledPasses"]) {
    context.enabledPassIds.push_back(getPassIdFromPassName(name));
  }
  for (const std::string& name : context.optimizer_config["disabledPasses"]) {
    context.disabledPassIds.push_back(getPassIdFromPassName(name));
  }
}

void GraphRefiner::optimize() {
  resetNameNumbers();
  PassManager manager(context);
  const bool dumpsStages = context.dump_ir && context.dump_ir_level == IrDumpLevel::PreAndPostOptimization;
  for (const OptimizationStage stage : stages) {
    const std::string file = stageName(stage) + "Optimizations.json";
    if (dumpsStages) dumpModelJson(graph, "Before" + file);
    manager.runOptimizationStage(graph, backendInfo, stage);
    if (dumpsStages) dumpModelJson(graph, "After" + file);
  }
  if (context.dump_pass_trace_info) {
    std::cout << "PASS TRACE INFO: ";
    for (const std::string& name : manager.getExecutedPasses()) std::cout << name << ", ";
    std::cout << std::endl;
  }
}

std::vector<std::string> GraphRefiner::getCurrentExecutionPassNames() {
  PassManager manager(context);
  std::vector<std::string> names;
  for (const OptimizationStage stage : stages) {
    const std::vector<std::string> stageNames = manager.getCurrentExecutionPassNames(stage, backendInfo);
    names.insert(names.end(), stageNames.begin(), stageNames.end());
  }
  return names;
}

PyGraphRefiner::PyGraphRefiner(const std::shared_ptr<IrGraph>& graph,
                               const std::vector<OptimizationStage>& stages,
                               const std::shared_ptr<BackendInfo>& backendInfo,
                               const GraphRefinerContext& context)
    : refiner(std::make_shared<GraphRefiner>(graph, stages, backendInfo, context)) {}

void PyGraphRefiner::optimize() {
  refiner->optimize();
}

std::vector<std::string> PyGraphRefiner::getCurrentExecutionPassNames() {
  return refiner->getCurrentExecutionPassNames();
}

}  // namespace netforge::graphrefiner
