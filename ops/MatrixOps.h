#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>
#include "ir/IrOp.h"

/// Ops that read their last axes as matrices. Unless told otherwise inference throws std::invalid_argument
/// for inputs that do not fit and leaves the op as it was. A constructor takes a null attribute table as an
/// empty one.

namespace netforge::ops {

/// "MatMul": inputs are left [..., m, k] and right [..., k, n], the output is [..., m, n]; the batch axes in
/// front broadcast, dynamic axes included. "transpose_in0" and "transpose_in1" (bool, false unless given)
/// swap the last two axes of their operand first. macs is m * k * n, the batch axes not counted.
class MatMulOp : public IrOp {
 public:
  MatMulOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  MatMulOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& inputs,
           const TensorList& outputs);
  std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                     std::uint32_t numOutputs) override;
};

/// "FullyConnected": inputs are data, a weight of rank 2 and an optional bias of rank 1. The axis order says
/// which axis of the weight holds the output features. With "keep_dims" the output is the data's dims with
/// the last one replaced by the output features, without it [rows, output features], rows being the number of
/// feature vectors in the data; data of rank 1 gives [output features]. Defaults: "keep_dims" false,
/// "transpose_a" false, "transpose_b" true, "bias_op_name" empty.
///
/// resizeOp gives output 0 the batch axes of input 0 and keeps its features; it throws std::runtime_error
/// when the output has no batch axis or the features of input or output do not fit the weight [output,
/// input].
class FullyConnectedOp : public IrOp {
 public:
  FullyConnectedOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  FullyConnectedOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                   const TensorList& inputs, const TensorList& outputs);
  std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder) override;
  std::uint32_t paramsCount(const std::shared_ptr<AxisOrder>& axisOrder) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  void resizeOp(const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t numOutputs) override;
};

/// "Inverse": inverts the matrices in the last two axes, which must be square and at most 2x2.
class InverseOp : public IrOp {
 public:
  InverseOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  InverseOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
            const TensorList& inputs, const TensorList& outputs);
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
};

/// "HadamardTransform": multiplies the last axis with a Hadamard matrix and with "scale" (float, 1 unless
/// given).
class HadamardTransformOp : public IrOp {
 public:
  HadamardTransformOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  HadamardTransformOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                      const TensorList& inputs, const TensorList& outputs);
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
};

}  // namespace netforge::ops
