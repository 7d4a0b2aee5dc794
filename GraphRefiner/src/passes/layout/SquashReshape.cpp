#include "GraphRefiner/src/passes/layout/SquashReshape.h"

#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

squashReshape::squashReshape() {
  rootPattern = makeOp("Reshape", makeConstant());
  pattern = rootPattern;
}

bool squashReshape::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const auto op = matchedOps.at(rootPattern);
  const auto constant = std::dynamic_pointer_cast<IrStaticTensor>(op->getInput(0));
  const auto output = op->getOutput(0);
  if (constant->getConsumers().size() > 1) return false;
  if (isGraphOutput(output)) return false;
  if (feedsLstmInitialState(op)) return false;
  if (graph->hasTensor(constant->getName() + "_tensorOut_0")) return false;

  // ---- edits ----
  const StaticTensorPtr reshaped = reshapeStaticTensor(constant, output->getDims(), "");
  // The application goes on reading the old constant, if it did.
  if (isGraphOutput(reshaped)) reshaped->setTensorType(TensorType::Static);
  reshaped->setExplicitPermuteOrder(output->getPermuteOrder());
  graph->addTensor(reshaped);
  replaceAllUsers(graph, reshaped, output, false);
  return true;
}

#define NETFORGE_SQUASH_RESHAPE(name)         \
  std::shared_ptr<Pass> build##name() {       \
    return makeSequencePass<squashReshape>(); \
  }                                           \
  [[maybe_unused]] static const bool registered##name = PassManager::registerPass(PassId::name);

NETFORGE_SQUASH_RESHAPE(SquashReshapeInstance1)
NETFORGE_SQUASH_RESHAPE(SquashReshapeInstance2)

#undef NETFORGE_SQUASH_RESHAPE

}  // namespace netforge::graphrefiner
