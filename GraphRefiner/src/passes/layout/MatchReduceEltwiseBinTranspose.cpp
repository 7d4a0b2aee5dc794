#include "GraphRefiner/src/passes/layout/MatchReduceEltwiseBinTranspose.h"

#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

namespace {

// Whether the Transpose in front of this operand goes when the other one gets the outer Transpose's order.
bool isUndone(const GraphPtr& graph, const TensorPtr& side, const TensorPtr& other, const Permutation& perm) {
  const OpPtr inner = side->getProducer();
  if (!inner || inner->getType() != "Transpose" || !inner->getAttributes()->hasAttr("perm")) return false;
  if (getTransposePerm(inner) != getInversePermutation(perm)) return false;
  if (side->getConsumers().size() != 1 || other->getRank() != perm.size()) return false;
  if (!dimsEqualAt(other, perm.back(), side, perm.back())) return false;
  const TensorPtr source = inner->getInput(0);
  if (!canSquash(graph, inner, source, true) || isGraphOutput(side)) return false;
  return other == side || (other != source && canInsertOrReuseTranspose(graph, other, perm));
}

}  // namespace

MatchReduceEltwiseBinTranspose::MatchReduceEltwiseBinTranspose() {
  innerPattern = makeOpType("Transpose");
  eltwisePattern = makeCommutativeOp("Eltwise_Binary", innerPattern, makeWildCard());
  rootPattern = makeOp("Transpose", eltwisePattern);
  pattern = rootPattern;
}

bool MatchReduceEltwiseBinTranspose::rewriteCallback(std::shared_ptr<IrGraph>& graph,
                                                     MatchedOps& matchedOps) {
  const auto root = matchedOps.at(rootPattern);
  const auto eltwise = matchedOps.at(eltwisePattern);
  const auto out = eltwise->getOutput(0);
  if (out->getConsumers().size() != 1 || *out->getConsumers().begin() != root || isGraphOutput(out))
    return false;
  const Permutation perm = getTransposePerm(root);
  if (perm.empty() || eltwise->numInputs() != 2 || !canSquash(graph, root, out, false)) return false;
  std::uint32_t side = 0;
  while (side < 2 && !isUndone(graph, eltwise->getInput(side), eltwise->getInput(1 - side), perm)) ++side;
  if (side == 2) return false;
  const auto inner = eltwise->getInput(side)->getProducer();
  const bool bothSides = eltwise->getInput(0) == eltwise->getInput(1);

  // ---- edits ----
  graph->squash(inner, inner->getInput(0)->getName(), true, true);
  graph->squash(root, out->getName(), false, true);
  if (!bothSides) insertOrReuseTranspose(graph, eltwise, 1 - side, perm);
  return true;
}

std::shared_ptr<Pass> buildReduceEltwiseBinTranspose() {
  return makeSequencePass<MatchReduceEltwiseBinTranspose>();
}
[[maybe_unused]] static const bool registeredReduceEltwiseBinTranspose =
    PassManager::registerPass(PassId::ReduceEltwiseBinTranspose);

}  // namespace netforge::graphrefiner
