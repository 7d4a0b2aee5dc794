#include <algorithm>

#include "ops/ConvolutionHelpers.h"
#include "ops/ConvolutionOps.h"
#include "ops/OpDefaults.h"
#include "ops/OpFailure.h"
#include "ops/OpInference.h"

namespace netforge::ops {

namespace {

using Values = std::vector<std::uint32_t>;

/// Output size along one axis without regard to "output_size".
std::uint32_t calcNaturalSize(std::uint32_t inputSize, std::uint64_t kernelExtent, std::uint32_t padBefore,
                              std::uint32_t padAfter, std::uint32_t stride, std::uint32_t outputPadding,
                              std::uint8_t strategy) {
  if (isImplicitPadding(strategy)) return inputSize * stride;
  const std::uint64_t full = (std::uint64_t{inputSize} - 1) * stride + kernelExtent;
  if (strategy == PaddingValid) return static_cast<std::uint32_t>(full);
  return static_cast<std::uint32_t>(full - padBefore - padAfter + outputPadding);
}

/// Infers the output dims and writes "pad_amount" and "output_padding" back.
Values inferTransposeConvDims(const TransposeConvOp& op, const AxisOrder& axisOrder,
                              std::uint32_t spatialAxes, const Values& dilations, const char* function) {
  const Values data = axisOrder.extractSpatialDims(op.getInput(0)->getDims());
  const Values weight = axisOrder.extractTransposeConvWeightsDims(op.getInput(1)->getDims());
  requireConvRank(op, function, "data", data, spatialAxes);
  requireConvRank(op, function, "weight", weight, spatialAxes);
  const auto& attributes = op.getAttributes();
  const Values pads = readLeadingValues(op, "pad_amount", 2 * spatialAxes);
  const Values strides = readLeadingValues(op, "stride", spatialAxes);
  const Values requested = readLeadingValues(op, "output_size", spatialAxes);
  Values outputPaddings = readLeadingValues(op, "output_padding", spatialAxes);
  const auto strategy = attributes->getAttr<std::uint8_t>("padding_size_strategy");

  Values sizes;
  for (std::uint32_t i = 0; i < spatialAxes; ++i) {
    const std::uint64_t extent = (std::uint64_t{weight[i]} - 1) * dilations[i] + 1;
    sizes.push_back(calcNaturalSize(data[i + 1], extent, pads[2 * i], pads[2 * i + 1], strides[i],
                                    outputPaddings[i], strategy));
  }
  // A single zero among the requested sizes cancels the whole request.
  if (std::find(requested.begin(), requested.end(), 0u) == requested.end()) {
    bool fallsShort = false;
    for (std::uint32_t i = 0; i < spatialAxes; ++i) fallsShort = fallsShort || sizes[i] < requested[i];
    if (fallsShort) {
      for (std::uint32_t i = 0; i < spatialAxes; ++i) {
        outputPaddings[i] = requested[i] > sizes[i] ? requested[i] - sizes[i] : 0;
      }
      rewriteTensor(op, "output_padding", {spatialAxes}, outputPaddings);
    }
    sizes = requested;
  }
  const std::uint32_t channels = attributes->getAttr<std::uint32_t>("group") * weight[spatialAxes + 1];
  const Values dims = makeSpatialDims(axisOrder, data[0], sizes, channels);

  Values newPads;
  for (std::uint32_t i = 0; i < spatialAxes; ++i) {
    const auto [before, after, outputPadding] = TransposeConvOp::calcExplicitPaddingSize(
        data[i + 1], sizes[i], weight[i], strides[i], strategy, pads[2 * i], pads[2 * i + 1],
        outputPaddings[i], dilations[i]);
    newPads.push_back(before);
    newPads.push_back(after);
    outputPaddings[i] = outputPadding;
  }
  rewriteTensor(op, "pad_amount", {spatialAxes, 2}, newPads);
  rewriteTensor(op, "output_padding", {spatialAxes}, outputPaddings);
  return dims;
}

std::uint64_t transposeConvMacs(const TransposeConvOp& op, const AxisOrder& axisOrder,
                                std::uint32_t spatialAxes, std::uint32_t outputAxes, const char* function) {
  const Values weight = axisOrder.extractTransposeConvWeightsDims(op.getInput(1)->getDims());
  requireConvRank(op, function, "weight", weight, spatialAxes);
  const std::uint64_t outputs = IrOp::lastDimsProduct(op.getOutput(0)->getDims(), outputAxes);
  const std::uint32_t group = std::max(op.getAttributes()->getAttr<std::uint32_t>("group"), 1u);
  return outputs * filterElements(weight, spatialAxes) / group;
}

void addTransposeConvDefaults(const IrOp& op, std::uint32_t spatialAxes) {
  addConvDefaults(op);
  const Values zeros(spatialAxes, 0);
  addDefault(op.getAttributes(), "group", 1u, ATTR_ORDINARY);
  addDefaultTensor(op.getAttributes(), "output_padding", zeros, ATTR_ORDINARY);
  addDefaultTensor(op.getAttributes(), "output_size", zeros, ATTR_SUPPLEMENTAL);
}

}  // namespace

void TransposeConvOp::overrideDataAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder) {
  setFirstInputDataFormat(*this, *axisOrder);
  setInputAxisFormat(axisOrder->getTransposeConvWeightsFormat(getInput(1)->getRank()), 1);
}

std::array<std::uint32_t, 3> TransposeConvOp::calcExplicitPaddingSize(
    std::uint32_t inputSize, std::uint32_t outputSize, std::uint32_t kernel, std::uint32_t stride,
    std::uint8_t strategy, std::uint32_t padBefore, std::uint32_t padAfter, std::uint32_t outputPadding,
    std::uint32_t dilation) {
  if (!isImplicitPadding(strategy)) return {padBefore, padAfter, outputPadding};
  const auto total = static_cast<std::int64_t>((std::uint64_t{inputSize} - 1) * stride - outputSize +
                                               outputPadding + (std::uint64_t{kernel} - 1) * dilation + 1);
  if (total >= 0) {
    const auto [before, after] = splitPadding(static_cast<std::uint64_t>(total), strategy);
    return {before, after, outputPadding};
  }
  const std::int64_t allowed = std::int64_t{stride} - std::int64_t{outputPadding} - 1;
  if (-total > allowed) {
    throwInvalidArgument("netforge::ops::TransposeConvOp::calcExplicitPaddingSize",
                         "Unable to adjust TransposeConv implicit pad strategy. Got pad difference of ",
                         -total, ", which is greater than the allowed pad difference ", allowed,
                         " (stride=", stride, ", outputPad=", outputPadding, ").");
  }
  return {padBefore, padAfter, outputPadding + static_cast<std::uint32_t>(-total)};
}

std::uint64_t BaseTransposeConv2dOp::macs(const std::shared_ptr<AxisOrder>& axisOrder) {
  return transposeConvMacs(*this, *axisOrder, 2, 3, "netforge::ops::BaseTransposeConv2dOp::macs");
}

std::vector<std::vector<std::uint32_t>> BaseTransposeConv2dOp::inferOutputShapes(
    const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t) {
  constexpr const char* kFunction = "netforge::ops::BaseTransposeConv2dOp::inferOutputShapes";
  refuseDynamicInputs(*this, kFunction);
  return {inferTransposeConvDims(*this, *axisOrder, 2, {1, 1}, kFunction)};
}

std::uint64_t BaseTransposeConv3dOp::macs(const std::shared_ptr<AxisOrder>& axisOrder) {
  return transposeConvMacs(*this, *axisOrder, 3, getInput(0)->getRank() - 1,
                           "netforge::ops::BaseTransposeConv3dOp::macs");
}

std::vector<std::vector<std::uint32_t>> BaseTransposeConv3dOp::inferOutputShapes(
    const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t) {
  constexpr const char* kFunction = "netforge::ops::BaseTransposeConv3dOp::inferOutputShapes";
  refuseDynamicInputs(*this, kFunction);
  return {inferTransposeConvDims(*this, *axisOrder, 3, readLeadingValues(*this, "dilation", 3), kFunction)};
}

TransposeConv2dOp::TransposeConv2dOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : BaseTransposeConv2dOp(name, "TransposeConv2d", attributes) {
  addTransposeConvDefaults(*this, 2);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(TransposeConv2dOp)

TransposeConv3dOp::TransposeConv3dOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : BaseTransposeConv3dOp(name, "TransposeConv3d", attributes) {
  addTransposeConvDefaults(*this, 3);
  addDefaultTensor(getAttributes(), "dilation", {1, 1, 1}, ATTR_ORDINARY);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(TransposeConv3dOp)

}  // namespace netforge::ops
