#include "GraphRefiner/src/PassManager.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <unordered_map>
#include "GraphRefiner/src/Pass.h"
#include "GraphRefiner/src/PassPipeline.h"
#include "GraphRefiner/src/PassRegistry.h"
#include "ir/Failure.h"
#include "ir/IrGraph.h"
#include "output/ModelDump.h"

namespace netforge::graphrefiner {

namespace {

constexpr std::uint32_t kNoBackendKind = 7;
// What a repeating pass may be called beyond its first call.
constexpr int kFixpointRepeats = 50;
// Folds the Reshape pairs that Replace6dOps leaves around the ops that it lowered.
constexpr PassId kRankReductionFollowUp[] = {PassId::FoldReshapesInstance1, PassId::SquashReshapeInstance1,
                                             PassId::RemoveNoOps1};

template <class T>
bool contains(const std::vector<T>& list, const T& value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

// A file that is not there, or that can't be removed, is no failure.
void removeFile(const std::string& fileName) {
  std::remove(fileName.c_str());
}

bool runPass(Pass& pass, std::shared_ptr<IrGraph>& graph) {
  switch (pass.runMode) {
    case PassRunMode::Once:
      return pass.run(graph);
    case PassRunMode::Fixpoint: {
      if (!pass.run(graph)) return false;
      for (int repeat = 0; repeat < kFixpointRepeats && pass.run(graph); ++repeat) {
      }
      return true;
    }
  }
  return false;
}

#ifndef NDEBUG
// An edit that breaks the graph shows where it is made, and not passes later. `moment` names it in the text.
void requireSoundGraph(const IrGraph& graph, const std::string& moment) {
  const std::vector<std::string> violations = graph.checkInvariants();
  if (violations.empty()) return;
  std::string list;
  for (const std::string& violation : violations) list += "\n  " + violation;
  fail<std::logic_error>("netforge::graphrefiner::PassManager::applyOptimizationPasses",
                         "The graph is broken ", moment, list);
}
#endif

}  // namespace

PassManager::PassManager(const GraphRefinerContext& givenContext) : context(givenContext) {}

void PassManager::runOptimizationStage(std::shared_ptr<IrGraph>& graph,
                                       const std::shared_ptr<BackendInfo>& backendInfo,
                                       OptimizationStage stage) {
  const std::vector<PassId> defaultPasses = createPassPipeline(kNoBackendKind)->getPasses(backendInfo, stage);
  if (!defaultPasses.empty()) applyOptimizationPasses(graph, defaultPasses, stage);

  if (contains(executedPasses, getPassNameFromPassId(PassId::Replace6dOps))) {
    // The lowered ops are not usable with the pairs around them, so the caller's disabling does not hold
    // here.
    std::vector<PassId>& disabled = context.disabledPassIds;
    for (const PassId id : kRankReductionFollowUp) {
      disabled.erase(std::remove(disabled.begin(), disabled.end(), id), disabled.end());
    }
    applyOptimizationPasses(graph, {std::begin(kRankReductionFollowUp), std::end(kRankReductionFollowUp)},
                            stage);
  }

  if (backendInfo) {
    if (const auto pipeline = createPassPipeline(mapBackendKind(backendInfo))) {
      const std::vector<PassId> passes = pipeline->getPasses(backendInfo, stage);
      if (!passes.empty()) applyOptimizationPasses(graph, passes, stage);
    }
  }

  runPostOptimizationSteps(graph, stage);
}

bool PassManager::isSelected(PassId id, const Pass& pass) const {
  if (pass.enableMode == 1 && !contains(context.enabledPassIds, id)) return false;
  return !contains(context.disabledPassIds, id);
}

void PassManager::applyOptimizationPasses(std::shared_ptr<IrGraph>& graph, const std::vector<PassId>& passIds,
                                          OptimizationStage stage) {
  const PassRegistry::PassTable passes = getPassRegistry().table(stage);
  std::unordered_map<std::string, std::int32_t> passRunCounts;
#ifndef NDEBUG
  if (context.debug_log && graph) requireSoundGraph(*graph, "before the first pass");
#endif
  for (const PassId id : passIds) {
    const auto entry = passes.find(id);
    if (entry == passes.end() || !entry->second || !isSelected(id, *entry->second)) continue;
    Pass& pass = *entry->second;
    const std::string passName = getPassNameFromPassId(id);
    if (context.debug_log) {
      std::cout << "netforge::graphrefiner::PassManager::applyOptimizationPasses: DEBUG: " << passName
                << " Pass getting executed in GraphRefiner" << std::endl;
    }

    const bool atPassChange = context.dump_ir && context.dump_ir_level == IrDumpLevel::PostPassChange;
    const bool atOpChange = context.dump_ir && context.dump_ir_level == IrDumpLevel::PostOpChange;
    OpHashes hashesBefore;
    if (atOpChange) hashesBefore = hashWatchedOps(graph);
    const std::string counter = std::to_string(++passRunCounts[passName]);
    const std::string beforeFile = "Before" + passName + counter + ".json";
    if ((atPassChange || atOpChange) && dumpsPass(passName)) dumpModelJson(graph, beforeFile);

    const bool changed = runPass(pass, graph);
#ifndef NDEBUG
    if (context.debug_log && graph) requireSoundGraph(*graph, "after pass " + passName);
#endif
    if (!changed) {
      removeFile(beforeFile);
      continue;
    }
    executedPasses.push_back(passName);
    if (atPassChange && dumpsPass(passName)) dumpModelJson(graph, "After" + passName + counter + ".json");
    if (atOpChange && !dumpChangedOpTypes(graph, hashesBefore, "_After" + passName + counter + ".json")) {
      removeFile(beforeFile);
    }
  }
}

void PassManager::runPostOptimizationSteps(std::shared_ptr<IrGraph>& graph, OptimizationStage stage) {
  if (context.enable_trace)
    graph->validateTraceInfoCompleteness("Post G2G optimizations: " + stageName(stage));
  graph->reEvalMacsParams();
  if (context.dump_ir && context.dump_ir_level == IrDumpLevel::Checkpoint) {
    const std::string file = "IRGraph_after_IrGraph_optimizations.json";
    std::cout << "netforge::graphrefiner::PassManager::runPostOptimizationSteps: "
              << "Dumping IR graph after IrGraph optimizations as " << file << std::endl;
    graph->dumpJson(file);
  }
}

std::vector<std::string> PassManager::getCurrentExecutionPassNames(
    OptimizationStage stage, const std::shared_ptr<BackendInfo>& backendInfo) {
  std::vector<std::string> names;
  const auto append = [&](std::uint32_t kind) {
    const auto pipeline = createPassPipeline(kind);
    if (!pipeline) return;
    for (const PassId id : pipeline->getPasses(backendInfo, stage))
      names.push_back(getPassNameFromPassId(id));
  };
  append(kNoBackendKind);
  if (backendInfo) append(mapBackendKind(backendInfo));
  return names;
}

std::vector<std::string> PassManager::getExecutedPasses() const {
  return executedPasses;
}

bool PassManager::registerPass(PassId id, OptimizationStage stage, const std::set<std::uint32_t>& backends,
                               PassRunMode runMode, std::uint32_t enableMode, std::uint32_t keepMatchedOps) {
  if (static_cast<std::uint32_t>(stage) > static_cast<std::uint32_t>(OptimizationStage::PostQuant))
    return true;
  PassRegistry::PassTable& table = getPassRegistry().table(stage);
  const std::string passName = getPassNameFromPassId(id);
  if (table.count(id) != 0) {
    fail<std::runtime_error>("netforge::graphrefiner::PassManager::registerPass", "Pass ", passName,
                             " is already registered");
  }
  const std::shared_ptr<Pass> pass = createPass(id);
  pass->backends = backends;
  pass->stage = stage;
  pass->runMode = runMode;
  pass->keepMatchedOps = keepMatchedOps;
  pass->enableMode = enableMode;
  table.emplace(id, pass);
  return true;
}

bool PassManager::registerPass(PassId id) {
  return registerPass(id, OptimizationStage::PostLayout, {kNoBackendKind}, getPassRunMode(id), 0, 0);
}

}  // namespace netforge::graphrefiner
