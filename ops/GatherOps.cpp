#include "ops/GatherOps.h"

#include <algorithm>
#include "ir/IrTensor.h"
#include "ops/OpDefaults.h"
#include "ops/OpFailure.h"
#include "ops/OpInference.h"

namespace netforge::ops {

namespace {

using Dims = std::vector<std::uint32_t>;

/// The axis attribute `name` counted from the front; std::invalid_argument unless it lies within the rank of
/// input 0. `word` is the class name in the failure text.
std::int32_t axisWithinRank(const IrOp& op, const std::string& name, const char* function, const char* word) {
  const auto rank = static_cast<std::int64_t>(op.getInput(0)->getRank());
  const std::int32_t given = readAxis(*op.getAttributes(), name);
  const std::int64_t axis = given < 0 ? given + rank : given;
  if (axis < 0 || axis >= rank) {
    throwInvalidArgument(function, word, " ", op.getName(), " ", name, " provided, ", given,
                         ", is incorrect for rank ", rank, ".");
  }
  return static_cast<std::int32_t>(axis);
}

}  // namespace

// ---- Gather ----

GatherOp::GatherOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Gather", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(GatherOp)

void GatherOp::canonicalizeOp(std::uint32_t numOutputs) {
  const std::int32_t axis =
      axisWithinRank(*this, "axis", "netforge::ops::GatherOp::canonicalizeOp", "GatherOp");
  getAttributes()->add("axis", axis, ATTR_ORDINARY);
  IrOp::canonicalizeOp(numOutputs);
}

std::vector<Dims> GatherOp::inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                              std::uint32_t numOutputs) {
  return inferDimsThroughShapes(
      *this, axisOrder, numOutputs, "netforge::ops::GatherOp::inferOutputShapes",
      "GatherOp " + getName() + " has dynamic outputs. Use inferOutputTensorShapes instead.",
      "No output shapes infered for " + getName() + " op.");
}

std::vector<IrTensorShape> GatherOp::inferOutputTensorShapes(const std::shared_ptr<AxisOrder>&,
                                                             std::uint32_t) {
  if (numInputs() < 2) return {};
  const IrTensorShape data = getInput(0)->getShape();
  const IrTensorShape indices = getInput(1)->getShape();
  const auto axis = getAttributes()->getAttr<std::int32_t>("axis");
  if (axis < 0 || static_cast<std::uint32_t>(axis) >= data.rank()) {
    throwInvalidArgument("netforge::ops::GatherOp::inferOutputTensorShapes", "GatherOp ", getName(),
                         " axis provided, ", axis, ", is incorrect for rank ", data.rank(), ".");
  }
  Dims dims;
  std::set<std::uint32_t> dynamicAxes;
  const auto append = [&](const IrTensorShape& shape, std::uint32_t begin, std::uint32_t end) {
    for (std::uint32_t i = begin; i < end; ++i) {
      if (shape.isDynamicDim(i)) dynamicAxes.insert(static_cast<std::uint32_t>(dims.size()));
      dims.push_back(shape.dims[i]);
    }
  };
  const auto gathered = static_cast<std::uint32_t>(axis);
  append(data, 0, gathered);
  append(indices, 0, indices.rank());
  append(data, gathered + 1, data.rank());
  return {IrTensorShape(dims, dynamicAxes)};
}

// ---- GatherElements ----

GatherElementsOp::GatherElementsOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "GatherElements", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(GatherElementsOp)

void GatherElementsOp::canonicalizeOp(std::uint32_t numOutputs) {
  const std::int32_t axis =
      axisWithinRank(*this, "axis", "netforge::ops::GatherElementsOp::canonicalizeOp", "GatherElementsOp");
  getAttributes()->add("axis", static_cast<std::uint32_t>(axis), ATTR_ORDINARY);
  IrOp::canonicalizeOp(numOutputs);
}

std::vector<Dims> GatherElementsOp::inferOutputShapes(const std::shared_ptr<AxisOrder>&, std::uint32_t) {
  refuseDynamicInputs(*this, "netforge::ops::GatherElementsOp::inferOutputShapes");
  return {getInput(1)->getDims()};
}

// ---- GatherNd ----

GatherNDOp::GatherNDOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "GatherNd", attributes) {
  addDefault(getAttributes(), "batch_dims", std::int32_t{0}, ATTR_ORDINARY);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(GatherNDOp)

std::uint64_t GatherNDOp::macs(const std::shared_ptr<AxisOrder>&) {
  return outputElements(*this);
}

void GatherNDOp::canonicalizeOp(std::uint32_t numOutputs) {
  const std::int32_t batchDims =
      axisWithinRank(*this, "batch_dims", "netforge::ops::GatherNDOp::canonicalizeOp", "GatherNDOp");
  getAttributes()->add("batch_dims", static_cast<std::uint32_t>(batchDims), ATTR_ORDINARY);
  IrOp::canonicalizeOp(numOutputs);
}

std::vector<Dims> GatherNDOp::inferOutputShapes(const std::shared_ptr<AxisOrder>&, std::uint32_t) {
  const char* const function = "netforge::ops::GatherNDOp::inferOutputShapes";
  refuseDynamicInputs(*this, function);
  const IrTensorShape data = getInput(0)->getShape();
  const IrTensorShape indices = getInput(1)->getShape();
  const std::int64_t dataRank = data.rank();
  const std::int64_t indicesRank = indices.rank();
  if (dataRank == 0 || indicesRank == 0) {
    throwRuntimeError(function, "The data rank and indices rank must be >= 1 for op ", getName(),
                      ", but got data rank=", dataRank, ", indices rank=", indicesRank);
  }
  // Unsigned behind canonicalizeOp, signed before it.
  const std::int64_t batchDims = readAxis(*getAttributes(), "batch_dims");
  if (batchDims < 0 || batchDims >= std::min(dataRank, indicesRank)) {
    throwRuntimeError(function, "The batch_dims must be a value in [0, min(data.rank, indices.rank)) for op ",
                      getName(), ", but got batch_dims=", batchDims, ", data.rank=", dataRank,
                      ", indices.rank=", indicesRank);
  }
  for (std::size_t i = 0; i < static_cast<std::size_t>(batchDims); ++i) {
    if (data.dims[i] == indices.dims[i]) continue;
    throwRuntimeError(function, "The first ", batchDims,
                      " dimensions in the shape of indices tensor and data tensor must be equal for op ",
                      getName(), ", but at dimension ", i, ": data shape=", data,
                      ", indices shape=", indices);
  }
  const std::int64_t coordinates = indices.dims.back();
  if (coordinates < 1 || coordinates > dataRank - batchDims) {
    throwRuntimeError(
        function, "The indices_shape[-1] must have a value in [1, data.rank - batch_dims] for op ", getName(),
        ", but got indices_shape[-1]=", coordinates, ", data.rank=", dataRank, ", batch_dims=", batchDims);
  }
  Dims dims(indices.dims.begin(), indices.dims.end() - 1);
  dims.insert(dims.end(), data.dims.begin() + batchDims + coordinates, data.dims.end());
  return {dims};
}

void GatherNDOp::overrideDataAxisFormats(const std::shared_ptr<AxisOrder>&) {
  getInput(1)->setAxisFormat(AxisFormat::NONTRIVIAL);
}

void GatherNDOp::resizeOp(const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t numOutputs) {
  getOutput(0)->setShape(IrTensorShape(inferOutputShapes(axisOrder, numOutputs).front()));
}

}  // namespace netforge::ops
