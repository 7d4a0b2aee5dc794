#include "GraphRefiner/src/passes/expansion/recurrent/StepOutputs.h"

namespace netforge::graphrefiner {

StepOutputs::StepOutputs(const std::shared_ptr<ops::IrOp>& op, std::uint32_t outputIndex,
                         const std::string& standInName, const TensorPtr& standInModel, std::uint32_t steps)
    : model(op->numOutputs() > outputIndex ? op->getOutput(outputIndex) : standInModel),
      baseName(op->numOutputs() > outputIndex ? model->getName() : standInName),
      stepNames(numberedNames(baseName, steps)) {}

const std::string& StepOutputs::base() const {
  return baseName;
}

const std::vector<std::string>& StepOutputs::names() const {
  return stepNames;
}

std::uint32_t StepOutputs::width() const {
  return model->getDims().back();
}

TensorType StepOutputs::typeOf(std::uint32_t t, bool lastTakesOver) const {
  const bool takesOver = lastTakesOver && t + 1 == stepNames.size();
  const bool isStandIn = model->getName() != baseName;
  if (takesOver || isStandIn || baseName.find(':') == std::string::npos) return TensorType::Native;
  return model->getTensorType();
}

void StepOutputs::addTensors(ReplacementOps& ops, const std::vector<std::uint32_t>& dims,
                             bool lastTakesOver) const {
  for (std::uint32_t t = 0; t < stepNames.size(); ++t) {
    ops.addTensorLike(model, stepNames[t], dims, typeOf(t, lastTakesOver));
  }
}

}  // namespace netforge::graphrefiner
