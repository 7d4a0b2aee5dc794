#include "ops/LayoutOps.h"

#include <algorithm>
#include "ir/IrTensor.h"
#include "ops/Broadcast.h"
#include "ops/CanonicalValues.h"
#include "ops/OpDefaults.h"
#include "ops/OpFailure.h"
#include "ops/OpInference.h"

namespace netforge::ops {

namespace {

using Dims = std::vector<std::uint32_t>;

struct BlockedImage {
  std::uint32_t batch, height, width, channels, blockHeight, blockWidth;
};

/// The image of input 0 with its block; `word` is the class name in failure texts.
BlockedImage readBlockedImage(const IrOp& op, const AxisOrder& axisOrder, const char* function,
                              const char* word) {
  refuseDynamicInputs(op, function);
  const auto block = op.getAttributes()->getStaticTensor("block_size");
  block->getData();
  const std::uint32_t blockHeight = block->getElement(0);
  const std::uint32_t blockWidth = block->getElement(1);
  const auto refuseZero = [&](std::uint32_t value, const char* name) {
    if (value != 0) return;
    throwInvalidArgument(function, word, " ", op.getName(), " has zero ", name,
                         ", which causes division by zero when calculating output dimensions. ", name,
                         " must be > 0");
  };
  refuseZero(blockHeight, "block_height");
  refuseZero(blockWidth, "block_width");
  const Dims image = axisOrder.extractSpatialDims(op.getInput(0)->getDims());
  if (image.size() != 4) {
    throwInvalidArgument(function, word, " ", op.getName(), " expects an input of rank 4, but got rank ",
                         image.size());
  }
  return {image[0], image[1], image[2], image[3], blockHeight, blockWidth};
}

std::string expandDimsRangeText(std::int32_t value, std::size_t index, std::uint32_t rank) {
  return "ExpandDimsOp axis value " + std::to_string(value) + " at index " + std::to_string(index) +
         " is out of range [0," + std::to_string(rank) + ")";
}

}  // namespace

// ---- ExpandDims ----

ExpandDimsOp::ExpandDimsOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "ExpandDims", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(ExpandDimsOp)

void ExpandDimsOp::canonicalizeOp(std::uint32_t numOutputs) {
  const char* const function = "netforge::ops::ExpandDimsOp::canonicalizeOp";
  IrOp::canonicalizeOp(numOutputs);
  const std::uint32_t rank = getInput(0)->getRank();
  const std::vector<std::int32_t> given = readInt32Values(*getAttributes()->getStaticTensor("axes"));
  Dims axes;
  for (std::size_t i = 0; i < given.size(); ++i) {
    const auto signedRank = static_cast<std::int64_t>(rank);
    // The rank itself is a valid axis: the new one stands behind all others.
    if (given[i] < -signedRank || given[i] > signedRank) {
      throwInvalidArgument(function, expandDimsRangeText(given[i], i, rank));
    }
    const auto axis = static_cast<std::uint32_t>(given[i] < 0 ? given[i] + signedRank : given[i]);
    if (std::find(axes.begin(), axes.end(), axis) != axes.end()) {
      throwInvalidArgument(function, "ExpandDimsOp axis value ", given[i], " at index ", i,
                           " is not unique.");
    }
    axes.push_back(axis);
  }
  std::sort(axes.begin(), axes.end());
  replaceUint32Values(getAttributes(), "axes", axes);
}

std::vector<Dims> ExpandDimsOp::inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                  std::uint32_t numOutputs) {
  return inferDimsThroughShapes(
      *this, axisOrder, numOutputs, "netforge::ops::ExpandDimsOp::inferOutputShapes",
      "ExpandDimsOp " + getName() + " has dynamic inputs. Use inferOutputTensorShapes instead.",
      "No output shapes infered for " + getName() + " op.");
}

std::vector<IrTensorShape> ExpandDimsOp::inferOutputTensorShapes(const std::shared_ptr<AxisOrder>&,
                                                                 std::uint32_t) {
  if (numInputs() == 0) return {};
  const IrTensorShape input = getInput(0)->getShape();
  Dims dims = input.dims;
  std::vector<bool> dynamic;
  for (std::uint32_t axis = 0; axis < input.rank(); ++axis) dynamic.push_back(input.isDynamicDim(axis));
  const std::vector<std::int32_t> axes = readInt32Values(*getAttributes()->getStaticTensor("axes"));
  for (std::size_t i = 0; i < axes.size(); ++i) {
    if (axes[i] < 0 || static_cast<std::size_t>(axes[i]) > dims.size()) {
      throwInvalidArgument("netforge::ops::ExpandDimsOp::inferOutputTensorShapes",
                           expandDimsRangeText(axes[i], i, input.rank()));
    }
    dims.insert(dims.begin() + axes[i], 1);
    dynamic.insert(dynamic.begin() + axes[i], false);
  }
  std::set<std::uint32_t> dynamicAxes;
  for (std::uint32_t axis = 0; axis < dims.size(); ++axis) {
    if (dynamic[axis]) dynamicAxes.insert(axis);
  }
  return {IrTensorShape(dims, dynamicAxes)};
}

// ---- Expand ----

ExpandOp::ExpandOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Expand", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(ExpandOp)

std::vector<Dims> ExpandOp::inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t) {
  const char* const function = "netforge::ops::ExpandOp::inferOutputShapes";
  refuseDynamicInputs(*this, function);
  const std::vector<std::int32_t> values = readInt32Values(*getAttributes()->getStaticTensor("shape"));
  Dims shape;
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (values[i] < 1) {
      throwInvalidArgument(function, "Unable to calculate ExpandOp output shape for op ", getName(),
                           ". The value of output_shape parameter must be greater than 0. But got ",
                           values[i], " at index ", i, ".");
    }
    shape.push_back(static_cast<std::uint32_t>(values[i]));
  }
  return {getBroadcastedShape(getInput(0)->getDims(), shape, axisOrder, false)};
}

// ---- Tile ----

TileOp::TileOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Tile", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(TileOp)

std::vector<Dims> TileOp::inferOutputShapes(const std::shared_ptr<AxisOrder>&, std::uint32_t) {
  const char* const function = "netforge::ops::TileOp::inferOutputShapes";
  refuseDynamicInputs(*this, function);
  const std::vector<std::int32_t> multiples = readInt32Values(*getAttributes()->getStaticTensor("multiples"));
  Dims dims = getInput(0)->getDims();
  if (multiples.size() != dims.size()) {
    throwInvalidArgument(function, "TileOp (", getName(), ") multiples length ", multiples.size(),
                         " doesn't equal input rank ", dims.size());
  }
  for (std::size_t i = 0; i < dims.size(); ++i) dims[i] *= static_cast<std::uint32_t>(multiples[i]);
  return {dims};
}

// ---- DepthToSpace, SpaceToDepth ----

DepthToSpaceOp::DepthToSpaceOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "DepthToSpace", attributes) {
  addDefault(getAttributes(), "mode", 0u, ATTR_ORDINARY);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(DepthToSpaceOp)

std::vector<Dims> DepthToSpaceOp::inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                    std::uint32_t) {
  const BlockedImage image = readBlockedImage(
      *this, *axisOrder, "netforge::ops::DepthToSpaceOp::inferOutputShapes", "DepthToSpaceOp");
  const std::uint64_t block = std::uint64_t{image.blockHeight} * image.blockWidth;
  return {axisOrder->makeSpatial2dDims(image.batch, image.height * image.blockHeight,
                                       image.width * image.blockWidth,
                                       static_cast<std::uint32_t>(image.channels / block))};
}

SpaceToDepthOp::SpaceToDepthOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "SpaceToDepth", attributes) {
  addDefault(getAttributes(), "mode", 0u, ATTR_ORDINARY);
  addDefault(getAttributes(), "data_format", "NHWC", ATTR_EXTRA);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(SpaceToDepthOp)

std::vector<Dims> SpaceToDepthOp::inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                    std::uint32_t) {
  const BlockedImage image = readBlockedImage(
      *this, *axisOrder, "netforge::ops::SpaceToDepthOp::inferOutputShapes", "SpaceToDepthOp");
  return {axisOrder->makeSpatial2dDims(image.batch, image.height / image.blockHeight,
                                       image.width / image.blockWidth,
                                       image.channels * image.blockHeight * image.blockWidth)};
}

// ---- ColorTransform ----

ColorTransformOp::ColorTransformOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "ColorTransform", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(ColorTransformOp)

}  // namespace netforge::ops
