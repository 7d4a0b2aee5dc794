#include "GraphRefiner/src/passes/layout/OptimizeNegation.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/OperationCodes.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner {

namespace {

PatternPtr makeNegation() {
  return withAttr(makeOpType("Eltwise_Unary"), makeAttr("operation", static_cast<double>(kNegate)));
}

bool isNegation(const OpPtr& op) {
  return op && op->getType() == "Eltwise_Unary" && op->numInputs() == 1 && hasOperation(op, kNegate);
}

}  // namespace

bool isAllMinusOne(const StaticTensorPtr& tensor) {
  // The width of the elements doesn't matter to a null or empty tensor, which throws.
  switch (tensor ? tensor->getDataType() : ORLO_DATATYPE_FLOAT_32) {
    case ORLO_DATATYPE_INT_8:
      return allElementsEqualToValue(tensor, std::uint8_t{0xFF});
    case ORLO_DATATYPE_INT_16:
      return allElementsEqualToValue(tensor, std::uint16_t{0xFFFF});
    case ORLO_DATATYPE_INT_32:
      return allElementsEqualToValue(tensor, std::int32_t{-1});
    case ORLO_DATATYPE_FLOAT_16:
      return allElementsEqualToValue(tensor, std::uint16_t{0xBC00});
    case ORLO_DATATYPE_FLOAT_32:
      return allElementsEqualToValue(tensor, -1.0f);
    default:
      return false;
  }
}

OptimizeNegationMultiplyRule::OptimizeNegationMultiplyRule() {
  pattern = makeCommutativeOp("Eltwise_Binary", makeConstant(), makeWildCard(),
                              makeAttr("operation", static_cast<double>(kMultiply)));
}

bool OptimizeNegationMultiplyRule::rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) {
  const OpPtr root = matchedOps.at(pattern);
  StaticTensorPtr constant;
  TensorPtr factor;
  for (const TensorPtr& input : root->getInputs()) {
    if (const auto asConstant = std::dynamic_pointer_cast<IrStaticTensor>(input)) {
      constant = asConstant;
    } else {
      factor = input;
    }
  }
  if (!constant || constant->isUpdateable() || !factor || root->numInputs() != 2) return false;
  if (factor->getShape() != root->getOutput(0)->getShape()) return false;
  const std::string name = root->getName() + "_neg";
  if (graph->hasOp(name) || !isAllMinusOne(constant)) return false;

  // ---- edits ----
  const OpPtr negation = createOp("Eltwise_Unary", name, {{"operation", kNegate}});
  graph->removeOpAsConsumer(root, constant);
  graph->replace(root, negation);
  return true;
}

OptimizeNegationAddRule::OptimizeNegationAddRule() {
  pattern = makeCommutativeOp("Eltwise_Binary", makeNegation(), makeWildCard(),
                              makeAttr("operation", static_cast<double>(kAdd)));
}

bool OptimizeNegationAddRule::rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) {
  const OpPtr root = matchedOps.at(pattern);
  if (root->numInputs() != 2) return false;
  std::vector<OpPtr> negations;
  std::vector<std::uint32_t> indices;
  for (std::uint32_t i = 0; i < 2; ++i) {
    const TensorPtr input = root->getInput(i);
    const OpPtr producer = input->getProducer();
    if (!isNegation(producer) || input->getConsumers().size() != 1 || isGraphOutput(input)) continue;
    negations.push_back(producer);
    indices.push_back(i);
  }
  const std::string name = root->getName() + "_sub";
  if (negations.empty() || graph->hasOp(name)) return false;
  if (negations.size() == 2 && negations[0] == negations[1]) return false;
  // -a + -b keeps the first negation and takes the second away, any other sum its only one.
  const OpPtr removed = negations.back();
  const TensorPtr left = root->getInput(negations.size() == 2 ? indices[0] : 1 - indices[0]);
  const TensorPtr right = removed->getInput(0);

  // ---- edits ----
  const OpPtr difference = createOp("Eltwise_Binary", name, {{"operation", kSubtract}});
  graph->replace(root, difference);
  graph->updateTraceInfo({difference}, {removed}, {removed->getOutput(0)}, true);
  graph->prune(removed, true);
  difference->setInputs({left, right});
  right->addConsumer(difference);
  return true;
}

std::shared_ptr<Pass> buildOptimizeNegation() {
  return makeSequencePass<OptimizeNegationMultiplyRule, OptimizeNegationAddRule>();
}

[[maybe_unused]] static const bool registeredOptimizeNegation =
    PassManager::registerPass(PassId::OptimizeNegation);

}  // namespace netforge::graphrefiner
