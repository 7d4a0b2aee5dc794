#include "ops/NormalizationOps.h"

#include "ops/OpDefaults.h"
#include "ops/OpFailure.h"
#include "ops/OpInference.h"

namespace netforge::ops {

using Dims = std::vector<std::uint32_t>;

// Batchnorm

BatchnormOp::BatchnormOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Batchnorm", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(BatchnormOp)

std::uint64_t BatchnormOp::macs(const std::shared_ptr<AxisOrder>&) {
  const std::uint32_t rank = getInput(0)->getRank();
  return lastDimsProduct(getOutput(0)->getDims(), rank == 1 || rank == 2 ? 1 : 3);
}

std::vector<Dims> BatchnormOp::inferOutputShapes(const std::shared_ptr<AxisOrder>&, std::uint32_t) {
  refuseDynamicInputs(*this, "netforge::ops::BatchnormOp::inferOutputShapes");
  return {getInput(0)->getDims()};
}

void BatchnormOp::overrideDataAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder) {
  setFirstInputDataFormat(*this, *axisOrder);
}

// LayerNorm

LayerNormOp::LayerNormOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "LayerNorm", attributes) {
  addDefault(getAttributes(), "epsilon", 0.001f, ATTR_ORDINARY);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(LayerNormOp)

std::uint64_t LayerNormOp::macs(const std::shared_ptr<AxisOrder>&) {
  return 5 * outputElements(*this);
}

void LayerNormOp::canonicalizeOp(std::uint32_t numOutputs) {
  IrOp::canonicalizeOp(numOutputs);
  const auto axes = getAttributes()->getStaticTensor("axes");
  const auto rank = static_cast<std::int32_t>(getInput(0)->getRank());
  std::vector<std::uint32_t> values;
  for (const std::int32_t axis : readInt32Values(*axes)) {
    values.push_back(static_cast<std::uint32_t>(axis < 0 ? axis + rank : axis));
  }
  getAttributes()->add("axes", std::make_shared<IrStaticTensor>(axes->getName(), values), ATTR_ORDINARY);
}

std::vector<Dims> LayerNormOp::inferOutputShapes(const std::shared_ptr<AxisOrder>&, std::uint32_t) {
  refuseDynamicInputs(*this, "netforge::ops::LayerNormOp::inferOutputShapes");
  return {getInput(0)->getDims()};
}

// RmsNorm

RMSNormOp::RMSNormOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "RmsNorm", attributes) {
  addDefault(getAttributes(), "epsilon", 0.001f, ATTR_ORDINARY);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(RMSNormOp)

std::vector<Dims> RMSNormOp::inferOutputShapes(const std::shared_ptr<AxisOrder>&, std::uint32_t) {
  if (hasDynamicInput(*this)) {
    throwInvalidArgument("netforge::ops::RMSNormOp::inferOutputShapes", "IrOp ", getName(),
                         " has dynamic inputs. Use inferOutputTensorShapes instead.");
  }
  return {getInput(0)->getDims()};
}

std::vector<IrTensorShape> RMSNormOp::inferOutputTensorShapes(const std::shared_ptr<AxisOrder>&,
                                                              std::uint32_t) {
  return inferFirstInputShape(*this);
}

// Softmax

SoftmaxOp::SoftmaxOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Softmax", attributes) {
  addDefault(getAttributes(), "axis", std::int32_t{-1}, ATTR_ORDINARY);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(SoftmaxOp)

void SoftmaxOp::canonicalizeOp(std::uint32_t numOutputs) {
  IrOp::canonicalizeOp(numOutputs);
  std::int32_t axis = readAxis(*getAttributes(), "axis");
  if (axis < 0) axis += static_cast<std::int32_t>(getInput(0)->getRank());
  getAttributes()->add("axis", static_cast<std::uint32_t>(axis), ATTR_ORDINARY);
}

std::vector<IrTensorShape> SoftmaxOp::inferOutputTensorShapes(const std::shared_ptr<AxisOrder>&,
                                                              std::uint32_t) {
  return inferFirstInputShape(*this);
}

// TopK

TopKOp::TopKOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "TopK", attributes) {
  addDefault(getAttributes(), "largest", true, ATTR_ORDINARY);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(TopKOp)

std::vector<Dims> TopKOp::inferOutputShapes(const std::shared_ptr<AxisOrder>&, std::uint32_t numOutputs) {
  const char* function = "netforge::ops::TopKOp::inferOutputShapes";
  refuseDynamicInputs(*this, function);
  Dims dims = getInput(0)->getDims();
  if (dims.empty())
    throwInvalidArgument(function, "TopK Op ", getName(), " expects rank 1 or above, but got 0");
  dims.back() = getAttributes()->getAttr<std::uint32_t>("k");
  return std::vector<Dims>(numOutputs, dims);
}

std::vector<DataType> TopKOp::inferOutputDataTypes(std::uint32_t) {
  return {mapOutputDataType(getInput(0)->getDataType()), ORLO_DATATYPE_INT_32};
}

}  // namespace netforge::ops
