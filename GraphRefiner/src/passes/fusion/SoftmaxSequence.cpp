#include "GraphRefiner/src/passes/fusion/SoftmaxSequence.h"

#include <algorithm>
#include <optional>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/OperationCodes.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

namespace {

bool hasQuantization(const TensorPtr& tensor) {
  return tensor->isQuantized() || tensor->getQuantInfo().isOverridden;
}

}  // namespace

MatchSoftmaxSequence::MatchSoftmaxSequence() {
  const auto isProduct = makeAttr("operation", kMultiply);
  scalePattern = makeAlt(withAttr(makeOp("Eltwise_Binary", makeConstant()), isProduct),
                         withAttr(makeOp("Eltwise_Binary", makeWildCard(), makeConstant()), isProduct));
  softmaxPattern = makeOp("Softmax", scalePattern);
  pattern = softmaxPattern;
}

bool MatchSoftmaxSequence::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const auto softmax = matchedOps.at(softmaxPattern);
  const auto product = matchedOps.at(scalePattern);
  const TensorPtr output = product->getOutput(0);
  const auto operands = product->getInputs();
  if (operands.size() != 2 || hasQuantization(output) ||
      std::any_of(operands.begin(), operands.end(), hasQuantization)) {
    return false;
  }
  std::optional<float> factor = findConstScalar(operands[0]);
  const std::size_t place = factor && *factor > 0.0f ? 0 : 1;
  if (place == 1) factor = findConstScalar(operands[1]);
  if (!factor || !(*factor > 0.0f)) return false;
  const TensorPtr scale = operands[place];
  const TensorPtr data = operands[1 - place];
  if (data == scale || data->getShape() != output->getShape()) return false;
  if (isGraphOutput(output) || !canSquash(graph, product, data, true)) return false;
  const auto& attributes = softmax->getAttributes();
  const float beta = attributes->hasAttr("beta") ? attributes->getAttr<float>("beta") : 1.0f;

  // ---- edits ----
  graph->removeOpAsConsumer(product, scale);
  graph->squash(product, data->getName(), true, false);
  attributes->add("beta", beta * *factor, ATTR_ORDINARY);
  return true;
}

std::shared_ptr<Pass> buildFoldSoftmax() {
  return makeSequencePass<MatchSoftmaxSequence>();
}
[[maybe_unused]] static const bool registeredFoldSoftmax = PassManager::registerPass(PassId::FoldSoftmax);

}  // namespace netforge::graphrefiner
