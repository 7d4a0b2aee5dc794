#include <stdexcept>

#include "ir/AxisOrder.h"
#include "ir/Failure.h"

namespace netforge {

namespace {

using Dims = AxisOrder::Dims;

void refuseBothFlags(const char* function, bool isConvWeights, bool isTransposeConvWeights) {
  if (isConvWeights && isTransposeConvWeights) {
    fail<std::invalid_argument>(function,
                                "These dimensions cannot represent both conv weights and deconv weights.");
  }
}

bool isSpatialRank(const Dims& dims) {
  return dims.size() >= 3 && dims.size() <= 5;
}

AxisFormat weightsFormat(std::uint32_t rank) {
  switch (rank) {
    case 3:
      return AxisFormat::FIO;
    case 4:
      return AxisFormat::HWIO;
    case 5:
      return AxisFormat::DHWIO;
    default:
      return AxisFormat::NONTRIVIAL;
  }
}

}  // namespace

Dims SpatialFirstAxisOrder::extractSpatialDims(const Dims& dims) const {
  if (!isSpatialRank(dims)) {
    fail<std::invalid_argument>("netforge::SpatialFirstAxisOrder::extractSpatialDims",
                                "Invalid dimension rank ", dims.size(),
                                " for extracting spatial dims, expected rank 3, 4, or 5");
  }
  return dims;
}

Dims SpatialFirstAxisOrder::extractTimeSeriesDims(const Dims& dims) const {
  if (dims.size() != 3) {
    fail<std::invalid_argument>("netforge::SpatialFirstAxisOrder::extractTimeSeriesDims",
                                "Invalid dimension rank ", dims.size(),
                                " for extracting time series dims, expected rank 3");
  }
  return dims;
}

Dims SpatialFirstAxisOrder::extractConvWeightsDims(const Dims& dims) const {
  if (!isSpatialRank(dims)) {
    fail<std::invalid_argument>("netforge::SpatialFirstAxisOrder::extractConvWeightsDims",
                                "Invalid dimension rank ", dims.size(),
                                " for extracting conv weights, expected rank 3, 4, or 5");
  }
  return dims;
}

Dims SpatialFirstAxisOrder::extractFcWeightsDims(const Dims& dims) const {
  if (dims.size() != 2) {
    fail<std::invalid_argument>("netforge::SpatialFirstAxisOrder::extractFcWeightsDims",
                                "Shape needs to be of length 2 for FC weights, but got length ", dims.size());
  }
  return dims;
}

Dims SpatialFirstAxisOrder::extractTransposeConvWeightsDims(const Dims& dims) const {
  if (!isSpatialRank(dims)) {
    fail<std::invalid_argument>("netforge::SpatialFirstAxisOrder::extractTransposeConvWeightsDims",
                                "Invalid dimension rank ", dims.size(),
                                " for extracting transpose conv weights, expected rank 3, 4, or 5");
  }
  return dims;
}

Dims SpatialFirstAxisOrder::makeSpatial1dDims(std::uint32_t a, std::uint32_t b, std::uint32_t c) const {
  return {a, b, c};
}

Dims SpatialFirstAxisOrder::makeSpatial2dDims(std::uint32_t a, std::uint32_t b, std::uint32_t c,
                                              std::uint32_t d) const {
  return {a, b, c, d};
}

Dims SpatialFirstAxisOrder::makeSpatial3dDims(std::uint32_t a, std::uint32_t b, std::uint32_t c,
                                              std::uint32_t d, std::uint32_t e) const {
  return {a, b, c, d, e};
}

Dims SpatialFirstAxisOrder::makeTimeSeriesDims(std::uint32_t a, std::uint32_t b, std::uint32_t c) const {
  return {a, b, c};
}

AxisFormat SpatialFirstAxisOrder::getAxisFormat(std::uint32_t rank, bool timeSeries) const {
  switch (rank) {
    case 1:
      return AxisFormat::ANY;
    case 2:
      return AxisFormat::NF;
    case 3:
      return timeSeries ? AxisFormat::NTF : AxisFormat::NFC;
    case 4:
      return AxisFormat::NHWC;
    case 5:
      return AxisFormat::NDHWC;
    default:
      return AxisFormat::NONTRIVIAL;
  }
}

AxisFormat SpatialFirstAxisOrder::getConvWeightsFormat(std::uint32_t rank) const {
  return weightsFormat(rank);
}

AxisFormat SpatialFirstAxisOrder::getTransposeConvWeightsFormat(std::uint32_t rank) const {
  return weightsFormat(rank);
}

Dims SpatialFirstAxisOrder::permuteDimsFromIr(const Dims& dims, AxisFormat, bool isConvWeights,
                                              bool isTransposeConvWeights) const {
  refuseBothFlags("netforge::SpatialFirstAxisOrder::permuteDimsFromIr", isConvWeights,
                  isTransposeConvWeights);
  return dims;
}

Dims SpatialFirstAxisOrder::permuteDimsToIr(const Dims& dims, AxisFormat, bool isConvWeights,
                                            bool isTransposeConvWeights) const {
  refuseBothFlags("netforge::SpatialFirstAxisOrder::permuteDimsToIr", isConvWeights, isTransposeConvWeights);
  return dims;
}

IrTensorShape SpatialFirstAxisOrder::permuteShapeFromIr(const IrTensorShape& shape, AxisFormat,
                                                        bool isConvWeights,
                                                        bool isTransposeConvWeights) const {
  refuseBothFlags("netforge::SpatialFirstAxisOrder::permuteShapeFromIr", isConvWeights,
                  isTransposeConvWeights);
  return shape;
}

IrTensorShape SpatialFirstAxisOrder::permuteShapeToIr(const IrTensorShape& shape, AxisFormat,
                                                      bool isConvWeights, bool isTransposeConvWeights) const {
  refuseBothFlags("netforge::SpatialFirstAxisOrder::permuteShapeToIr", isConvWeights, isTransposeConvWeights);
  return shape;
}

}  // namespace netforge
