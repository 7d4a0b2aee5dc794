#include "ops/OpInference.h"

#include "ops/OpFailure.h"

namespace netforge::ops {

DataType mapOutputDataType(DataType type) {
  return type == ORLO_DATATYPE_INT_64 ? ORLO_DATATYPE_INT_32 : type;
}

bool hasDynamicInput(const IrOp& op) {
  for (const auto& input : op.getInputs()) {
    if (input->getShape().hasDynamicAxes()) return true;
  }
  return false;
}

void refuseDynamicInputs(const IrOp& op, const char* function) {
  if (!hasDynamicInput(op)) return;
  throwInvalidArgument(function, "IrOp ", op.getName(), " of type ", op.getType(),
                       " has dynamic inputs. Use inferOutputTensorShapes instead.");
}

std::vector<std::vector<std::uint32_t>> inferDimsThroughShapes(IrOp& op,
                                                               const std::shared_ptr<AxisOrder>& axisOrder,
                                                               std::uint32_t numOutputs, const char* function,
                                                               const std::string& refusal,
                                                               const std::string& emptyText) {
  if (hasDynamicInput(op)) throwInvalidArgument(function, refusal);
  const std::vector<IrTensorShape> shapes = op.inferOutputTensorShapes(axisOrder, numOutputs);
  if (shapes.empty()) throwRuntimeError(function, emptyText);
  return {shapes.front().dims};
}

std::vector<IrTensorShape> inferFirstInputShape(const IrOp& op) {
  return {op.getInput(0)->getShape()};
}

std::vector<DataType> inferFirstInputDataType(const IrOp& op) {
  return {mapOutputDataType(op.getInput(0)->getDataType())};
}

std::uint64_t outputElements(const IrOp& op) {
  return IrOp::lastDimsProduct(op.getOutput(0)->getDims(), 3);
}

void setFirstInputDataFormat(IrOp& op, const AxisOrder& axisOrder) {
  op.setInputAxisFormat(axisOrder.getAxisFormat(op.getInput(0)->getRank(), false), 0);
}

void spreadNontrivialFormat(IrOp& op) {
  const auto first = op.getInput(0);
  const auto second = op.getInput(1);
  const bool firstCounts = first->getRank() >= second->getRank();
  const bool secondCounts = second->getRank() >= first->getRank();
  const bool applies = (firstCounts && first->getAxisFormat() == AxisFormat::NONTRIVIAL) ||
                       (secondCounts && second->getAxisFormat() == AxisFormat::NONTRIVIAL);
  if (!applies) return;
  for (std::uint32_t i = 0; i < op.numInputs(); ++i) op.setInputAxisFormat(AxisFormat::NONTRIVIAL, i);
}

std::int32_t readAxis(const IrAttributes& attributes, const std::string& name) {
  attributes.assertAttrExists(name);
  const IrAttribute& attribute = attributes.entries().at(name);
  if (attribute.attrType == ORLO_PARAMTYPE_SCALAR && attribute.dataType == ORLO_DATATYPE_UINT_32) {
    return static_cast<std::int32_t>(attributes.getAttr<std::uint32_t>(name));
  }
  return attributes.getAttr<std::int32_t>(name);
}

std::vector<std::int32_t> readInt32Values(IrStaticTensor& tensor) {
  tensor.getData();
  const std::uint64_t count = tensor.elements();
  std::vector<std::int32_t> values;
  for (std::uint64_t i = 0; i < count; ++i) values.push_back(static_cast<std::int32_t>(tensor.getElement(i)));
  return values;
}

}  // namespace netforge::ops
