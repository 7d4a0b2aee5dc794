#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>
#include "ir/IrOp.h"

/// Ops that compute each output element from the elements at the same place of their inputs. Unless told
/// otherwise inference throws std::invalid_argument for inputs that do not fit and leaves the op as it was.
/// A constructor takes a null attribute table as an empty one.

namespace netforge::ops {

/// "Eltwise_Binary": two operands that broadcast against each other (dynamic axes included), one output.
/// "operation" (unsigned 32-bit) names the function: 0 add, 1 and, 2 divide, 3 equal, 4 floor-divide, 5 fmod,
/// 6 greater, 7 greater-equal, 8 less, 9 less-equal, 10 maximum, 11 minimum, 12 mod, 13 multiply, 14
/// not-equal, 15 or, 16 power, 18 subtract, 19 xor. The logical and comparing ones give bool. Outputs keep
/// their layout.
class ElementwiseBinaryOp : public IrOp {
 public:
  ElementwiseBinaryOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  ElementwiseBinaryOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                      const TensorList& inputs, const TensorList& outputs);
  std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                     std::uint32_t numOutputs) override;
  std::vector<DataType> inferOutputDataTypes(std::uint32_t numOutputs) override;
  void overrideDataAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder) override;
  void populateOutputAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder,
                                 const std::map<std::string, std::uint8_t>& inputLayoutCodes,
                                 bool isTimeSeries) override;
};

/// "Eltwise_Ternary": three operands that broadcast, one output. "eltwise_type" (string, supplemental) names
/// the function; the constructor throws std::invalid_argument without it. "ElementWiseSelect" reads
/// (condition, then, else) and takes its source type from the second operand. Outputs keep their layout.
class ElementwiseTernaryOp : public IrOp {
 public:
  ElementwiseTernaryOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  ElementwiseTernaryOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                       const TensorList& inputs, const TensorList& outputs);
  std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  std::vector<DataType> inferOutputDataTypes(std::uint32_t numOutputs) override;
  std::vector<DataType> inferOutputSrcDataTypes(std::uint32_t numOutputs) override;
  void overrideDataAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder) override;
  void populateOutputAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder,
                                 const std::map<std::string, std::uint8_t>& inputLayoutCodes,
                                 bool isTimeSeries) override;
};

/// "Eltwise_Unary": one input, an output of the same shape. "operation" (unsigned 32-bit): 0 abs, 1 asin, 2
/// atan, 3 ceil, 4 cos, 5 exp, 6 floor, 7 log, 8 neg, 9 not, 11 round, 12 rsqrt, 13 sign, 14 sin, 15 sqrt.
class ElementwiseUnaryOp : public IrOp {
 public:
  ElementwiseUnaryOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  ElementwiseUnaryOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                     const TensorList& inputs, const TensorList& outputs);
  std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                     std::uint32_t numOutputs) override;
};

/// "ElementWiseMux": inputs are a selector, then the values to choose from; all broadcast to the output's
/// shape. The output has the types of the first value.
class ElementWiseMuxOp : public IrOp {
 public:
  ElementWiseMuxOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  ElementWiseMuxOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                   const TensorList& inputs, const TensorList& outputs);
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  std::vector<DataType> inferOutputDataTypes(std::uint32_t numOutputs) override;
  std::vector<DataType> inferOutputSrcDataTypes(std::uint32_t numOutputs) override;
};

/// "ElementWiseNeuron": an activation, one input, an output of the same shape. "operation" (unsigned 32-bit,
/// required): 0 elu, 1 gelu, 2 hard sigmoid, 3 hard swish, 4 relu, 5 relu with limits, 6 sigmoid, 7 softplus,
/// 8 tanh. The constructor adds "alpha" 1 for 0, "alpha" 0.2 and "beta" 0.5 for 2, "beta" 1 and "threshold"
/// -1 for 7, and throws std::runtime_error when "operation", or "min_value" or "max_value" of 5, is missing.
class ElementwiseNeuronOp : public IrOp {
 public:
  ElementwiseNeuronOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  ElementwiseNeuronOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                      const TensorList& inputs, const TensorList& outputs);
  std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                     std::uint32_t numOutputs) override;
};

/// "Mean": the mean of any number of inputs of one shape. The output has the shape of input 0; the inputs are
/// not broadcast. Outputs keep their layout.
class ElementwiseMeanOp : public IrOp {
 public:
  ElementwiseMeanOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  ElementwiseMeanOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                    const TensorList& inputs, const TensorList& outputs);
  std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                     std::uint32_t numOutputs) override;
  std::vector<DataType> inferOutputDataTypes(std::uint32_t numOutputs) override;
  void populateOutputAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder,
                                 const std::map<std::string, std::uint8_t>& inputLayoutCodes,
                                 bool isTimeSeries) override;
};

/// "Prelu": inputs are data and the slopes of the negative side, of rank 1 or of the data's rank.
class PreluOp : public IrOp {
 public:
  PreluOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  PreluOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& inputs,
          const TensorList& outputs);
  std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
};

/// "ThresholdedRelu": x where x > "alpha" (float), else 0.
class ThresholdedReluOp : public IrOp {
 public:
  ThresholdedReluOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  ThresholdedReluOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                    const TensorList& inputs, const TensorList& outputs);
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
};

/// "Cast": one input, an output of the same shape. The target type is the data type of the output tensor,
/// which whoever makes the op sets.
class CastOp : public IrOp {
 public:
  CastOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  CastOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& inputs,
         const TensorList& outputs);
  std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                     std::uint32_t numOutputs) override;
};

/// "Convert": a change of quantisation, one input, an output of the same shape. As with CastOp the target is
/// the output tensor's. "dynamic_input_data" and "dynamic_output_data" (bool) are false unless given.
class ConvertOp : public IrOp {
 public:
  ConvertOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  ConvertOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
            const TensorList& inputs, const TensorList& outputs);
  std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                     std::uint32_t numOutputs) override;
};

/// "Dequantize": a float output from a quantised input. Whatever becomes its output stops being quantizable.
class DequantizeOp : public IrOp {
 public:
  DequantizeOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  DequantizeOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
               const TensorList& inputs, const TensorList& outputs);
  void addOutput(const std::shared_ptr<IrTensor>& tensor, std::int32_t idx = -1) override;
  std::vector<DataType> inferOutputDataTypes(std::uint32_t numOutputs) override;
};

}  // namespace netforge::ops
