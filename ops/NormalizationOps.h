#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>
#include "ir/IrOp.h"

/// Normalisations, and the ops that rank or weigh the elements along an axis. Unless told otherwise inference
/// throws std::invalid_argument for inputs that do not fit and leaves the op as it was. A constructor takes a
/// null attribute table as an empty one.

namespace netforge::ops {

/// "Batchnorm": data, weight and bias per channel; the output has the data's shape. The data stands in the
/// axis order's layout of its rank.
class BatchnormOp : public IrOp {
 public:
  BatchnormOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  BatchnormOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
              const TensorList& inputs, const TensorList& outputs);
  std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  void overrideDataAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder) override;
};

/// "LayerNorm": normalises over "axes" (static tensor of 32-bit values, made non-negative and unsigned by
/// canonicalizeOp). "epsilon" (float) is 0.001 unless given. macs counts five steps per output element.
class LayerNormOp : public IrOp {
 public:
  LayerNormOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  LayerNormOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
              const TensorList& inputs, const TensorList& outputs);
  std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder) override;
  void canonicalizeOp(std::uint32_t numOutputs) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
};

/// "RmsNorm": divides by the root mean square over "axes". "epsilon" (float) is 0.001 unless given.
class RMSNormOp : public IrOp {
 public:
  RMSNormOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  RMSNormOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
            const TensorList& inputs, const TensorList& outputs);
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                     std::uint32_t numOutputs) override;
};

/// "Softmax" along "axis" (signed 32-bit -1 unless given; canonicalizeOp makes it non-negative and unsigned),
/// with an optional "beta" (float) as factor.
class SoftmaxOp : public IrOp {
 public:
  SoftmaxOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  SoftmaxOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
            const TensorList& inputs, const TensorList& outputs);
  void canonicalizeOp(std::uint32_t numOutputs) override;
  std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                     std::uint32_t numOutputs) override;
};

/// "TopK": outputs are the "k" (unsigned 32-bit) greatest values of the last axis, or the smallest when
/// "largest" (bool, true unless given) is false, and their 32-bit signed indices.
class TopKOp : public IrOp {
 public:
  TopKOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  TopKOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& inputs,
         const TensorList& outputs);
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  std::vector<DataType> inferOutputDataTypes(std::uint32_t numOutputs) override;
};

}  // namespace netforge::ops
