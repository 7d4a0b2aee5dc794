#include "ops/ElementwiseOps.h"

#include <algorithm>
#include <array>

#include "ops/Broadcast.h"
#include "ops/OpDefaults.h"
#include "ops/OpFailure.h"
#include "ops/OpInference.h"

namespace netforge::ops {

namespace {

// Codes of "operation" of ElementWiseNeuron that need more than themselves.
enum NeuronOperation : std::uint32_t {
  NeuronElu = 0,
  NeuronHardSigmoid = 2,
  NeuronReluMinMax = 5,
  NeuronSoftplus = 7
};

// Codes of "operation" of Eltwise_Binary that give bool: and, equal, greater, greater-equal, less,
// less-equal, not-equal, or, xor.
constexpr std::array<std::uint32_t, 9> boolOperations = {1, 3, 6, 7, 8, 9, 14, 15, 19};

}  // namespace

// Eltwise_Binary

ElementwiseBinaryOp::ElementwiseBinaryOp(const std::string& name,
                                         const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Eltwise_Binary", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(ElementwiseBinaryOp)

std::uint64_t ElementwiseBinaryOp::macs(const std::shared_ptr<AxisOrder>&) {
  return outputElements(*this);
}

std::vector<std::vector<std::uint32_t>> ElementwiseBinaryOp::inferOutputShapes(
    const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t numOutputs) {
  return inferDimsThroughShapes(
      *this, axisOrder, numOutputs, "netforge::ops::ElementwiseBinaryOp::inferOutputShapes",
      "ElementwiseBinaryOp " + getName() + " has dynamic inputs. Use inferOutputTensorShapes instead.",
      "No output shapes infered for " + getName() + " op.");
}

std::vector<IrTensorShape> ElementwiseBinaryOp::inferOutputTensorShapes(const std::shared_ptr<AxisOrder>&,
                                                                        std::uint32_t) {
  return {getBroadcastedTensorShape(getInput(0)->getShape(), getInput(1)->getShape())};
}

std::vector<DataType> ElementwiseBinaryOp::inferOutputDataTypes(std::uint32_t) {
  const auto operation = getAttributes()->getAttr<std::uint32_t>("operation");
  if (std::find(boolOperations.begin(), boolOperations.end(), operation) != boolOperations.end()) {
    return {ORLO_DATATYPE_BOOL_8};
  }
  return inferFirstInputDataType(*this);
}

void ElementwiseBinaryOp::overrideDataAxisFormats(const std::shared_ptr<AxisOrder>&) {
  spreadNontrivialFormat(*this);
}

void ElementwiseBinaryOp::populateOutputAxisFormats(const std::shared_ptr<AxisOrder>&,
                                                    const std::map<std::string, std::uint8_t>&, bool) {}

// Eltwise_Ternary

ElementwiseTernaryOp::ElementwiseTernaryOp(const std::string& name,
                                           const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Eltwise_Ternary", attributes) {
  requireSupplemental(getAttributes(), "netforge::ops::ElementwiseTernaryOp::ElementwiseTernaryOp",
                      "eltwise_type", "attribute", name);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(ElementwiseTernaryOp)

std::uint64_t ElementwiseTernaryOp::macs(const std::shared_ptr<AxisOrder>&) {
  return outputElements(*this);
}

std::vector<std::vector<std::uint32_t>> ElementwiseTernaryOp::inferOutputShapes(
    const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t) {
  refuseDynamicInputs(*this, "netforge::ops::ElementwiseTernaryOp::inferOutputShapes");
  return {getBroadcastedShape(getInput(0)->getDims(), getInput(1)->getDims(), getInput(2)->getDims(),
                              axisOrder, false)};
}

std::vector<DataType> ElementwiseTernaryOp::inferOutputDataTypes(std::uint32_t) {
  return inferFirstInputDataType(*this);
}

std::vector<DataType> ElementwiseTernaryOp::inferOutputSrcDataTypes(std::uint32_t numOutputs) {
  if (getAttributes()->getAttr<std::string>("eltwise_type") == "ElementWiseSelect") {
    // Input 0 is the condition.
    return {getInput(1)->getSrcDataType()};
  }
  return IrOp::inferOutputSrcDataTypes(numOutputs);
}

void ElementwiseTernaryOp::overrideDataAxisFormats(const std::shared_ptr<AxisOrder>&) {
  spreadNontrivialFormat(*this);
}

void ElementwiseTernaryOp::populateOutputAxisFormats(const std::shared_ptr<AxisOrder>&,
                                                     const std::map<std::string, std::uint8_t>&, bool) {}

// Eltwise_Unary

ElementwiseUnaryOp::ElementwiseUnaryOp(const std::string& name,
                                       const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Eltwise_Unary", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(ElementwiseUnaryOp)

std::vector<IrTensorShape> ElementwiseUnaryOp::inferOutputTensorShapes(const std::shared_ptr<AxisOrder>&,
                                                                       std::uint32_t) {
  return inferFirstInputShape(*this);
}

// ElementWiseMux

ElementWiseMuxOp::ElementWiseMuxOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "ElementWiseMux", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(ElementWiseMuxOp)

std::vector<std::vector<std::uint32_t>> ElementWiseMuxOp::inferOutputShapes(
    const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t) {
  refuseDynamicInputs(*this, "netforge::ops::ElementWiseMuxOp::inferOutputShapes");
  std::vector<std::uint32_t> dims = getInput(0)->getDims();
  for (std::uint32_t i = 1; i < numInputs(); ++i) {
    dims = getBroadcastedShape(getInput(i)->getDims(), dims, axisOrder, false);
  }
  return {dims};
}

std::vector<DataType> ElementWiseMuxOp::inferOutputDataTypes(std::uint32_t) {
  return {getInput(1)->getDataType()};
}

std::vector<DataType> ElementWiseMuxOp::inferOutputSrcDataTypes(std::uint32_t) {
  return {getInput(1)->getSrcDataType()};
}

// ElementWiseNeuron

ElementwiseNeuronOp::ElementwiseNeuronOp(const std::string& name,
                                         const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "ElementWiseNeuron", attributes) {
  const auto& table = getAttributes();
  switch (table->getAttr<std::uint32_t>("operation")) {
    case NeuronElu:
      addDefault(table, "alpha", 1.0f, ATTR_ORDINARY);
      break;
    case NeuronHardSigmoid:
      addDefault(table, "alpha", 0.2f, ATTR_ORDINARY);
      addDefault(table, "beta", 0.5f, ATTR_ORDINARY);
      break;
    case NeuronReluMinMax:
      table->assertAttrExists("min_value");
      table->assertAttrExists("max_value");
      break;
    case NeuronSoftplus:
      addDefault(table, "beta", 1.0f, ATTR_ORDINARY);
      addDefault(table, "threshold", -1.0f, ATTR_ORDINARY);
      break;
    default:
      break;
  }
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(ElementwiseNeuronOp)

std::uint64_t ElementwiseNeuronOp::macs(const std::shared_ptr<AxisOrder>&) {
  return outputElements(*this);
}

std::vector<std::vector<std::uint32_t>> ElementwiseNeuronOp::inferOutputShapes(
    const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t numOutputs) {
  return inferDimsThroughShapes(
      *this, axisOrder, numOutputs, "netforge::ops::ElementwiseNeuronOp::inferOutputShapes",
      "ElementwiseNeuronOp " + getName() + " has dynamic inputs. Use inferOutputTensorShapes instead.",
      "No output shapes infered for " + getName() + " op.");
}

std::vector<IrTensorShape> ElementwiseNeuronOp::inferOutputTensorShapes(const std::shared_ptr<AxisOrder>&,
                                                                        std::uint32_t) {
  return inferFirstInputShape(*this);
}

// Mean

ElementwiseMeanOp::ElementwiseMeanOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Mean", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(ElementwiseMeanOp)

std::uint64_t ElementwiseMeanOp::macs(const std::shared_ptr<AxisOrder>&) {
  return numInputs() * outputElements(*this);
}

std::vector<std::vector<std::uint32_t>> ElementwiseMeanOp::inferOutputShapes(
    const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t numOutputs) {
  return inferDimsThroughShapes(
      *this, axisOrder, numOutputs, "netforge::ops::ElementwiseMeanOp::inferOutputShapes",
      "ElementwiseMeanOp " + getName() + " has dynamic inputs. Use inferOutputTensorShapes instead.",
      "No output shapes inferred for " + getName() + " op.");
}

std::vector<IrTensorShape> ElementwiseMeanOp::inferOutputTensorShapes(const std::shared_ptr<AxisOrder>&,
                                                                      std::uint32_t) {
  return inferFirstInputShape(*this);
}

std::vector<DataType> ElementwiseMeanOp::inferOutputDataTypes(std::uint32_t) {
  return inferFirstInputDataType(*this);
}

void ElementwiseMeanOp::populateOutputAxisFormats(const std::shared_ptr<AxisOrder>&,
                                                  const std::map<std::string, std::uint8_t>&, bool) {}

// Prelu

PreluOp::PreluOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Prelu", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(PreluOp)

std::uint64_t PreluOp::macs(const std::shared_ptr<AxisOrder>&) {
  return outputElements(*this);
}

std::vector<std::vector<std::uint32_t>> PreluOp::inferOutputShapes(const std::shared_ptr<AxisOrder>&,
                                                                   std::uint32_t) {
  const char* function = "netforge::ops::PreluOp::inferOutputShapes";
  refuseDynamicInputs(*this, function);
  const std::uint32_t inputRank = getInput(0)->getRank();
  const std::uint32_t slopeRank = getInput(1)->getRank();
  if (slopeRank != 1 && slopeRank != inputRank) {
    throwInvalidArgument(function, "Prelu coefficient rank must equal either 1 or input rank {", inputRank,
                         "}, but got {", slopeRank, "} instead.");
  }
  return {getInput(0)->getDims()};
}

// ThresholdedRelu

ThresholdedReluOp::ThresholdedReluOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "ThresholdedRelu", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(ThresholdedReluOp)

std::vector<std::vector<std::uint32_t>> ThresholdedReluOp::inferOutputShapes(
    const std::shared_ptr<AxisOrder>&, std::uint32_t) {
  refuseDynamicInputs(*this, "netforge::ops::ThresholdedReluOp::inferOutputShapes");
  return {getInput(0)->getDims()};
}

// Cast, Convert, Dequantize

CastOp::CastOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Cast", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(CastOp)

std::vector<IrTensorShape> CastOp::inferOutputTensorShapes(const std::shared_ptr<AxisOrder>&, std::uint32_t) {
  return inferFirstInputShape(*this);
}

ConvertOp::ConvertOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Convert", attributes) {
  addDefault(getAttributes(), "dynamic_input_data", false, ATTR_ORDINARY);
  addDefault(getAttributes(), "dynamic_output_data", false, ATTR_ORDINARY);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(ConvertOp)

std::vector<IrTensorShape> ConvertOp::inferOutputTensorShapes(const std::shared_ptr<AxisOrder>&,
                                                              std::uint32_t) {
  return inferFirstInputShape(*this);
}

DequantizeOp::DequantizeOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Dequantize", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(DequantizeOp)

void DequantizeOp::addOutput(const std::shared_ptr<IrTensor>& tensor, std::int32_t idx) {
  IrOp::addOutput(tensor, idx);
  tensor->setQuantizable(false);
}

std::vector<DataType> DequantizeOp::inferOutputDataTypes(std::uint32_t) {
  return {ORLO_DATATYPE_FLOAT_32};
}

}  // namespace netforge::ops
