#include "GraphRefiner/src/passes/layout/SquashMultipleTransposes.h"

#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

squashMultipleTransposes::squashMultipleTransposes() {
  firstPattern = makeOpType("Transpose");
  rootPattern = makeOp("Transpose", firstPattern);
  pattern = rootPattern;
}

bool squashMultipleTransposes::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const auto first = matchedOps.at(firstPattern);
  const auto root = matchedOps.at(rootPattern);
  const auto input = first->getInput(0);
  const auto middle = first->getOutput(0);
  if (middle->getConsumers().size() != 1 || isGraphOutput(middle)) return false;
  const Permutation perm = composePermutations(getTransposePerm(first), getTransposePerm(root));
  // As it will stand once `first` writes the root's output.
  const bool vanishes =
      isIdentityPermutation(perm) && canMergeTensors(graph, input, root->getOutput(0), false);

  // ---- edits ----
  if (!vanishes) replaceWordsAttribute(first, "perm", perm);
  graph->squash(root, middle->getName(), false, true);
  if (vanishes) graph->squash(first, input->getName(), false, true);
  return true;
}

std::shared_ptr<Pass> buildSquashMultiplePermute() {
  return makeSequencePass<squashMultipleTransposes>();
}
[[maybe_unused]] static const bool registeredSquashMultiplePermute =
    PassManager::registerPass(PassId::SquashMultiplePermute);

}  // namespace netforge::graphrefiner
