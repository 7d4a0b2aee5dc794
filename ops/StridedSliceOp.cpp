#include <algorithm>
#include <array>
#include <cmath>
#include "ir/IrTensor.h"
#include "ops/OpDefaults.h"
#include "ops/OpFailure.h"
#include "ops/OpInference.h"
#include "ops/SliceOps.h"

namespace netforge::ops {

namespace {

using Dims = std::vector<std::uint32_t>;

/// One row of "ranges". 64-bit, so that adding a dim to a bound can't overflow.
struct SliceRow {
  std::int64_t begin, end, stride;
};

/// Row `index` of "ranges", whose data must be in memory; std::out_of_range behind the last row.
SliceRow readRow(const IrStaticTensor& ranges, std::uint64_t index) {
  const auto word = [&](std::uint64_t column) {
    return static_cast<std::int32_t>(ranges.getElement(3 * index + column));
  };
  return {word(0), word(1), word(2)};
}

[[noreturn]] void refuseRow(const char* function, const SliceRow& row, std::uint32_t axis) {
  throwInvalidArgument(function, "invalid stride ", row.stride, " for begin ", row.begin, " and end ",
                       row.end, " at axis ", axis);
}

/// The row counted from the front and clamped to an axis of size `dim`.
SliceRow canonicalRow(const SliceRow& given, std::int64_t dim, std::uint32_t axis) {
  SliceRow row = given;
  if (row.begin < 0) row.begin += dim;
  // With a negative stride, -1 is the place in front of the first element and not the last element.
  const bool runsToFront = row.stride < 0 && row.end == -1;
  if (row.end < 0 && !runsToFront) row.end += dim;
  const bool emptyForwards = row.stride > 0 && (row.begin >= row.end || row.begin >= dim);
  const bool emptyBackwards = row.stride < 0 && (row.begin <= row.end || row.begin < 0);
  if (emptyForwards || emptyBackwards) {
    refuseRow("netforge::ops::StridedSliceOp::canonicalizeOp", given, axis);
  }
  row.begin = std::min(std::max<std::int64_t>(row.begin, 0), dim - 1);
  row.end = std::min(std::max<std::int64_t>(row.end, row.stride >= 1 ? 0 : -1), dim);
  return row;
}

/// Number of elements that the row selects. The quotient is taken in single precision, so distances above
/// 2^24 are rounded.
std::uint32_t sliceSize(const SliceRow& row, std::uint32_t axis) {
  const float size = std::ceil(static_cast<float>(row.end - row.begin) / static_cast<float>(row.stride));
  // Also refuses the NaN and the infinity of stride 0.
  if (!(size >= 0.0f && size < 4294967296.0f)) {
    refuseRow("netforge::ops::StridedSliceOp::inferOutputTensorShapes", row, axis);
  }
  return static_cast<std::uint32_t>(size);
}

bool hasBit(std::uint32_t mask, std::uint32_t bit) {
  return bit < 32 && ((mask >> bit) & 1u) != 0;
}

}  // namespace

StridedSliceOp::StridedSliceOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "StridedSlice", attributes) {
  for (const char* mask : {"begin_mask", "end_mask", "shrink_axes", "new_axes_mask"}) {
    addDefault(getAttributes(), mask, 0u, ATTR_ORDINARY);
  }
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(StridedSliceOp)

void StridedSliceOp::canonicalizeOp(std::uint32_t numOutputs) {
  IrOp::canonicalizeOp(numOutputs);
  const IrTensorShape shape = getInput(0)->getShape();
  const auto ranges = getAttributes()->getStaticTensor("ranges");
  ranges->getData();
  std::vector<std::int32_t> words;
  for (std::uint32_t axis = 0; axis < shape.rank(); ++axis) {
    SliceRow row = readRow(*ranges, axis);
    if (!shape.isDynamicDim(axis)) row = canonicalRow(row, shape.dims[axis], axis);
    for (const std::int64_t value : {row.begin, row.end, row.stride}) {
      words.push_back(static_cast<std::int32_t>(value));
    }
  }
  const auto size = static_cast<std::uint32_t>(words.size() * sizeof(std::int32_t));
  getAttributes()->add(
      "ranges",
      std::make_shared<IrStaticTensor>(ranges->getName(), Dims{shape.rank(), 3}, size, words.data(),
                                       ORLO_DATATYPE_INT_32, AxisFormat::NOT_YET_DEFINED,
                                       AxisFormat::NOT_YET_DEFINED, false, TensorType::Static, Dims{}),
      ATTR_ORDINARY);
}

std::vector<Dims> StridedSliceOp::inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                    std::uint32_t numOutputs) {
  return inferDimsThroughShapes(
      *this, axisOrder, numOutputs, "netforge::ops::StridedSliceOp::inferOutputShapes",
      "StridedSliceOp " + getName() + " inputs have dynamic shapes. Use inferOutputTensorShapes instead.",
      "No output shapes infered for " + getName() + " op.");
}

std::vector<IrTensorShape> StridedSliceOp::inferOutputTensorShapes(const std::shared_ptr<AxisOrder>&,
                                                                   std::uint32_t) {
  const char* const function = "netforge::ops::StridedSliceOp::inferOutputTensorShapes";
  if (numInputs() == 0) return {};
  const IrTensorShape input = getInput(0)->getShape();
  if (input.hasDynamicAxes()) {
    for (const char* mask : {"new_axes_mask", "shrink_axes", "begin_mask", "end_mask"}) {
      const auto value = getAttributes()->getAttr<std::uint32_t>(mask);
      if (value == 0) continue;
      throwInvalidArgument(function, "Attribute ", mask, " with value ", value, " is not supported in op ",
                           getName(), " which has dynamic dimensions.");
    }
  }
  const auto ranges = getAttributes()->getStaticTensor("ranges");
  const std::uint64_t rows = ranges->elements() / 3;
  if (rows < input.rank()) {
    throwInvalidArgument(function, "Unsupported length for ranges in ", getName(),
                         ". Expected length of ranges >= ", input.rank(), ", but got ", rows, ".");
  }
  ranges->getData();

  const auto newAxes = getAttributes()->getAttr<std::uint32_t>("new_axes_mask");
  const auto shrunkAxes = getAttributes()->getAttr<std::uint32_t>("shrink_axes");
  Dims dims;
  std::set<std::uint32_t> dynamicAxes;
  std::uint32_t inserted = 0;
  for (std::uint32_t axis = 0; axis < input.rank(); ++axis) {
    for (; hasBit(newAxes, axis + inserted); ++inserted) dims.push_back(1);
    if (hasBit(shrunkAxes, axis + inserted)) continue;
    const SliceRow row = readRow(*ranges, axis);
    if (!input.isDynamicDim(axis)) {
      dims.push_back(sliceSize(row, axis));
      continue;
    }
    const auto [size, staysDynamic] =
        calcSliceSizeDynamic(static_cast<std::int32_t>(row.begin), static_cast<std::int32_t>(row.end),
                             static_cast<std::int32_t>(row.stride), axis);
    if (staysDynamic) dynamicAxes.insert(static_cast<std::uint32_t>(dims.size()));
    dims.push_back(size);
  }
  return {IrTensorShape(dims, dynamicAxes)};
}

std::pair<std::uint32_t, bool> StridedSliceOp::calcSliceSizeDynamic(std::int32_t begin, std::int32_t end,
                                                                    std::int32_t stride, std::uint32_t axis) {
  const char* const function = "netforge::ops::StridedSliceOp::calcSliceSizeDynamic";
  if (stride != 1) {
    throwRuntimeError(function, "For StridedSlice op ", getName(), " stride ", stride,
                      " is not supported for axis ", axis, " with dynamic dimensions.");
  }
  const std::int64_t first = begin;
  const std::int64_t last = end;
  const std::int64_t current = getInput(0)->getDims().at(axis);
  std::int64_t size = -1;
  bool staysDynamic = false;
  if (first == 0 && last == current) {
    size = last - first;
    staysDynamic = true;
  } else if (first < 0 && last == current) {
    size = -first;
  } else if (first >= 0 && last < 0) {
    size = last + current - first;
    staysDynamic = true;
  } else if (first >= 0 && last > first) {
    size = last - first;
  }
  if (size < 0) {
    throwRuntimeError(function, "For StridedSlice op ", getName(), " combination of  begin = ", begin,
                      " end = ", end, " stride = 1 is not supported for axis ", axis,
                      " with dynamic dimensions.");
  }
  return {static_cast<std::uint32_t>(size), staysDynamic};
}

}  // namespace netforge::ops
