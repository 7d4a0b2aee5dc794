#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>
#include "ir/IrOp.h"

/// Ops that rearrange, reinterpret or repeat the elements of one tensor. List parameters are static tensors
/// of 32-bit values; where a class canonicalises them they are unsigned and non-negative afterwards. All
/// failures are std::invalid_argument with the qualified function name in front, unless told otherwise; a
/// static tensor that is shorter than its reader needs gives std::out_of_range.

namespace netforge::ops {

/// "Transpose": output axis i is input axis perm[i].
class TransposeOp : public IrOp {
 public:
  TransposeOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  TransposeOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& ins,
              const TensorList& outs);
  /// Builds "perm" itself, as the static tensor "<name>_perm".
  TransposeOp(const std::string& name, const std::vector<std::uint32_t>& order);

  /// Makes negative entries of "perm" count from the front.
  void canonicalizeOp(std::uint32_t numOutputs) override;
  /// Refuses dynamic inputs.
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  /// The shape of input 0 permuted, dynamic axes moved along; empty without an input.
  std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                     std::uint32_t numOutputs) override;
  /// Names the layout of output 0 from the recorded format of input 0 and the order: the known pairs, such as
  /// NCHW with 0 2 3 1 to NHWC; the identity of four axes keeps the format; anything else is NONTRIVIAL.
  void populateOutputAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder,
                                 const std::map<std::string, std::uint8_t>& inputLayoutCodes,
                                 bool isTimeSeries) override;
  /// Throws unless there is exactly one input and "perm" is a permutation of its axes.
  void checkOrderAndInput();
};

/// "Reshape": the same elements in row-major order under other dims. "shape" must be of the supplemental
/// class.
class ReshapeOp : public IrOp {
 public:
  /// Throws std::invalid_argument when "shape" is absent or of another class.
  ReshapeOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  ReshapeOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& ins,
            const TensorList& outs);

  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  /// Output 0 is NF where a reshape to rank 2 keeps the batch of a spatial layout. From NC the spatial
  /// layouts come back where the spatial dims are 1. Otherwise NONTRIVIAL.
  void populateOutputAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder,
                                 const std::map<std::string, std::uint8_t>& inputLayoutCodes,
                                 bool isTimeSeries) override;

  /// The dims that `shape` asks for: 0 copies the input's dim of the same place, -1 takes what remains. A
  /// result whose element count is a divisor of the input's grows in its first dim (input [6], shape [2]
  /// gives [6]); any other difference of the counts throws.
  static std::vector<std::uint32_t> calculateShape(const std::string& opName,
                                                   const std::vector<std::uint32_t>& inputDims,
                                                   const std::vector<std::int32_t>& shape);
};

/// "ExpandDims": inserts axes of size 1 at the places "axes" of the output.
class ExpandDimsOp : public IrOp {
 public:
  ExpandDimsOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  ExpandDimsOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
               const TensorList& ins, const TensorList& outs);

  /// Sorts "axes" and makes them non-negative. With r the rank of the input each must lie in -r to r; a
  /// negative one gets r added, so -1 is the place in front of the last axis.
  void canonicalizeOp(std::uint32_t numOutputs) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                     std::uint32_t numOutputs) override;
};

/// "Expand": broadcasts the input to "shape", both ways.
class ExpandOp : public IrOp {
 public:
  ExpandOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  ExpandOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& ins,
           const TensorList& outs);

  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
};

/// "Tile": repeats the input multiples[i] times along axis i.
class TileOp : public IrOp {
 public:
  TileOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  TileOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& ins,
         const TensorList& outs);

  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
};

/// "DepthToSpace": moves channels into blocks of "block_size" (height, width) pixels. Rank 4 only.
/// Default: "mode" 0.
class DepthToSpaceOp : public IrOp {
 public:
  DepthToSpaceOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  DepthToSpaceOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                 const TensorList& ins, const TensorList& outs);

  /// Height times block height, width times block width, channels divided by both.
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
};

/// "SpaceToDepth": the inverse of DepthToSpaceOp. Defaults: "mode" 0, "data_format" "NHWC".
class SpaceToDepthOp : public IrOp {
 public:
  SpaceToDepthOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  SpaceToDepthOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                 const TensorList& ins, const TensorList& outs);

  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
};

/// "ColorTransform": converts the pixel encoding of an image input; keeps the shape.
class ColorTransformOp : public IrOp {
 public:
  ColorTransformOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  ColorTransformOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                   const TensorList& ins, const TensorList& outs);
};

}  // namespace netforge::ops
