#pragma once

#include <cstdint>
#include <vector>
#include "ir/IrTensorShape.h"
#include "ir/IrTypes.h"

namespace netforge {

/// Knows how a source framework orders axes, against the order in which this system reasons (IR order, which
/// is spatial-first: batch, spatial axes, channels). It takes dims of its layout apart into named axes,
/// builds dims of its layout from named axes, names layouts by rank, and permutes dims and shapes from and
/// to IR order. Stateless. All failures are std::invalid_argument.
class AxisOrder {
 public:
  using Dims = std::vector<std::uint32_t>;
  virtual ~AxisOrder();

  // From dims in this layout to dims in a fixed order. A rank without a reading throws.
  virtual Dims extractSpatialDims(const Dims& dims) const = 0;  ///< batch, spatial..., channels; rank 3 to 5
  virtual Dims extractTimeSeriesDims(const Dims& dims) const = 0;   ///< batch, time, feature; rank 3
  virtual Dims extractConvWeightsDims(const Dims& dims) const = 0;  ///< spatial..., input, output channels
  virtual Dims extractFcWeightsDims(const Dims& dims) const = 0;    ///< rank 2
  /// Spatial axes, then input channels, then output channels.
  virtual Dims extractTransposeConvWeightsDims(const Dims& dims) const = 0;

  // To dims in this layout. The arguments are batch, spatial axes in order, channels.
  virtual Dims makeSpatial1dDims(std::uint32_t a, std::uint32_t b, std::uint32_t c) const = 0;
  virtual Dims makeSpatial2dDims(std::uint32_t a, std::uint32_t b, std::uint32_t c,
                                 std::uint32_t d) const = 0;
  virtual Dims makeSpatial3dDims(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d,
                                 std::uint32_t e) const = 0;
  /// The arguments are batch, time, feature.
  virtual Dims makeTimeSeriesDims(std::uint32_t a, std::uint32_t b, std::uint32_t c) const = 0;

  // The layout of a tensor of this rank; NONTRIVIAL where a rank has no name.
  virtual AxisFormat getAxisFormat(std::uint32_t rank, bool timeSeries) const = 0;
  virtual AxisFormat getConvWeightsFormat(std::uint32_t rank) const = 0;
  virtual AxisFormat getTransposeConvWeightsFormat(std::uint32_t rank) const = 0;

  // From IR order to this layout, and back. `axisFormat` and the flags pick the order; NOT_YET_DEFINED
  // without flags picks it by the rank alone. Both flags set throws; so does an order that does not suit the
  // rank, or a rank above 5 where the rank decides.
  virtual Dims permuteDimsFromIr(const Dims& dims, AxisFormat axisFormat, bool isConvWeights,
                                 bool isTransposeConvWeights) const = 0;
  virtual Dims permuteDimsToIr(const Dims& dims, AxisFormat axisFormat, bool isConvWeights,
                               bool isTransposeConvWeights) const = 0;
  // The same, with the dynamic axes moving along.
  virtual IrTensorShape permuteShapeFromIr(const IrTensorShape& shape, AxisFormat axisFormat,
                                           bool isConvWeights, bool isTransposeConvWeights) const = 0;
  virtual IrTensorShape permuteShapeToIr(const IrTensorShape& shape, AxisFormat axisFormat,
                                         bool isConvWeights, bool isTransposeConvWeights) const = 0;
};

#define NETFORGE_AXIS_ORDER_OVERRIDES                                                                        \
  Dims extractSpatialDims(const Dims& dims) const override;                                                  \
  Dims extractTimeSeriesDims(const Dims& dims) const override;                                               \
  Dims extractConvWeightsDims(const Dims& dims) const override;                                              \
  Dims extractFcWeightsDims(const Dims& dims) const override;                                                \
  Dims extractTransposeConvWeightsDims(const Dims& dims) const override;                                     \
  Dims makeSpatial1dDims(std::uint32_t a, std::uint32_t b, std::uint32_t c) const override;                  \
  Dims makeSpatial2dDims(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) const override; \
  Dims makeSpatial3dDims(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d,                 \
                         std::uint32_t e) const override;                                                    \
  Dims makeTimeSeriesDims(std::uint32_t a, std::uint32_t b, std::uint32_t c) const override;                 \
  AxisFormat getAxisFormat(std::uint32_t rank, bool timeSeries) const override;                              \
  AxisFormat getConvWeightsFormat(std::uint32_t rank) const override;                                        \
  AxisFormat getTransposeConvWeightsFormat(std::uint32_t rank) const override;                               \
  Dims permuteDimsFromIr(const Dims& dims, AxisFormat axisFormat, bool isConvWeights,                        \
                         bool isTransposeConvWeights) const override;                                        \
  Dims permuteDimsToIr(const Dims& dims, AxisFormat axisFormat, bool isConvWeights,                          \
                       bool isTransposeConvWeights) const override;                                          \
  IrTensorShape permuteShapeFromIr(const IrTensorShape& shape, AxisFormat axisFormat, bool isConvWeights,    \
                                   bool isTransposeConvWeights) const override;                              \
  IrTensorShape permuteShapeToIr(const IrTensorShape& shape, AxisFormat axisFormat, bool isConvWeights,      \
                                 bool isTransposeConvWeights) const override;

/// IR order itself (NHWC, NDHWC, NFC): every permutation is the identity.
class SpatialFirstAxisOrder : public AxisOrder {
 public:
  NETFORGE_AXIS_ORDER_OVERRIDES
};
/// Channels behind batch (NCHW, NCDHW, NCF).
class SpatialLastAxisOrder : public AxisOrder {
 public:
  NETFORGE_AXIS_ORDER_OVERRIDES
};
/// The order of ONNX models; its failures speak of SpatialLastAxisOrder.
class OnnxAxisOrder : public SpatialLastAxisOrder {};
#undef NETFORGE_AXIS_ORDER_OVERRIDES

}  // namespace netforge
