#include "GraphRefiner/src/passes/layout/MatchTransposeReshapeSequence.h"

#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

MatchTransposeReshapeSequence::MatchTransposeReshapeSequence() {
  transposeFirstPattern = makeOp("Transpose", makeWildCard());
  reshapeSecondPattern = makeOp("Reshape", transposeFirstPattern);
  reshapeFirstPattern = makeOp("Reshape", makeWildCard());
  transposeSecondPattern = makeOp("Transpose", reshapeFirstPattern);
  rootPattern = makeAlt(transposeSecondPattern, reshapeSecondPattern);
  pattern = rootPattern;
}

bool MatchTransposeReshapeSequence::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const auto second = matchedOps.at(rootPattern);
  const auto first =
      matchedOps.at(second->getType() == "Reshape" ? transposeFirstPattern : reshapeFirstPattern);
  const auto input = first->getInput(0);
  const auto middle = first->getOutput(0);
  const auto output = second->getOutput(0);
  if (!hasSameDims(input, output) || !hasAtMostOneNonUnitDim(input)) return false;
  if (input->getShape().hasDynamicAxes() || output->getShape().hasDynamicAxes()) return false;
  if (isGraphOutput(middle)) return false;
  if (!canSquash(graph, second, middle, false)) return false;
  // As it will stand once `first` writes the output.
  if (!canMergeTensors(graph, input, output, false)) return false;

  // ---- edits ----
  dropComputedInputs(graph, second);
  dropComputedInputs(graph, first);
  graph->squash(second, middle->getName(), false, false);
  graph->squash(first, input->getName(), false, false);
  return true;
}

std::shared_ptr<Pass> buildOptimizeTransposeReshape() {
  return makeSequencePass<MatchTransposeReshapeSequence>();
}
[[maybe_unused]] static const bool registeredOptimizeTransposeReshape =
    PassManager::registerPass(PassId::OptimizeTransposeReshape);

}  // namespace netforge::graphrefiner
