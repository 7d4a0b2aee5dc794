#include "GraphRefiner/src/passes/fusion/FoldHadamardWithMul.h"

#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/OperationCodes.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

namespace {

PatternPtr productOf(const PatternPtr& a, const PatternPtr& b) {
  return withAttr(makeOp("Eltwise_Binary", a, b), makeAttr("operation", kMultiply));
}

bool isOverridden(const TensorPtr& tensor) {
  return tensor->getQuantInfo().isOverridden;
}

}  // namespace

FoldHadamardWithMulPass::FoldHadamardWithMulPass() {
  const PatternPtr transform = makeOpType("HadamardTransform");
  const PatternPtr reshape = makeOp("Reshape", transform);
  const PatternPtr constant = makeConstant();
  pattern = makeAlt(makeAlt(productOf(transform, constant), productOf(constant, transform)),
                    makeAlt(productOf(reshape, constant), productOf(constant, reshape)));
}

bool FoldHadamardWithMulPass::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const OpPtr product = matchedOps.at(pattern);
  if (product->numInputs() != 2) return false;
  const std::uint32_t place = product->getInput(1)->isStatic() ? 1 : 0;
  const TensorPtr constant = product->getInput(place);
  const TensorPtr operand = product->getInput(1 - place);
  const OpPtr producer = operand->getProducer();
  if (!producer) return false;
  const OpPtr transform = producer->getType() == "Reshape" ? producer->getInput(0)->getProducer() : producer;
  if (!transform || transform->getType() != "HadamardTransform") return false;
  if (isOverridden(transform->getOutput(0)) || isOverridden(constant) || isOverridden(operand)) return false;
  const auto factor = findConstScalar(constant);
  if (!factor || operand->getShape() != product->getOutput(0)->getShape()) return false;
  if (hasInteriorGraphOutput(matchedOps, product) || !canSquash(graph, product, operand, false)) return false;
  const auto& attributes = transform->getAttributes();
  const float scale = attributes->hasAttr("scale") ? attributes->getAttr<float>("scale") : 1.0f;

  // ---- edits ----
  attributes->add("scale", scale * *factor, ATTR_ORDINARY);
  graph->squash(product, operand->getName(), false, false);
  return true;
}

std::shared_ptr<Pass> buildFoldHadamardWithMul() {
  return makeSequencePass<FoldHadamardWithMulPass>();
}
[[maybe_unused]] static const bool registeredFoldHadamardWithMul =
    PassManager::registerPass(PassId::FoldHadamardWithMul);

}  // namespace netforge::graphrefiner
