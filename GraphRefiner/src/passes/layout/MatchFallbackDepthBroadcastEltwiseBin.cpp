#include "GraphRefiner/src/passes/layout/MatchFallbackDepthBroadcastEltwiseBin.h"

#include <algorithm>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

MatchFallbackDepthBroadcastEltwiseBin::MatchFallbackDepthBroadcastEltwiseBin() {
  const auto product = makeAttr("operation", 13.0);
  innerPattern = withAttr(makeOpType("Eltwise_Binary"), product);
  outerPattern = withAttr(makeOp("Eltwise_Binary", innerPattern), product);
  rootPattern = makeOp("Reshape", outerPattern);
  pattern = rootPattern;
}

bool MatchFallbackDepthBroadcastEltwiseBin::rewriteCallback(std::shared_ptr<IrGraph>& graph,
                                                            MatchedOps& matchedOps) {
  const OpPtr outer = matchedOps.at(outerPattern);
  const TensorPtr out = outer->getOutput(0);
  const auto& readers = out->getConsumers();
  const auto isReshape = [](const OpPtr& reader) { return reader->getType() == "Reshape"; };
  if (readers.empty() || !std::all_of(readers.begin(), readers.end(), isReshape)) return false;
  if (outer->numInputs() != 2 || hasInteriorGraphOutput(matchedOps, matchedOps.at(rootPattern))) return false;
  const TensorPtr left = outer->getInput(0);
  const TensorPtr right = outer->getInput(1);
  if (!right->getProducer() || right->getProducer()->getType() != "Transpose") return false;
  if (left->getRank() != 3 || right->getRank() != 3 || out->getRank() != 3) return false;
  if (dimsEqualAt(left, 2, right, 2) || !dimsEqualAt(left, 1, right, 1)) return false;
  const Permutation order{0, 2, 1};
  if (!canInsertOrReuseTranspose(graph, left, order) || !canInsertOrReuseTranspose(graph, right, order))
    return false;
  if (inspectTransposeName(graph, out, order, "") != TransposeName::Free) return false;

  // ---- edits ----
  insertOrReuseTranspose(graph, outer, 0, order);
  insertOrReuseTranspose(graph, outer, 1, order);
  out->setShape(IrTensorShape(out->getDims()).permute(order));
  injectTranspose(graph, out->getName(), order, {}, "", false);
  return true;
}

std::shared_ptr<Pass> buildFallbackDepthBroadcastEltwiseBin() {
  return makeSequencePass<MatchFallbackDepthBroadcastEltwiseBin>();
}
[[maybe_unused]] static const bool registeredFallbackDepthBroadcastEltwiseBin =
    PassManager::registerPass(PassId::FallbackDepthBroadcastEltwiseBin);

}  // namespace netforge::graphrefiner
