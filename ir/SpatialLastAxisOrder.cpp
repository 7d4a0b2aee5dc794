#include <stdexcept>

#include "ir/AxisOrder.h"
#include "ir/Failure.h"

namespace netforge {

namespace {

using Dims = AxisOrder::Dims;
using Order = std::vector<std::uint32_t>;

enum class Direction { FromIr, ToIr };

// result[i] = dims[order[i]]; the ranks agree.
Dims reorder(const Dims& dims, const Order& order) {
  Dims result;
  result.reserve(order.size());
  for (std::uint32_t from : order) result.push_back(dims[from]);
  return result;
}

// The order that the rank alone picks, for ranks 0 to 5.
Order orderByRank(Direction direction, std::size_t rank) {
  static const Order fromIr[] = {{}, {0}, {0, 1}, {0, 2, 1}, {0, 3, 1, 2}, {0, 4, 1, 2, 3}};
  static const Order toIr[] = {{}, {0}, {0, 1}, {0, 2, 1}, {0, 2, 3, 1}, {0, 2, 3, 4, 1}};
  return direction == Direction::FromIr ? fromIr[rank] : toIr[rank];
}

// The order for a layout with weights, or for a time series; empty where the rank decides.
Order orderByFormat(Direction direction, AxisFormat format, bool isConvWeights, bool isTransposeConvWeights) {
  const bool fromIr = direction == Direction::FromIr;
  switch (format) {
    case AxisFormat::NCDHW:
    case AxisFormat::NDHWC:
      if (isConvWeights) return fromIr ? Order{4, 3, 0, 1, 2} : Order{2, 3, 4, 1, 0};
      if (isTransposeConvWeights) return fromIr ? Order{3, 4, 0, 1, 2} : Order{2, 3, 4, 0, 1};
      return {};
    case AxisFormat::NCHW:
    case AxisFormat::NHWC:
      if (isConvWeights) return fromIr ? Order{3, 2, 0, 1} : Order{2, 3, 1, 0};
      if (isTransposeConvWeights) return {2, 3, 0, 1};
      return {};
    case AxisFormat::NCF:
    case AxisFormat::NFC:
      // From IR there is no order of its own for weights over one spatial axis.
      if (isConvWeights && !fromIr) return {2, 1, 0};
      if (isTransposeConvWeights && !fromIr) return {2, 0, 1};
      return {};
    case AxisFormat::TNF:
    case AxisFormat::NTF:
      return {1, 0, 2};
    default:
      return {};
  }
}

// `what` is "dimensions" or "shape", as the failure names it.
Order pickOrder(const char* function, const char* what, Direction direction, std::size_t rank,
                AxisFormat format, bool isConvWeights, bool isTransposeConvWeights) {
  if (isConvWeights && isTransposeConvWeights) {
    fail<std::invalid_argument>(function,
                                "These dimensions cannot represent both conv weights and deconv weights.");
  }
  Order order = orderByFormat(direction, format, isConvWeights, isTransposeConvWeights);
  if (!order.empty()) return order;
  if (rank > 5) {
    fail<std::invalid_argument>(function, "Cannot assume permute order of ", what, " with rank ", rank,
                                ", maximum supported rank is 5");
  }
  return orderByRank(direction, rank);
}

}  // namespace

Dims SpatialLastAxisOrder::extractSpatialDims(const Dims& dims) const {
  switch (dims.size()) {
    case 3:
      return reorder(dims, {0, 2, 1});
    case 4:
      return reorder(dims, {0, 2, 3, 1});
    case 5:
      return reorder(dims, {0, 2, 3, 4, 1});
    default:
      fail<std::invalid_argument>("netforge::SpatialLastAxisOrder::extractSpatialDims",
                                  "Invalid dimension rank ", dims.size(),
                                  " for extracting tensor, expected rank 3, 4, or 5");
  }
}

Dims SpatialLastAxisOrder::extractTimeSeriesDims(const Dims& dims) const {
  if (dims.size() != 3) {
    fail<std::invalid_argument>("netforge::SpatialLastAxisOrder::extractTimeSeriesDims",
                                "Invalid dimension rank ", dims.size(),
                                " for extracting time series dims, expected rank 3");
  }
  return reorder(dims, {1, 0, 2});
}

Dims SpatialLastAxisOrder::extractConvWeightsDims(const Dims& dims) const {
  switch (dims.size()) {
    case 3:
      return reorder(dims, {2, 1, 0});
    case 4:
      return reorder(dims, {2, 3, 1, 0});
    case 5:
      return reorder(dims, {2, 3, 4, 1, 0});
    default:
      fail<std::invalid_argument>("netforge::SpatialLastAxisOrder::extractConvWeightsDims",
                                  "Invalid dimension rank ", dims.size(),
                                  " for extracting conv weights, expected rank 3, 4, or 5");
  }
}

Dims SpatialLastAxisOrder::extractFcWeightsDims(const Dims& dims) const {
  if (dims.size() != 2) {
    fail<std::invalid_argument>("netforge::SpatialLastAxisOrder::extractFcWeightsDims",
                                "Shape needs to be of length 2 for FC weights, but got length ", dims.size());
  }
  return reorder(dims, {1, 0});
}

Dims SpatialLastAxisOrder::extractTransposeConvWeightsDims(const Dims& dims) const {
  switch (dims.size()) {
    case 3:
      return reorder(dims, {2, 0, 1});
    case 4:
      return reorder(dims, {2, 3, 0, 1});
    case 5:
      return reorder(dims, {2, 3, 4, 0, 1});
    default:
      fail<std::invalid_argument>("netforge::SpatialLastAxisOrder::extractTransposeConvWeightsDims",
                                  "Invalid dimension rank ", dims.size(),
                                  " for extracting transpose conv weights, expected rank 3, 4, or 5");
  }
}

Dims SpatialLastAxisOrder::makeSpatial1dDims(std::uint32_t a, std::uint32_t b, std::uint32_t c) const {
  return {a, c, b};
}

Dims SpatialLastAxisOrder::makeSpatial2dDims(std::uint32_t a, std::uint32_t b, std::uint32_t c,
                                             std::uint32_t d) const {
  return {a, d, b, c};
}

Dims SpatialLastAxisOrder::makeSpatial3dDims(std::uint32_t a, std::uint32_t b, std::uint32_t c,
                                             std::uint32_t d, std::uint32_t e) const {
  return {a, e, b, c, d};
}

Dims SpatialLastAxisOrder::makeTimeSeriesDims(std::uint32_t a, std::uint32_t b, std::uint32_t c) const {
  return {b, a, c};
}

AxisFormat SpatialLastAxisOrder::getAxisFormat(std::uint32_t rank, bool timeSeries) const {
  switch (rank) {
    case 1:
      return AxisFormat::ANY;
    case 2:
      return AxisFormat::NF;
    case 3:
      return timeSeries ? AxisFormat::TNF : AxisFormat::NCF;
    case 4:
      return AxisFormat::NCHW;
    case 5:
      return AxisFormat::NCDHW;
    default:
      return AxisFormat::NONTRIVIAL;
  }
}

AxisFormat SpatialLastAxisOrder::getConvWeightsFormat(std::uint32_t rank) const {
  switch (rank) {
    case 3:
      return AxisFormat::OIF;
    case 4:
      return AxisFormat::OIHW;
    case 5:
      return AxisFormat::OIDHW;
    default:
      return AxisFormat::NONTRIVIAL;
  }
}

AxisFormat SpatialLastAxisOrder::getTransposeConvWeightsFormat(std::uint32_t rank) const {
  switch (rank) {
    case 3:
      return AxisFormat::IOF;
    case 4:
      return AxisFormat::IOHW;
    case 5:
      return AxisFormat::IODHW;
    default:
      return AxisFormat::NONTRIVIAL;
  }
}

// Dims go through a shape, whose permute refuses an order that does not suit the rank.

Dims SpatialLastAxisOrder::permuteDimsFromIr(const Dims& dims, AxisFormat format, bool isConvWeights,
                                             bool isTransposeConvWeights) const {
  const Order order =
      pickOrder("netforge::SpatialLastAxisOrder::permuteDimsFromIr", "dimensions", Direction::FromIr,
                dims.size(), format, isConvWeights, isTransposeConvWeights);
  return IrTensorShape(dims).permute(order).dims;
}

Dims SpatialLastAxisOrder::permuteDimsToIr(const Dims& dims, AxisFormat format, bool isConvWeights,
                                           bool isTransposeConvWeights) const {
  const Order order = pickOrder("netforge::SpatialLastAxisOrder::permuteDimsToIr", "dimensions",
                                Direction::ToIr, dims.size(), format, isConvWeights, isTransposeConvWeights);
  return IrTensorShape(dims).permute(order).dims;
}

IrTensorShape SpatialLastAxisOrder::permuteShapeFromIr(const IrTensorShape& shape, AxisFormat format,
                                                       bool isConvWeights,
                                                       bool isTransposeConvWeights) const {
  return shape.permute(pickOrder("netforge::SpatialLastAxisOrder::permuteShapeFromIr", "shape",
                                 Direction::FromIr, shape.dims.size(), format, isConvWeights,
                                 isTransposeConvWeights));
}

IrTensorShape SpatialLastAxisOrder::permuteShapeToIr(const IrTensorShape& shape, AxisFormat format,
                                                     bool isConvWeights, bool isTransposeConvWeights) const {
  return shape.permute(pickOrder("netforge::SpatialLastAxisOrder::permuteShapeToIr", "shape", Direction::ToIr,
                                 shape.dims.size(), format, isConvWeights, isTransposeConvWeights));
}

}  // namespace netforge
