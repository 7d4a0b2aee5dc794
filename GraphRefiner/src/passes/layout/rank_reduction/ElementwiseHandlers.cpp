// Ops that treat each element by itself.
#include <cstdint>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/RankReduction.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/Refusal.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/Replace6dOpPass.h"

namespace netforge::graphrefiner {

namespace {

constexpr std::uint32_t kReluMinMax = 5;  // "operation" of an ElementWiseNeuron

bool flatten(const OpPtr& op, const GraphPtr& graph) {
  if (!needsLowering(op)) return false;
  cloneSharedStaticInputs(op, graph);
  const Dims flat{product(op->getInput(0)->getDims())};
  reshapeAround(graph, op, {flat}, flat);
  return true;
}

}  // namespace

bool Replace6dOpPass::handleElementWiseUnaryOp(OpPtr& op, GraphPtr& graph) {
  return flatten(op, graph);
}

bool Replace6dOpPass::handleElementWiseNeuronOp(OpPtr& op, GraphPtr& graph) {
  if (op->getAttributes()->getAttr<std::uint32_t>("operation") != kReluMinMax) return false;
  return flatten(op, graph);
}

bool Replace6dOpPass::handleCastOp(OpPtr& op, GraphPtr& graph) {
  if (!needsLowering(op)) return false;
  cloneSharedStaticInputs(op, graph);
  Dims dims = op->getInput(0)->getDims();
  const auto rank = static_cast<std::uint32_t>(dims.size());
  std::vector<std::uint32_t> lastFour{rank - 4, rank - 3, rank - 2, rank - 1};
  mergeDimsExcept(dims, lastFour);
  reshapeAround(graph, op, {dims}, dims);
  return true;
}

bool Replace6dOpPass::handleElementWiseBinaryOp(OpPtr& op, GraphPtr& graph) {
  if (!needsLowering(op)) return false;
  const BroadcastDims merged = mergeBroadcastAxes(op->getInput(0)->getDims(), op->getInput(1)->getDims());
  if (merged.output.size() > kRankLimit) refuseMerged("handleElementWiseBinaryOp", op, "ElementWiseBinary");
  cloneSharedStaticInputs(op, graph);
  reshapeAround(graph, op, {merged.left, merged.right}, merged.output);
  return true;
}

}  // namespace netforge::graphrefiner
