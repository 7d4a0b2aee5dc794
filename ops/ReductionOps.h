#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>
#include "ir/IrOp.h"

namespace netforge::ops {

/// Reduction over the axes in the static tensor "axes" (32-bit values, negative ones count from the end).
/// "reduce_type" (string, supplemental) names its kind; "keep_dims" (bool, default false) keeps reduced axes
/// with size 1. A reduction over all axes without "keep_dims" has the shape [1].
///
/// The constructors throw std::invalid_argument for a repeated axis (negative values are not compared) and
/// for a missing or ordinary "reduce_type", std::runtime_error without "axes". The inference reads "axes" in
/// the form that canonicalizeOp leaves: no negative values.
class ReduceOp : public IrOp {
 public:
  ReduceOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  ReduceOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& inputs,
           const TensorList& outputs);
  /// Makes negative axes positive and "axes" unsigned, in the given order. Accepts an axis equal to the rank,
  /// which reduces nothing; beyond that, std::invalid_argument.
  void canonicalizeOp(std::uint32_t numOutputs) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                     std::uint32_t numOutputs) override;
  /// Without "keep_dims" the output is NC when "axes" begins with the spatial axes, in ascending order, of
  /// the layout that input 0 had when it was attached, and NONTRIVIAL otherwise.
  void populateOutputAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder,
                                 const std::map<std::string, std::uint8_t>& inputLayoutCodes,
                                 bool isTimeSeries) override;
};

/// Square root of the sum of squares over "axes". As ReduceOp, without "reduce_type".
class ReduceL2Op : public IrOp {
 public:
  ReduceL2Op(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  ReduceL2Op(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
             const TensorList& inputs, const TensorList& outputs);
  /// The elements of the output.
  std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder) override;
  /// As in ReduceOp, but an axis has to be below the rank.
  void canonicalizeOp(std::uint32_t numOutputs) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                     std::uint32_t numOutputs) override;
  std::vector<DataType> inferOutputDataTypes(std::uint32_t numOutputs) override;
  void populateOutputAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder,
                                 const std::map<std::string, std::uint8_t>& inputLayoutCodes,
                                 bool isTimeSeries) override;
};

}  // namespace netforge::ops
