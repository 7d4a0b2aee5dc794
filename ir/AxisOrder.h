#pragma once

#include <cstdint>
#include <vector>
#include "ir/IrTensorShape.h"
#include "ir/IrTypes.h"

namespace netforge {

class AxisOrder {
 public:
  using Dims = std::vector<std::uint32_t>;
  virtual ~AxisOrder();
  virtual Dims extractSpatialDims(const Dims& dims) const = 0;
  virtual Dims extractTimeSeriesDims(const Dims& dims) const = 0;
  virtual Dims extractConvWeightsDims(const Dims& dims) const = 0;
  virtual Dims extractFcWeightsDims(const Dims& dims) const = 0;
  virtual Dims extractTransposeConvWeightsDims(const Dims& dims) const = 0;
  virtual Dims makeSpatial1dDims(std::uint32_t a, std::uint32_t b, std::uint32_t c) const = 0;
  virtual Dims makeSpatial2dDims(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) const = 0;
  virtual Dims makeSpatial3dDims(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d,
                                 std::uint32_t e) const = 0;
  virtual Dims makeTimeSeriesDims(std::uint32_t a, std::uint32_t b, std::uint32_t c) const = 0;
  virtual AxisFormat getAxisFormat(std::uint32_t rank, bool timeSeries) const = 0;
  virtual AxisFormat getConvWeightsFormat(std::uint32_t rank) const = 0;
  virtual AxisFormat getTransposeConvWeightsFormat(std::uint32_t rank) const = 0;
  virtual Dims permuteDimsFromIr(const Dims& dims, AxisFormat axisFormat, bool isConvWeights,
                                 bool isTransposeConvWeights) const = 0;
  virtual Dims permuteDimsToIr(const Dims& dims, AxisFormat axisFormat, bool isConvWeights,
                               bool isTransposeConvWeights) const = 0;
  virtual IrTensorShape permuteShapeFromIr(const IrTensorShape& shape, AxisFormat axisFormat,
                                           bool isConvWeights, bool isTransposeConvWeights) const = 0;
  virtual IrTensorShape permuteShapeToIr(const IrTensorShape& shape, AxisFormat axisFormat,
                                         bool isConvWeights, bool isTransposeConvWeights) const = 0;
};

#define NETFORGE_AXIS_ORDER_OVERRIDES                                                                 \
  Dims extractSpatialDims(const Dims& dims) const override;                                           \
  Dims extractTimeSeriesDims(const Dims& dims) const override;                                        \
  Dims extractConvWeightsDims(const Dims& dims) const override;                                       \
  Dims extractFcWeightsDims(const Dims& dims) const override;                                         \
  Dims extractTransposeConvWeightsDims(const Dims& dims) const override;                              \
  Dims makeSpatial1dDims(std::uint32_t a, std::uint32_t b, std::uint32_t c) const override;           \
  Dims makeSpatial2dDims(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d)          \
      const override;                                                                                 \
  Dims makeSpatial3dDims(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d,          \
                         std::uint32_t e) const override;                                             \
  Dims makeTimeSeriesDims(std::uint32_t a, std::uint32_t b, std::uint32_t c) const override;          \
  AxisFormat getAxisFormat(std::uint32_t rank, bool timeSeries) const override;                       \
  AxisFormat getConvWeightsFormat(std::uint32_t rank) const override;                                 \
  AxisFormat getTransposeConvWeightsFormat(std::uint32_t rank) const override;                        \
  Dims permuteDimsFromIr(const Dims& dims, AxisFormat axisFormat, bool isConvWeights,                 \
                         bool isTransposeConvWeights) const override;                                 \
  Dims permuteDimsToIr(const Dims& dims, AxisFormat axisFormat, bool isConvWeights,                   \
                       bool isTransposeConvWeights) const override;                                   \
  IrTensorShape permuteShapeFromIr(const IrTensorShape& shape, AxisFormat axisFormat,                 \
                                   bool isConvWeights, bool isTransposeConvWeights) const override;   \
  IrTensorShape permuteShapeToIr(const IrTensorShape& shape, AxisFormat axisFormat,                   \
                                 bool isConvWeights, bool isTransposeConvWeights) const override;

class SpatialFirstAxisOrder : public AxisOrder {
 public:
  NETFORGE_AXIS_ORDER_OVERRIDES
};
class SpatialLastAxisOrder : public AxisOrder {
 public:
  NETFORGE_AXIS_ORDER_OVERRIDES
};
class OnnxAxisOrder : public SpatialLastAxisOrder {};
#undef NETFORGE_AXIS_ORDER_OVERRIDES

}  // namespace netforge
