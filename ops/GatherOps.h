#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "ir/IrOp.h"

/// Ops that pick elements of input 0 (data) by the values of input 1 (indices). Failures carry the qualified
/// function name in front.

namespace netforge::ops {

/// "Gather": whole slices along "axis", which stays a signed 32-bit value.
class GatherOp : public IrOp {
 public:
  GatherOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  GatherOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& ins,
           const TensorList& outs);

  /// Makes a negative "axis" count from the front; std::invalid_argument outside the rank.
  void canonicalizeOp(std::uint32_t numOutputs) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  /// The axes of the data with the one at "axis" replaced by all axes of the indices, dynamic axes moved
  /// along; empty with fewer than two inputs. Expects a canonical axis.
  std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                     std::uint32_t numOutputs) override;
};

/// "GatherElements": single elements along "axis"; the output has the dims of the indices.
class GatherElementsOp : public IrOp {
 public:
  GatherElementsOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  GatherElementsOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                   const TensorList& ins, const TensorList& outs);

  /// Makes "axis" non-negative and unsigned; std::invalid_argument outside the rank.
  void canonicalizeOp(std::uint32_t numOutputs) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
};

/// "GatherNd": the last axis of the indices holds coordinates into the data behind the first "batch_dims"
/// axes, which both inputs share. Default: "batch_dims" 0, signed.
class GatherNDOp : public IrOp {
 public:
  GatherNDOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  GatherNDOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& ins,
             const TensorList& outs);

  /// Product of the last three dims of output 0, 1 for an output of a lower rank.
  std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder) override;
  /// Makes "batch_dims" non-negative and unsigned; std::invalid_argument outside the rank of the data.
  void canonicalizeOp(std::uint32_t numOutputs) override;
  /// The dims of the indices without the last, then those of the data behind the coordinates. Ranks,
  /// "batch_dims" and the coordinate count that don't fit throw std::runtime_error.
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  /// Indices have no layout: the format of the index tensor becomes NONTRIVIAL.
  void overrideDataAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder) override;
  /// Gives output 0 the inferred dims, without dynamic axes.
  void resizeOp(const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t numOutputs) override;
};

}  // namespace netforge::ops
