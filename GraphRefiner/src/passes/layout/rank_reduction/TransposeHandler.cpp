// Transposes: axes that stay neighbours merge, axes of size 1 go, and the rest is done in two steps.
#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/RankReduction.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/Refusal.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/Replace6dOpPass.h"

namespace netforge::graphrefiner {

namespace {

bool lowerTranspose(const OpPtr& op, const GraphPtr& graph, const PermutedDims& lowered) {
  if (lowered.input.size() > kRankLimit) return false;
  replaceWordsAttribute(op, "perm", lowered.order);
  reshapeAround(graph, op, {lowered.input}, lowered.output());
  return true;
}

std::uint32_t placeOf(const Permutation& order, std::uint32_t axis) {
  return static_cast<std::uint32_t>(std::find(order.begin(), order.end(), axis) - order.begin());
}

// The order with two entries exchanged so that axes 0 and 1, or else 1 and 2, stand side by side.
Permutation withNeighbours(const Permutation& order) {
  Permutation changed = order;
  for (std::uint32_t axis = 0; axis < 2; ++axis) {
    const std::uint32_t place = placeOf(changed, axis);
    if (place + 2 > changed.size()) continue;
    std::swap(changed[place + 1], changed[placeOf(changed, axis + 1)]);
    break;
  }
  return changed;
}

}  // namespace

bool Replace6dOpPass::handleTransposeOp(OpPtr& op, GraphPtr& graph) {
  if (!needsLowering(op)) return false;
  cloneSharedStaticInputs(op, graph);
  if (!mergeAdjacentTransposeAxes(op, graph) && !dropUnitTransposeAxes(op, graph) &&
      !splitTranspose(op, graph)) {
    refuseMerged("handleTransposeOp", op, "Transpose");
  }
  return true;
}

bool Replace6dOpPass::mergeAdjacentTransposeAxes(const OpPtr& op, const GraphPtr& graph) {
  return lowerTranspose(op, graph, mergeAdjacentAxes({op->getInput(0)->getDims(), getTransposePerm(op)}));
}

bool Replace6dOpPass::dropUnitTransposeAxes(const OpPtr& op, const GraphPtr& graph) {
  const TensorPtr input = op->getInput(0);
  const TensorPtr output = op->getOutput(0);
  const Permutation order = getTransposePerm(op);
  if (order.size() != input->getRank() || order.size() != output->getRank()) return false;
  if (!output->getShape().hasUnitDim()) return false;
  const PermutedDims rest = dropUnitAxes({input->getDims(), order});
  if (!rest.input.empty()) return lowerTranspose(op, graph, rest);
  if (!canSquash(graph, op, input, false)) return lowerTranspose(op, graph, {{1}, {0}});
  graph->squash(op, input->getName(), false, false);
  return true;
}

bool Replace6dOpPass::splitTranspose(const OpPtr& op, const GraphPtr& graph) {
  const TensorPtr input = op->getInput(0);
  if (input->getRank() > kRankLimit + 1) return false;
  const Permutation order = getTransposePerm(op);
  const Permutation second = withNeighbours(order);
  const Permutation first = composePermutations(order, getInversePermutation(second));

  const OpPtr front = makeTranspose(op->getName() + "_first_transpose", first);
  auto attributes = *op->getAttributes();
  attributes.add("perm", front->getAttributes()->getStaticTensor("perm"), ATTR_ORDINARY);
  if (!attributes.hasAttr("packageName")) {
    attributes.add("packageName", front->getAttributes()->getAttr<std::string>("packageName"),
                   ATTR_SUPPLEMENTAL);
  }
  *front->getAttributes() = attributes;
  const auto sources =
      graph->collectTraceSources({{TraceKind::Op, op->getName()}, {TraceKind::Tensor, input->getName()}});
  injectFor(graph, front, input, {op->getName()}, sources);
  replaceWordsAttribute(op, "perm", second);
  return true;
}

}  // namespace netforge::graphrefiner
