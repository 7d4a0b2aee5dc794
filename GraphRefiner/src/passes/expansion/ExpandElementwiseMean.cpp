#include "GraphRefiner/src/passes/expansion/ExpandElementwiseMean.h"

#include <stdexcept>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/OperationCodes.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/passes/expansion/OpExpansion.h"
#include "ops/Broadcast.h"

namespace netforge::graphrefiner {

namespace {

bool expandToIdentity(const GraphPtr& graph, const OpPtr& op) {
  const auto input = op->getInput(0);
  const auto output = op->getOutput(0);
  const std::string reshapeName = op->getName() + "_identity_reshape";
  const std::string resultName = op->getName() + "_identity_out";
  if (!OpExpansion::areFree(graph, {reshapeName, resultName})) return false;

  // ---- edits ----
  OpExpansion expansion(graph, op);
  const auto result = OpExpansion::tensorLike(resultName, output->getShape(), *output);
  expansion.addOp("Reshape", reshapeName, {{"shape", input->getDims()}}, {input}, result);
  expansion.replaceOutput(result);
  return true;
}

// The shape behind each input; none when some don't broadcast, say an axis of unknown size with a known one.
std::vector<IrTensorShape> sumShapes(const ops::IrOp::TensorList& inputs) {
  std::vector<IrTensorShape> shapes = {inputs[0]->getShape()};
  try {
    for (std::size_t i = 1; i < inputs.size(); ++i) {
      shapes.push_back(ops::getBroadcastedTensorShape(shapes.back(), inputs[i]->getShape()));
    }
  } catch (const std::invalid_argument&) {
    return {};
  }
  return shapes;
}

bool expandToSums(const GraphPtr& graph, const OpPtr& op) {
  const std::string& name = op->getName();
  const auto inputs = op->getInputs();
  const auto output = op->getOutput(0);
  const std::vector<IrTensorShape> shapes = sumShapes(inputs);
  if (shapes.empty()) return false;
  const std::string countName = name + "_div_const";
  const std::string divisionName = name + "_div_op";
  const std::string resultName = name + "_div_out";
  std::vector<std::string> names = {countName, divisionName, resultName};
  for (std::size_t i = 1; i < inputs.size(); ++i) {
    names.push_back(name + "_add_" + std::to_string(i));
    names.push_back(name + "_add_op_" + std::to_string(i));
  }
  if (!OpExpansion::areFree(graph, names)) return false;

  // ---- edits ----
  OpExpansion expansion(graph, op);
  auto sum = inputs[0];
  for (std::size_t i = 1; i < inputs.size(); ++i) {
    const std::string number = std::to_string(i);
    const auto next = OpExpansion::tensorLike(name + "_add_" + number, shapes[i], *sum);
    sum = expansion.addOp("Eltwise_Binary", name + "_add_op_" + number, {{"operation", kAdd}},
                          {sum, inputs[i]}, next);
  }
  const auto count = expansion.addConstant(countName, {1}, {static_cast<float>(inputs.size())});
  const auto result = OpExpansion::tensorLike(resultName, output->getShape(), *output);
  expansion.addOp("Eltwise_Binary", divisionName, {{"operation", kDivide}}, {sum, count}, result);
  expansion.replaceOutput(result);
  return true;
}

}  // namespace

ExpandElementwiseMeanRule::ExpandElementwiseMeanRule() {
  meanPattern = makeOpType("Mean");
  pattern = meanPattern;
}

bool ExpandElementwiseMeanRule::rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) {
  const OpPtr op = matchedOps.at(meanPattern);
  if (op->numInputs() == 0 || op->numOutputs() == 0) return false;
  return op->numInputs() == 1 ? expandToIdentity(graph, op) : expandToSums(graph, op);
}

std::shared_ptr<Pass> buildExpandElementwiseMean() {
  return makeSequencePass<ExpandElementwiseMeanRule>();
}
[[maybe_unused]] static const bool registeredExpandElementwiseMean =
    PassManager::registerPass(PassId::ExpandElementwiseMean);

}  // namespace netforge::graphrefiner
