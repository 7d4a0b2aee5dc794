#include "GraphRefiner/src/passes/fusion/FullyConnectedToHadamard.h"

#include <string>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RawData.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner {

namespace {

// A square matrix of floats in a constant, which must outlive it.
class SquareMatrix {
 public:
  SquareMatrix(const std::uint8_t* bytes, std::uint64_t side, bool half)
      : data(bytes), stride(side), isHalf(half) {}

  float at(std::uint64_t row, std::uint64_t column) const {
    const std::uint64_t index = row * stride + column;
    return isHalf ? halfToFloat(loadElement<std::uint16_t>(data, index)) : loadElement<float>(data, index);
  }

  bool hasOnesInFront() const {
    for (std::uint64_t i = 0; i < stride; ++i) {
      if (!(at(0, i) == 1.0f) || !(at(i, 0) == 1.0f)) return false;
    }
    return true;
  }

  // Whether the top left block of this side is [[B, B], [B, -B]], and B so in turn.
  bool isSylvesterBlock(std::uint64_t size) const {
    if (size == 1) return true;
    const std::uint64_t half = size / 2;
    for (std::uint64_t i = 0; i < half; ++i) {
      for (std::uint64_t j = 0; j < half; ++j) {
        const float value = at(i, j);
        if (!(value == at(i, j + half)) || !(value == at(i + half, j)) ||
            !(value == -at(i + half, j + half))) {
          return false;
        }
      }
    }
    return isSylvesterBlock(half);
  }

 private:
  const std::uint8_t* data;
  std::uint64_t stride;
  bool isHalf;
};

bool isFlagSet(const OpPtr& op, const std::string& name) {
  return op->getAttributes()->hasAttr(name) && op->getAttributes()->getAttr<bool>(name);
}

}  // namespace

bool isHadamardMatrix(const StaticTensorPtr& tensor) {
  if (!tensor || !isFloatDataType(tensor->getDataType()) || tensor->getRank() != 2) return false;
  const std::uint64_t side = tensor->getDims()[0];
  if (side != tensor->getDims()[1] || side == 0 || (side & (side - 1)) != 0) return false;
  const bool isHalf = tensor->getDataType() == ORLO_DATATYPE_FLOAT_16;
  if (tensor->getDataSize() != side * side * (isHalf ? 2 : 4)) return false;
  const SquareMatrix matrix(tensor->getData(), side, isHalf);
  return matrix.hasOnesInFront() && matrix.isSylvesterBlock(side);
}

FullyConnectedToHadamardPass::FullyConnectedToHadamardPass() {
  handlers = {{"FullyConnected", &FullyConnectedToHadamardPass::handleFullyConnected}};
}

bool FullyConnectedToHadamardPass::handleFullyConnected(OpPtr& givenOp, GraphPtr& graph) {
  const OpPtr op = givenOp;
  if (op->numInputs() != 2) return false;  // a bias would become a second input of the transform
  const auto input = op->getInput(0);
  const auto weights = std::dynamic_pointer_cast<IrStaticTensor>(op->getInput(1));
  // A flattened input counts as other rows than those that the transform works on.
  if (!weights || weights->isUpdateable() || input == weights || input->getShape().hasDynamicAxes() ||
      input->getShape() != op->getOutput(0)->getShape() || isFlagSet(op, "transpose_a")) {
    return false;
  }
  const std::string name = op->getName() + "_hadamard";
  if (graph->hasOp(name) || !isHadamardMatrix(weights)) return false;

  // ---- edits ----
  graph->removeOpAsConsumer(op, weights);
  graph->replace(op, createOp("HadamardTransform", name, {{"scale", 1.0f}}));
  return true;
}

std::shared_ptr<Pass> buildFullyConnectedToHadamard() {
  return std::make_shared<FullyConnectedToHadamardPass>();
}
[[maybe_unused]] static const bool registeredFullyConnectedToHadamard =
    PassManager::registerPass(PassId::FullyConnectedToHadamard);

}  // namespace netforge::graphrefiner
