#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>
#include "ir/IrOp.h"

/// Ops that join, cut and pad tensors along their axes. All failures are std::invalid_argument with the
/// qualified function name in front, unless told otherwise; a static tensor that is shorter than its reader
/// needs gives std::out_of_range.

namespace netforge::ops {

/// "Concat": joins the inputs along "axis". Default: "axis" -1, signed.
class ConcatOp : public IrOp {
 public:
  ConcatOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  ConcatOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& ins,
           const TensorList& outs);

  /// Makes "axis" non-negative and unsigned. An axis that is too large passes here; shape inference refuses
  /// it.
  void canonicalizeOp(std::uint32_t numOutputs) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  /// The shape of input 0 with the sum of the sizes at "axis", which is dynamic when it is so in any input.
  /// The other axes must agree in size and dynamic flag. Empty without inputs.
  std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                     std::uint32_t numOutputs) override;
};

/// "Split": cuts the input along "axis" at the ascending places "split_index".
class SplitOp : public IrOp {
 public:
  SplitOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  SplitOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& ins,
          const TensorList& outs);

  /// Makes "axis" unsigned, and fills an empty "split_index" with the cuts of `numOutputs` equal parts.
  void canonicalizeOp(std::uint32_t numOutputs) override;
  /// One entry per part: one more than there are cuts.
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  /// As IrOp, once the outputs are known to add up to the input along "axis".
  void resizeOp(const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t numOutputs) override;
};

/// "Pack": stacks inputs of equal dims along a new axis at the place "axis".
class PackOp : public IrOp {
 public:
  PackOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  PackOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& ins,
         const TensorList& outs);

  /// Makes "axis" non-negative and unsigned. It counts axes of the output: -1 becomes the rank of the inputs.
  void canonicalizeOp(std::uint32_t numOutputs) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
};

/// "Pad": adds pad_amount[i][0] elements in front of axis i and pad_amount[i][1] behind it.
/// Default: "pad_constant_value" 0.0.
class PadOp : public IrOp {
 public:
  PadOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  PadOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& ins,
        const TensorList& outs);

  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  /// Gives input 0 the layout that the axis order has for its rank.
  void overrideDataAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder) override;
};

/// "StridedSlice": rows of "ranges" are begin, end and stride of the input's axes; end is exclusive. The bits
/// of the masks count the axes of the input and the new axes together. Defaults: the four masks 0.
class StridedSliceOp : public IrOp {
 public:
  StridedSliceOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  StridedSliceOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                 const TensorList& ins, const TensorList& outs);

  /// Brings "ranges" to one row per axis of the input, signed, with begin and end counted from the front and
  /// clamped to the axis. With a negative stride an end of -1 stays: it stands for the place in front of the
  /// first element. Rows of dynamic axes stay as they are. Refuses rows that select nothing.
  void canonicalizeOp(std::uint32_t numOutputs) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  /// An axis of "shrink_axes" vanishes, one of "new_axes_mask" has size 1 and stands in front of an axis of
  /// the input: bits behind the last axis add nothing. "begin_mask" and "end_mask" have no part in the shape:
  /// "ranges" holds the true bounds. No mask may be set when the input is dynamic.
  /// Empty without an input.
  std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                     std::uint32_t numOutputs) override;
  /// Size of a slice of the dynamic `axis` of input 0, and whether the axis stays dynamic. Throws
  /// std::runtime_error for a stride other than 1 and for bounds whose distance isn't known.
  std::pair<std::uint32_t, bool> calcSliceSizeDynamic(std::int32_t begin, std::int32_t end,
                                                      std::int32_t stride, std::uint32_t axis);
};

}  // namespace netforge::ops
