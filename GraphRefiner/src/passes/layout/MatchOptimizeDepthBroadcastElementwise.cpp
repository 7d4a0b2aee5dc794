#include "GraphRefiner/src/passes/layout/MatchOptimizeDepthBroadcastElementwise.h"

#include <algorithm>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

using Dims = std::vector<std::uint32_t>;

namespace {

// Sum, quotient, product, difference.
bool isArithmetic(const OpPtr& op) {
  const auto operation = op->getAttributes()->getAttr<std::uint32_t>("operation");
  return operation == 0 || operation == 2 || operation == 13 || operation == 18;
}

bool onlyPutsOnesInFront(const TensorPtr& input, const TensorPtr& output) {
  return input->getRank() >= 1 && input->getRank() < output->getRank() &&
         output->getDims() == IrTensorShape::padDimsToRank(input->getDims(), output->getRank());
}

// Whether the names that Transposes behind `out` need are free.
bool hasRoomBehind(const GraphPtr& graph, const TensorPtr& out, const std::string& base,
                   const Permutation& perm, const Permutation& inverse) {
  if (!isFreeName(graph, base + "_" + permToString(perm))) return false;
  return !isGraphOutput(out) ||
         (isFreeName(graph, base + "_" + permToString(inverse)) && isFreeName(graph, base + "_"));
}

}  // namespace

MatchOptimizeDepthBroadcastElementwise::MatchOptimizeDepthBroadcastElementwise() {
  reshapePattern = makeOpType("Reshape");
  transposePattern = makeOp("Transpose", reshapePattern);
  rootPattern = makeCommutativeOp("Eltwise_Binary", transposePattern, makeWildCard());
  pattern = rootPattern;
}

bool MatchOptimizeDepthBroadcastElementwise::rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) {
  const OpPtr root = matchedOps.at(rootPattern);
  const OpPtr transpose = matchedOps.at(transposePattern);
  const OpPtr reshape = matchedOps.at(reshapePattern);
  if (root->numInputs() != 2 || !isArithmetic(root)) return false;
  const TensorPtr x = reshape->getInput(0);
  const TensorPtr expanded = reshape->getOutput(0);
  const TensorPtr out = root->getOutput(0);
  if (expanded->getConsumers().size() != 1 || transpose->getOutput(0)->getConsumers().size() != 1) {
    return false;
  }
  if (hasInteriorGraphOutput(matchedOps, root)) return false;
  const std::uint32_t index = root->getInput(0)->getProducer() == transpose ? 1 : 0;
  const TensorPtr t = root->getInput(1 - index);
  const TensorPtr y = root->getInput(index);
  const Permutation perm = getTransposePerm(transpose);
  const Permutation inverse = getInversePermutation(perm);
  const auto rank = static_cast<std::uint32_t>(perm.size());
  if (y->getRank() != rank || t->getRank() != rank || out->getRank() != rank) return false;
  if (!onlyPutsOnesInFront(x, expanded)) return false;
  const std::uint32_t moved = inverse.back();
  if (dimsEqualAt(t, rank - 1, y, rank - 1) || !dimsEqualAt(t, moved, y, moved)) return false;
  const std::string base = out->getName() + "_post_transpose";
  if (!canInsertOrReuseTranspose(graph, y, inverse) || !hasRoomBehind(graph, out, base, perm, inverse))
    return false;
  if (!canSquash(graph, reshape, x, true)) return false;

  // ---- edits ----
  insertOrReuseTranspose(graph, root, index, inverse);
  dropComputedInputs(graph, reshape);
  graph->squash(reshape, x->getName(), true, true);
  graph->squash(transpose, x->getName(), true, true);
  out->setShape(IrTensorShape(IrTensorShape(out->getDims()).permute(inverse)));
  const TensorPtr left = root->getInput(0);
  const TensorPtr right = root->getInput(1);
  const bool isLeftHigher = left->getRank() > right->getRank();
  out->setExplicitPermuteOrder((isLeftHigher ? left : right)->getPermuteOrder());
  // Only a graph output hands its name on.
  injectTranspose(graph, out->getName(), perm, {}, base, true);
  return true;
}

std::shared_ptr<Pass> buildOptimizeDepthBroadcastElementwise() {
  return makeSequencePass<MatchOptimizeDepthBroadcastElementwise>();
}
[[maybe_unused]] static const bool registeredOptimizeDepthBroadcastElementwise =
    PassManager::registerPass(PassId::OptimizeDepthBroadcastElementwise);

}  // namespace netforge::graphrefiner
