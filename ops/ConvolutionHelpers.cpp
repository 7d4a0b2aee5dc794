#include "ops/ConvolutionHelpers.h"

#include "ops/OpDefaults.h"
#include "ops/OpFailure.h"
#include "ops/Padding.h"

namespace netforge::ops {

std::vector<std::uint32_t> readLeadingValues(const IrOp& op, const std::string& name, std::uint32_t count) {
  const auto tensor = op.getAttributes()->getStaticTensor(name);
  tensor->getData();
  std::vector<std::uint32_t> values;
  for (std::uint32_t i = 0; i < count; ++i) values.push_back(tensor->getElement(i));
  return values;
}

void rewriteTensor(const IrOp& op, const std::string& name, const std::vector<std::uint32_t>& dims,
                   const std::vector<std::uint32_t>& values) {
  const auto& attributes = op.getAttributes();
  attributes->add(name, makeUint32Tensor(attributes->getStaticTensorName(name), dims, values), ATTR_ORDINARY);
}

std::vector<std::uint32_t> makeSpatialDims(const AxisOrder& axisOrder, std::uint32_t batch,
                                           const std::vector<std::uint32_t>& sizes, std::uint32_t channels) {
  if (sizes.size() == 2) return axisOrder.makeSpatial2dDims(batch, sizes[0], sizes[1], channels);
  return axisOrder.makeSpatial3dDims(batch, sizes[0], sizes[1], sizes[2], channels);
}

void requireConvRank(const IrOp& op, const char* function, const char* what,
                     const std::vector<std::uint32_t>& dims, std::uint32_t spatialAxes) {
  if (dims.size() == spatialAxes + 2) return;
  throwInvalidArgument(function, "Op ", op.displayName(), " needs ", what, " of rank ", spatialAxes + 2,
                       ", got rank ", dims.size());
}

std::uint64_t filterElements(const std::vector<std::uint32_t>& weight, std::uint32_t spatialAxes) {
  std::uint64_t product = 1;
  for (std::uint32_t i = 0; i <= spatialAxes; ++i) product *= weight[i];
  return product;
}

std::pair<std::uint32_t, std::uint32_t> splitPadding(std::uint64_t total, std::uint8_t strategy) {
  const auto smaller = static_cast<std::uint32_t>(total / 2);
  const auto larger = static_cast<std::uint32_t>(total - smaller);
  if (strategy == PaddingSameBegin) return {larger, smaller};
  return {smaller, larger};
}

bool isImplicitPadding(std::uint8_t strategy) {
  return strategy == PaddingSameBegin || strategy == PaddingSameEnd;
}

void addConvDefaults(const IrOp& op) {
  const auto& attributes = op.getAttributes();
  addDefault(attributes, "padding_size_strategy", std::uint8_t{PaddingExplicitFloor}, ATTR_SUPPLEMENTAL);
  addDefault(attributes, "bias_op_name", "", ATTR_SUPPLEMENTAL);
}

}  // namespace netforge::ops
