#include "GraphRefiner/src/passes/layout/FlattenPReluAlpha.h"

#include <cstdint>
#include <string>
#include <vector>
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RawData.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"
#include "metadata/Transforms.h"

namespace netforge::graphrefiner {

namespace {

template <class T>
bool isUniform(const std::uint8_t* data, std::uint64_t count) {
  const T first = loadElement<T>(data, 0);
  for (std::uint64_t i = 0; i < count; ++i) {
    if (!(loadElement<T>(data, i) == first)) return false;  // so that a single NaN fails too
  }
  return true;
}

struct ElementKind {
  std::uint32_t width = 0;  // bytes; 0 for types that are not compared
  bool (*isUniform)(const std::uint8_t* data, std::uint64_t count) = nullptr;
};

ElementKind elementKind(DataType type) {
  switch (type) {
    case ORLO_DATATYPE_INT_8:
      return {1, isUniform<std::uint8_t>};
    case ORLO_DATATYPE_INT_16:
    case ORLO_DATATYPE_FLOAT_16:
      return {2, isUniform<std::uint16_t>};
    case ORLO_DATATYPE_INT_32:
      return {4, isUniform<std::uint32_t>};
    case ORLO_DATATYPE_FLOAT_32:
      return {4, isUniform<float>};
    default:
      return {};
  }
}

// The first element, as a tensor of one. It shares the record of transforms, which gets this step.
StaticTensorPtr makeFirstElement(const StaticTensorPtr& tensor, std::uint32_t width) {
  const std::vector<std::uint32_t> dims{1};
  const auto manager = tensor->getOrCreateTransformManager();
  manager->addTransform(std::make_shared<ReshapeTransform>(dims));
  return std::make_shared<IrStaticTensor>(
      tensor->getName(), dims, width, tensor->getData(), tensor->getDataType(), tensor->getSrcDataType(),
      tensor->isQuantizable(), tensor->getQuantInfo(), tensor->getAxisFormat(), tensor->getSrcAxisFormat(),
      false, tensor->getTensorType(), tensor->isUpdateable(), tensor->getPermuteOrder(), manager);
}

}  // namespace

FlattenPReluAlphaPass::FlattenPReluAlphaPass() {
  handlers["Prelu"] = &FlattenPReluAlphaPass::handlePreluOp;
}

bool FlattenPReluAlphaPass::handlePreluOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph) {
  if (op->numInputs() < 2) return false;
  const auto alpha = std::dynamic_pointer_cast<IrStaticTensor>(op->getInput(1));
  if (!alpha || alpha->isUpdateable() || alpha->getDims() == std::vector<std::uint32_t>{1}) return false;
  if (alpha->getConsumers().size() != 1 || op->getInput(0) == alpha || isGraphOutput(alpha)) return false;
  const ElementKind kind = elementKind(alpha->getDataType());
  const std::uint64_t count = alpha->elements();
  if (kind.width == 0 || count == 0 || alpha->getDataSize() != count * kind.width) return false;
  if (!kind.isUniform(alpha->getData(), count)) return false;

  // ---- edits ----
  const StaticTensorPtr single = makeFirstElement(alpha, kind.width);
  graph->transferConsumers(alpha, single, {op});
  graph->removeTensor(alpha->getName());
  graph->addTensor(single);
  return true;
}

std::shared_ptr<Pass> buildFlattenPReluAlpha() {
  return std::make_shared<FlattenPReluAlphaPass>();
}
[[maybe_unused]] static const bool registeredFlattenPReluAlpha =
    PassManager::registerPass(PassId::FlattenPReluAlpha);

}  // namespace netforge::graphrefiner
