#include "GraphRefiner/src/passes/layout/SquashCast.h"

#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

bool squashCast(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<ops::IrOp>& op, bool force) {
  if (op->numInputs() == 0 || op->numOutputs() == 0) return false;
  const auto input = op->getInput(0);
  if (!force && input->getDataType() != op->getOutput(0)->getDataType()) return false;
  if (!canSquash(graph, op, input, false)) return false;

  // ---- edits ----
  graph->squash(op, input->getName(), false, true);
  return true;
}

SquashCastPass::SquashCastPass() {
  rootPattern = makeOpType("Cast");
  pattern = rootPattern;
}

bool SquashCastPass::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  return squashCast(graph, matchedOps.at(rootPattern), false);
}

ForcePruneCastPass::ForcePruneCastPass() {
  rootPattern = makeOpType("Cast");
  pattern = rootPattern;
}

bool ForcePruneCastPass::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  return squashCast(graph, matchedOps.at(rootPattern), true);
}

std::shared_ptr<Pass> buildRemoveCastIdentity() {
  return makeSequencePass<SquashCastPass>();
}

std::shared_ptr<Pass> buildForcePruneCast() {
  return makeSequencePass<ForcePruneCastPass>();
}

[[maybe_unused]] static const bool registeredRemoveCastIdentity =
    PassManager::registerPass(PassId::RemoveCastIdentity);
[[maybe_unused]] static const bool registeredForcePruneCast =
    PassManager::registerPass(PassId::ForcePruneCast);

}  // namespace netforge::graphrefiner
