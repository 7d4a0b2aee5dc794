#include "ops/ConvolutionOps.h"

#include "ops/ConvolutionHelpers.h"
#include "ops/OpDefaults.h"
#include "ops/OpFailure.h"
#include "ops/OpInference.h"

namespace netforge::ops {

namespace {

using Values = std::vector<std::uint32_t>;

/// One entry per axis: 1 where it is dynamic. Such a list goes through the same layout changes as dims.
Values dynamicFlags(const IrTensorShape& shape) {
  Values flags;
  for (std::uint32_t i = 0; i < shape.rank(); ++i) flags.push_back(shape.isDynamicDim(i) ? 1 : 0);
  return flags;
}

std::set<std::uint32_t> inferDynamicAxes(const ConvOp& op, const AxisOrder& axisOrder,
                                         std::uint32_t spatialAxes) {
  const Values data = axisOrder.extractSpatialDims(dynamicFlags(op.getInput(0)->getShape()));
  const Values weight = axisOrder.extractConvWeightsDims(dynamicFlags(op.getInput(1)->getShape()));
  Values sizes;
  for (std::uint32_t i = 0; i < spatialAxes; ++i) sizes.push_back(data[i + 1] | weight[i]);
  std::uint32_t channels = weight[spatialAxes + 1];
  if (op.numInputs() == 3 && !op.getInput(2)->getShape().hasDynamicAxes()) channels = 0;

  const Values flags = makeSpatialDims(axisOrder, data[0], sizes, channels);
  std::set<std::uint32_t> axes;
  for (std::uint32_t i = 0; i < flags.size(); ++i) {
    if (flags[i] != 0) axes.insert(i);
  }
  return axes;
}

/// Infers the output shape and writes the pads back into "pad_amount".
IrTensorShape inferConvShape(const ConvOp& op, const AxisOrder& axisOrder, std::uint32_t spatialAxes,
                             const char* function) {
  const Values data = axisOrder.extractSpatialDims(op.getInput(0)->getDims());
  const Values weight = axisOrder.extractConvWeightsDims(op.getInput(1)->getDims());
  requireConvRank(op, function, "data", data, spatialAxes);
  requireConvRank(op, function, "weight", weight, spatialAxes);
  const Values pads = readLeadingValues(op, "pad_amount", 2 * spatialAxes);
  const Values strides = readLeadingValues(op, "stride", spatialAxes);
  const Values dilations = readLeadingValues(op, "dilation", spatialAxes);
  const auto strategy = op.getAttributes()->getAttr<std::uint8_t>("padding_size_strategy");

  Values sizes;
  Values newPads;
  for (std::uint32_t i = 0; i < spatialAxes; ++i) {
    const std::uint32_t before = pads[2 * i];
    const std::uint32_t after = pads[2 * i + 1];
    sizes.push_back(
        calcOutputSize(data[i + 1], weight[i], before, after, strides[i], dilations[i], strategy));
    const auto [newBefore, newAfter] = ConvOp::calcExplicitPaddingSize(
        data[i + 1], weight[i], sizes[i], strides[i], dilations[i], strategy, before, after);
    newPads.push_back(newBefore);
    newPads.push_back(newAfter);
  }
  const Values dims = makeSpatialDims(axisOrder, data[0], sizes, weight[spatialAxes + 1]);
  rewriteTensor(op, "pad_amount", {spatialAxes, 2}, newPads);
  return {dims, inferDynamicAxes(op, axisOrder, spatialAxes)};
}

std::uint64_t convMacs(const ConvOp& op, const AxisOrder& axisOrder, std::uint32_t spatialAxes,
                       const char* function) {
  const Values weight = axisOrder.extractConvWeightsDims(op.getInput(1)->getDims());
  requireConvRank(op, function, "weight", weight, spatialAxes);
  return outputElements(op) * filterElements(weight, spatialAxes);
}

}  // namespace

std::uint32_t ConvOp::paramsCount(const std::shared_ptr<AxisOrder>& axisOrder) {
  std::uint32_t count = 1;
  for (const std::uint32_t dim : axisOrder->extractConvWeightsDims(getInput(1)->getDims())) count *= dim;
  if (numInputs() == 3) {
    const Values& bias = getInput(2)->getDims();
    count += bias.empty() ? 1 : bias.front();
  }
  return count;
}

void ConvOp::overrideDataAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder) {
  setFirstInputDataFormat(*this, *axisOrder);
  setInputAxisFormat(axisOrder->getConvWeightsFormat(getInput(1)->getRank()), 1);
}

std::pair<std::uint32_t, std::uint32_t> ConvOp::calcExplicitPaddingSize(
    std::uint32_t inputSize, std::uint32_t kernel, std::uint32_t outputSize, std::uint32_t stride,
    std::uint32_t dilation, std::uint8_t strategy, std::uint32_t padBefore, std::uint32_t padAfter) {
  const std::uint64_t total =
      (std::uint64_t{outputSize} - 1) * stride + (std::uint64_t{kernel} - 1) * dilation - inputSize + 1;
  // A stride beyond the kernel can leave a negative total: no padding is needed.
  if (!isImplicitPadding(strategy) || static_cast<std::int64_t>(total) < 0) return {padBefore, padAfter};
  return splitPadding(total, strategy);
}

std::uint64_t BaseConv2dOp::macs(const std::shared_ptr<AxisOrder>& axisOrder) {
  return convMacs(*this, *axisOrder, 2, "netforge::ops::BaseConv2dOp::macs");
}

std::vector<std::vector<std::uint32_t>> BaseConv2dOp::inferOutputShapes(
    const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t numOutputs) {
  return inferDimsThroughShapes(
      *this, axisOrder, numOutputs, "netforge::ops::BaseConv2dOp::inferOutputShapes",
      "Conv2D op " + getName() + " inputs have dynamic shapes. Use inferOutputTensorShapes instead.",
      "Conv2DOp " + getName() + " inferOutputTensorShapes did not return any shapes.");
}

std::vector<IrTensorShape> BaseConv2dOp::inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                                 std::uint32_t) {
  return {inferConvShape(*this, *axisOrder, 2, "netforge::ops::BaseConv2dOp::inferOutputTensorShapes")};
}

std::uint64_t BaseConv3dOp::macs(const std::shared_ptr<AxisOrder>& axisOrder) {
  return convMacs(*this, *axisOrder, 3, "netforge::ops::BaseConv3dOp::macs");
}

std::vector<std::vector<std::uint32_t>> BaseConv3dOp::inferOutputShapes(
    const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t) {
  constexpr const char* kFunction = "netforge::ops::BaseConv3dOp::inferOutputShapes";
  refuseDynamicInputs(*this, kFunction);
  return {inferConvShape(*this, *axisOrder, 3, kFunction).dims};
}

Conv2dOp::Conv2dOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : BaseConv2dOp(name, "Conv2d", attributes) {
  addConvDefaults(*this);
  addDefaultTensor(getAttributes(), "dilation", {1, 1}, ATTR_ORDINARY);
  addDefault(getAttributes(), "group", 1u, ATTR_ORDINARY);
  addDefault(getAttributes(), "reuse_sparse_indices", false, ATTR_ORDINARY);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(Conv2dOp)

DepthwiseConv2dOp::DepthwiseConv2dOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : BaseConv2dOp(name, "DepthWiseConv2d", attributes) {
  addConvDefaults(*this);
  addDefaultTensor(getAttributes(), "dilation", {1, 1}, ATTR_ORDINARY);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(DepthwiseConv2dOp)

Conv3dOp::Conv3dOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : BaseConv3dOp(name, "Conv3d", attributes) {
  addConvDefaults(*this);
  addDefaultTensor(getAttributes(), "dilation", {1, 1, 1}, ATTR_ORDINARY);
  addDefault(getAttributes(), "group", 1u, ATTR_ORDINARY);
  // The target runtime spells this parameter differently in 2d and in 3d.
  addDefault(getAttributes(), "reuse_sparse_indicies", false, ATTR_ORDINARY);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(Conv3dOp)

}  // namespace netforge::ops
