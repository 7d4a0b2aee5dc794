#include "GraphRefiner/src/passes/layout/FoldMultipleReshapes.h"

#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

namespace {

bool isComputedBefore(const IrGraph& graph, const std::shared_ptr<IrTensor>& tensor,
                      const std::shared_ptr<ops::IrOp>& op) {
  const auto producer = tensor->getProducer();
  return !producer || graph.getOpIndex(producer) < graph.getOpIndex(op);
}

}  // namespace

foldMultipleReshapes::foldMultipleReshapes() {
  innerPattern = makeOpType("Reshape");
  rootPattern = makeOp("Reshape", innerPattern);
  pattern = rootPattern;
}

bool foldMultipleReshapes::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const auto inner = matchedOps.at(innerPattern);
  const auto root = matchedOps.at(rootPattern);
  const auto middle = inner->getOutput(0);
  if (middle->getConsumers().size() != 1 || isGraphOutput(middle)) return false;
  const bool takesShape = inner->numInputs() > 1 && root->numInputs() > 1;
  if (takesShape && !isComputedBefore(*graph, root->getInput(1), inner)) return false;

  // ---- edits ----
  if (takesShape) {
    const auto shape = root->getInput(1);
    const auto oldShape = inner->getInput(1);
    shape->addConsumer(inner);
    inner->setInput(shape, 1);
    if (inner->getInputSet().count(oldShape) == 0) {
      oldShape->removeConsumer(inner);
      removeDeadProducer(graph, oldShape);
    }
  }
  dropComputedInputs(graph, root);
  graph->squash(root, middle->getName(), false, true);
  return true;
}

#define NETFORGE_FOLD_RESHAPES(name)                 \
  std::shared_ptr<Pass> build##name() {              \
    return makeSequencePass<foldMultipleReshapes>(); \
  }                                                  \
  [[maybe_unused]] static const bool registered##name = PassManager::registerPass(PassId::name);

NETFORGE_FOLD_RESHAPES(FoldReshapesInstance1)
NETFORGE_FOLD_RESHAPES(FoldReshapesInstance2)
NETFORGE_FOLD_RESHAPES(FoldReshapesInstance3)
NETFORGE_FOLD_RESHAPES(FoldReshapesInstance4)

#undef NETFORGE_FOLD_RESHAPES

}  // namespace netforge::graphrefiner
