#include "GraphRefiner/src/passes/expansion/ExpandThresholdedRelu.h"

#include "GraphRefiner/src/OperationCodes.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/passes/expansion/OpExpansion.h"

namespace netforge::graphrefiner {

ExpandThresholdedReluRule::ExpandThresholdedReluRule() {
  thresholdedReluPattern = makeOpType("ThresholdedRelu");
  pattern = thresholdedReluPattern;
}

bool ExpandThresholdedReluRule::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const auto op = matchedOps.at(thresholdedReluPattern);
  if (op->numInputs() == 0 || op->numOutputs() == 0) return false;
  const auto input = op->getInput(0);
  const auto output = op->getOutput(0);
  const std::string alphaName = op->getName() + "_alpha";
  const std::string zerosName = op->getName() + "_zeros";
  const std::string comparisonName = input->getName() + "_gt_" + alphaName;
  const std::string selectName = "ternary_" + op->getName();
  const std::string resultName = selectName + "_out";
  if (!OpExpansion::areFree(graph, {alphaName, zerosName, comparisonName, selectName, resultName})) {
    return false;
  }
  const auto alpha = op->getAttributes()->getAttr<float>("alpha");

  // ---- edits ----
  OpExpansion expansion(graph, op);
  const auto threshold = expansion.addConstant(alphaName, {1}, {alpha});
  const auto condition = std::make_shared<IrTensor>(
      comparisonName, input->getDims(), ORLO_DATATYPE_BOOL_8, ORLO_DATATYPE_BOOL_8, false, QuantInfo(),
      input->getAxisFormat(), input->getSrcAxisFormat(), TensorType::Native, std::vector<std::uint32_t>());
  condition->setShape(input->getShape());
  expansion.addOp("Eltwise_Binary", comparisonName, {{"operation", kGreater}}, {input, threshold}, condition);
  const auto zeros = expansion.addConstant(zerosName, {1}, {0.0f});
  const auto result = OpExpansion::tensorLike(resultName, output->getShape(), *output);
  expansion.addOp("Eltwise_Ternary", selectName, {{"eltwise_type", "ElementWiseSelect"}},
                  {condition, input, zeros}, result);
  expansion.replaceOutput(result);
  return true;
}

std::shared_ptr<Pass> buildExpandThresholdedRelu() {
  return makeSequencePass<ExpandThresholdedReluRule>();
}
[[maybe_unused]] static const bool registeredExpandThresholdedRelu =
    PassManager::registerPass(PassId::ExpandThresholdedRelu);

}  // namespace netforge::graphrefiner
