#include "GraphRefiner/src/passes/layout/SquashConstantInput.h"

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>
#include "GraphRefiner/src/OperationCodes.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RawData.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

namespace {

using ReadAsFloat = float (*)(const std::uint8_t* data, std::uint64_t index);

template <class T>
float readAs(const std::uint8_t* data, std::uint64_t index) {
  return static_cast<float>(loadElement<T>(data, index));
}

float readHalf(const std::uint8_t* data, std::uint64_t index) {
  return halfToFloat(loadElement<std::uint16_t>(data, index));
}

struct ElementReader {
  std::uint32_t width = 0;  // bytes; 0 for types that are not read
  ReadAsFloat read = nullptr;
};

ElementReader elementReader(DataType type) {
  switch (type) {
    case ORLO_DATATYPE_INT_8:
      return {1, readAs<std::int8_t>};
    case ORLO_DATATYPE_UINT_8:
      return {1, readAs<std::uint8_t>};
    case ORLO_DATATYPE_INT_16:
      return {2, readAs<std::int16_t>};
    case ORLO_DATATYPE_UINT_16:
      return {2, readAs<std::uint16_t>};
    case ORLO_DATATYPE_INT_32:
      return {4, readAs<std::int32_t>};
    case ORLO_DATATYPE_UINT_32:
      return {4, readAs<std::uint32_t>};
    case ORLO_DATATYPE_FLOAT_16:
      return {2, readHalf};
    case ORLO_DATATYPE_FLOAT_32:
      return {4, readAs<float>};
    default:
      return {};
  }
}

std::vector<float> computeGelu(const std::uint8_t* data, std::uint64_t count, ReadAsFloat read) {
  std::vector<float> values(count);
  for (std::uint64_t i = 0; i < count; ++i) {
    const float x = read(data, i);
    values[i] = x * 0.5f * (std::erf(x / std::sqrt(2.0f)) + 1.0f);
  }
  return values;
}

}  // namespace

SquashConstantInputPass::SquashConstantInputPass() {
  handlers["ElementWiseNeuron"] = &SquashConstantInputPass::handleNeuronOp;
  handlers["Transpose"] = &SquashConstantInputPass::handleTransposeOp;
}

bool SquashConstantInputPass::handleNeuronOp(std::shared_ptr<ops::IrOp>& op,
                                             std::shared_ptr<IrGraph>& graph) {
  if (op->numInputs() != 1 || op->numOutputs() != 1 || !hasOperation(op, kGelu)) return false;
  const auto constant = std::dynamic_pointer_cast<IrStaticTensor>(op->getInput(0));
  if (!constant || constant->isUpdateable() || constant->isQuantized()) return false;
  const ElementReader reader = elementReader(constant->getDataType());
  const auto output = op->getOutput(0);
  if (reader.width == 0 || constant->getDims() != output->getDims() || output->getShape().hasDynamicAxes() ||
      constant->getShape().hasDynamicAxes()) {
    return false;
  }
  const std::uint64_t count = constant->elements();
  if (constant->getDataSize() != count * reader.width) return false;
  const std::string name = joinNameParts(op->getName(), constant->getName(), "", "");
  if (graph->hasTensor(name)) return false;

  // ---- edits ----
  const auto values = computeGelu(constant->getData(), count, reader.read);
  output->setDataType(ORLO_DATATYPE_FLOAT_32);
  const auto folded = std::make_shared<IrStaticTensor>(
      name, output->getDims(), static_cast<std::uint32_t>(count * sizeof(float)), values.data(),
      ORLO_DATATYPE_FLOAT_32, output->getSrcDataType(), output->isQuantizable(), output->getQuantInfo(),
      output->getAxisFormat(), output->getSrcAxisFormat(), false, TensorType::Static, output->isUpdateable(),
      output->getPermuteOrder(), nullptr);
  graph->addTensor(folded);
  replaceOutputByConstant(graph, op, folded, true);
  return true;
}

bool SquashConstantInputPass::handleTransposeOp(std::shared_ptr<ops::IrOp>& op,
                                                std::shared_ptr<IrGraph>& graph) {
  if (!isFoldableConstantTranspose(graph, op)) return false;
  squashConstantTranspose(op, graph, false);
  return true;
}

std::shared_ptr<Pass> buildSquashConstantInput() {
  return std::make_shared<SquashConstantInputPass>();
}
[[maybe_unused]] static const bool registeredSquashConstantInput =
    PassManager::registerPass(PassId::SquashConstantInput);

}  // namespace netforge::graphrefiner
