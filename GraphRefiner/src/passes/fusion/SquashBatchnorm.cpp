#include "GraphRefiner/src/passes/fusion/SquashBatchnorm.h"

#include <algorithm>
#include <iostream>
#include <optional>
#include <vector>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/NameNumbers.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RawData.h"
#include "GraphRefiner/src/passes/fusion/BatchnormFolding.h"
#include "ir/Failure.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

namespace {

void report(const char* function, const OpPtr& op, const std::string& batchnormName) {
  std::cout << "netforge::graphrefiner::squashBatchnorm::" << function << ": Squashed BatchNorm "
            << batchnormName << " into " << op->getType() << " " << op->getName() << std::endl;
}

StaticTensorPtr staticInput(const OpPtr& op, std::uint32_t index) {
  return std::dynamic_pointer_cast<IrStaticTensor>(op->getInput(index));
}

bool isSpatialLast(const IrGraph& graph) {
  return std::dynamic_pointer_cast<SpatialLastAxisOrder>(graph.getAxisOrder()) != nullptr;
}

bool readFlag(const OpPtr& op, const std::string& attribute, bool absent) {
  return op->getAttributes()->hasAttr(attribute) ? op->getAttributes()->getAttr<bool>(attribute) : absent;
}

struct Operands {
  StaticTensorPtr bias;  // null when the op has none
  StaticTensorPtr gamma;
  StaticTensorPtr beta;
};

// A constant that the op may change once it has a copy of its own.
bool canChange(const IrGraph& graph, const OpPtr& op, std::uint32_t index) {
  const StaticTensorPtr constant = staticInput(op, index);
  if (!isFloatConstant(constant) || isGraphOutput(constant)) return false;
  const auto inputs = op->getInputs();
  if (std::count(inputs.begin(), inputs.end(), constant) != 1) return false;
  const bool isShared = constant->getConsumers().size() > 1;
  return !isShared || !graph.hasTensor(op->getName() + (index == 1 ? "_kernel_weight" : "_kernel_bias"));
}

// None when they can't be folded whatever the op. The bias never grows: it must be as large as the operands
// that go into it.
std::optional<Operands> readOperands(const IrGraph& graph, const OpPtr& op, const OpPtr& batchnorm) {
  if (op->numInputs() < 2 || op->numOutputs() != 1 || batchnorm->numInputs() != 3) return std::nullopt;
  const Operands operands{op->numInputs() > 2 ? staticInput(op, 2) : nullptr, staticInput(batchnorm, 1),
                          staticInput(batchnorm, 2)};
  if (!canChange(graph, op, 1) || !isFloatConstant(operands.gamma) || !isFloatConstant(operands.beta)) {
    return std::nullopt;
  }
  if (op->numInputs() > 2) {
    if (!canChange(graph, op, 2)) return std::nullopt;
    const auto& dims = operands.bias->getDims();
    if (!isTailBroadcastable(dims, operands.gamma->getDims()) ||
        !isTailBroadcastable(dims, operands.beta->getDims())) {
      return std::nullopt;
    }
  } else if (isGraphOutput(operands.beta)) {
    return std::nullopt;  // its clone would be one too
  }
  return operands;
}

bool isAllZero(const StaticTensorPtr& tensor) {
  const std::uint8_t* data = tensor->getData();
  for (std::uint64_t i = 0; i < tensor->elements(); ++i) {
    if (loadElement<float>(data, i) != 0.0f) return false;
  }
  return true;
}

// Gives an op without a bias a copy of beta for one.
void addBias(const GraphPtr& graph, const OpPtr& op, const OpPtr& batchnorm, const StaticTensorPtr& beta,
             const std::string& name) {
  graph->addTensor(name, beta);
  const TensorPtr bias = graph->getTensor(name);
  graph->updateTraceInfo({bias}, {beta}, {}, false);
  graph->updateTraceInfo({op}, {batchnorm}, {}, false);
  op->addInput(bias);
  bias->addConsumer(op);
}

std::string freeBiasName(const IrGraph& graph, const std::string& opName) {
  std::string name = opName + "_bias";
  while (graph.hasTensor(name)) {
    std::string number;
    do {
      number = nextNameNumber();
    } while (number.front() == '0');
    name = opName + "_bias__" + number;
  }
  return name;
}

// For backends that keep the encodings of what was folded.
void keepOverriddenOperand(const OpPtr& op, const std::string& attribute, const StaticTensorPtr& operand) {
  if (isQuantizedOrOverridden(operand) && !op->getAttributes()->hasAttr(attribute)) {
    op->getAttributes()->add(attribute, operand, ATTR_SUPPLEMENTAL);
  }
}

// Whether the channels of the Batchnorm are the last axis of the product that its data was made of: an axis
// as long with nothing but axes of length 1 behind it.
bool normalizesLastAxis(const IrGraph& graph, const TensorPtr& data, const TensorPtr& product) {
  const std::uint32_t rank = data->getRank();
  const std::uint32_t axis = isSpatialLast(graph) ? 1 : rank - 1;
  if (axis >= rank || product->getRank() == 0) return false;
  if (data->getDims()[axis] != product->getDims().back()) return false;
  for (std::uint32_t i = axis; i < rank; ++i) {
    if (data->getShape().isDynamicDim(i) || (i > axis && data->getDims()[i] != 1)) return false;
  }
  return true;
}

// The op that a Reshape separates from the Batchnorm gets the encoding that was meant for its values.
void takeEncoding(const TensorPtr& from, const TensorPtr& to) {
  const QuantInfo& record = from->getQuantInfo();
  if (record.encoding != QuantEncodingKind::Undefined) {
    if (to->isQuantizable()) to->setQInfo(from->getDataType(), record);
  } else if (record.isOverridden && isFloatDataType(from->getDataType())) {
    to->setFloatQInfo(from->getDataType(), record);
  }
}

// MatMul and FullyConnected. The output channels are the last axis of the weights after a Transpose with
// `order`, none when that is empty.
bool foldIntoMatrix(const GraphPtr& graph, const OpPtr& op, const OpPtr& batchnorm, const OpPtr& reshape,
                    std::uint32_t channels, const Permutation& order) {
  const TensorPtr output = op->getOutput(0);
  const TensorPtr data = batchnorm->getInput(0);
  if (isQuantizedOrOverridden(output) || isGraphOutput(output)) return false;
  if (reshape && isGraphOutput(reshape->getOutput(0))) return false;
  const auto operands = readOperands(*graph, op, batchnorm);
  if (!operands || !normalizesLastAxis(*graph, data, output)) return false;
  const std::uint32_t allChannels = output->getDims().back();
  if (!isPerChannel(operands->gamma, channels) || !isPerChannel(operands->gamma, allChannels) ||
      !isPerChannel(operands->beta, allChannels)) {
    return false;
  }
  const std::string biasName = op->getName() + "_bias";
  if (!operands->bias && graph->hasTensor(biasName)) return false;
  if (!canSquash(graph, batchnorm, data, false)) return false;

  // ---- edits ----
  manageSharedStaticInput(graph, op, 1);
  if (operands->bias) manageSharedStaticInput(graph, op, 2);
  const StaticTensorPtr weights = staticInput(op, 1);
  overwrite(weights, scaleMatrix(weights, order, operands->gamma));
  if (operands->bias) {
    const StaticTensorPtr bias = staticInput(op, 2);
    overwrite(bias, foldBias(bias, operands->gamma, operands->beta));
  } else {
    addBias(graph, op, batchnorm, operands->beta, biasName);
  }
  const TensorPtr normalized = batchnorm->getOutput(0);
  if (isQuantizedOrOverridden(normalized)) takeEncoding(normalized, output);
  if (reshape) graph->updateTraceInfo({op}, {batchnorm}, {}, false);
  graph->squash(batchnorm, data->getName(), false, false);
  return true;
}

PatternPtr makeBiased(const std::string& opType) {
  return makeAlt(makeOp(opType, makeWildCard(), makeConstant(), makeConstant()),
                 makeOp(opType, makeWildCard(), makeConstant()));
}

}  // namespace

squashBatchnorm::squashBatchnorm() {
  convPattern = makeBiased("Conv2d");
  for (const char* type : {"DepthWiseConv2d", "TransposeConv2d", "TransposeConv3d", "Conv3d"}) {
    convPattern = makeAlt(convPattern, makeBiased(type));
  }
  matMulPattern = makeBiased("MatMul");
  fullyConnectedPattern = makeBiased("FullyConnected");
  reshapePattern = makeOp("Reshape", makeAlt(matMulPattern, fullyConnectedPattern));
  const PatternPtr direct = makeAlt(convPattern, makeAlt(matMulPattern, fullyConnectedPattern));
  batchnormPattern = makeOp("Batchnorm", makeAlt(direct, reshapePattern), makeConstant(), makeConstant());
  pattern = batchnormPattern;
}

bool squashBatchnorm::rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) {
  const OpPtr batchnorm = matchedOps.at(batchnormPattern);
  if (batchnorm->numInputs() != 3 || !batchnorm->getInput(0)->getProducer()) return false;
  const std::string batchnormName = batchnorm->getName();
  const auto bound = [&](const PatternPtr& node) {
    const auto entry = matchedOps.find(node);
    return entry == matchedOps.end() ? nullptr : entry->second;
  };
  OpPtr op;
  bool folded = false;
  if ((op = bound(convPattern))) {
    folded = foldIntoConv(graph, op, batchnorm);
  } else if ((op = bound(matMulPattern))) {
    folded = handleMatMulOp(graph, op, batchnorm, bound(reshapePattern));
  } else if ((op = bound(fullyConnectedPattern))) {
    folded = handleFullyConnectedOp(graph, op, batchnorm, bound(reshapePattern));
  }
  if (folded) report("rewriteCallback", op, batchnormName);
  return folded;
}

bool squashBatchnorm::foldIntoConv(const GraphPtr& graph, const OpPtr& convOp, const OpPtr& batchnormOp) {
  const OpPtr op = convOp;
  const TensorPtr output = op->getOutput(0);
  const TensorPtr data = batchnormOp->getInput(0);
  if (isGraphOutput(output) || isQuantizedOrOverridden(op->getInput(1))) return false;
  const bool hasBias = op->numInputs() > 2;
  if (hasBias ? isQuantizedOrOverridden(op->getInput(2)) : !graph->acceptsBiaslessFold) return false;
  if (data->getRank() < 4 || output->getConsumers().size() != 1) return false;
  const auto operands = readOperands(*graph, op, batchnormOp);
  if (!operands) return false;
  const bool isChannelFirst = isSpatialLast(*graph);
  const ConvWeights weights = readConvWeights(op, isChannelFirst);
  if (!weights.tensor) return false;
  const std::uint64_t allChannels = std::uint64_t{weights.group} * weights.channels;
  if (!isPerChannel(operands->gamma, weights.channels) &&
      !(isChannelFirst && isPerChannel(operands->gamma, allChannels))) {
    return false;
  }
  const bool needsBias = !hasBias && !isAllZero(operands->beta);
  if (needsBias && !isPerChannel(operands->beta, allChannels)) return false;
  const auto changedName = [&](std::uint32_t index, const char* copySuffix) {
    const TensorPtr input = op->getInput(index);
    return (input->getConsumers().size() > 1 ? op->getName() + copySuffix : input->getName()) + "_fused_bn";
  };
  const std::string weightsName = changedName(1, "_kernel_weight");
  const std::string biasName = hasBias ? changedName(2, "_kernel_bias") : "";
  if (graph->hasTensor(weightsName) || (hasBias && graph->hasTensor(biasName))) return false;
  if (!canSquash(graph, batchnormOp, data, false)) return false;

  // ---- edits ----
  manageSharedStaticInput(graph, op, 1);
  if (hasBias) manageSharedStaticInput(graph, op, 2);
  ConvWeights own = weights;
  own.tensor = staticInput(op, 1);
  overwrite(own.tensor, scaleConvWeights(own, operands->gamma));
  const StaticTensorPtr bias = hasBias ? staticInput(op, 2) : nullptr;
  if (bias) {
    overwrite(bias, foldBias(bias, operands->gamma, operands->beta));
  } else if (needsBias) {
    addBias(graph, op, batchnormOp, operands->beta, freeBiasName(*graph, op->getName()));
  }
  graph->updateTensorName(own.tensor->getName(), weightsName);
  if (bias) graph->updateTensorName(bias->getName(), biasName);
  if (op->getType() == "Conv2d" || op->getType() == "DepthWiseConv2d") {
    keepOverriddenOperand(op, "gamma", operands->gamma);
    keepOverriddenOperand(op, "beta", operands->beta);
  }
  graph->squash(batchnormOp, data->getName(), false, false);
  return true;
}

bool squashBatchnorm::handleFullyConnectedOp(const GraphPtr& graph, const OpPtr& fcOp,
                                             const OpPtr& batchnormOp, const OpPtr& reshapeOp) {
  const OpPtr op = fcOp;
  const auto& dims = op->getInput(1)->getDims();
  if (dims.size() != 2) return false;
  const bool isTransposed = readFlag(op, "transpose_b", true);
  const std::string batchnormName = batchnormOp->getName();
  if (!foldIntoMatrix(graph, op, batchnormOp, reshapeOp, isTransposed ? dims[1] : dims[0],
                      isTransposed ? Permutation{} : Permutation{1, 0})) {
    return false;
  }
  report("handleFullyConnectedOp", op, batchnormName);
  return true;
}

bool squashBatchnorm::handleMatMulOp(const GraphPtr& graph, const OpPtr& matMulOp, const OpPtr& batchnormOp,
                                     const OpPtr& reshapeOp) {
  const OpPtr op = matMulOp;
  const auto& dims = op->getInput(1)->getDims();
  if (dims.size() != 2 && dims.size() != 3) return false;
  if (!readFlag(op, "transpose_in1", false)) {
    return foldIntoMatrix(graph, op, batchnormOp, reshapeOp, dims.back(), {});
  }
  const Permutation order = dims.size() == 2 ? Permutation{1, 0} : Permutation{0, 2, 1};
  return foldIntoMatrix(graph, op, batchnormOp, reshapeOp, dims[dims.size() - 2], order);
}

std::shared_ptr<Pass> buildSquashBatchnorm() {
  return makeSequencePass<squashBatchnorm>();
}

[[maybe_unused]] static const bool registeredSquashBatchnorm =
    PassManager::registerPass(PassId::SquashBatchnorm);

}  // namespace netforge::graphrefiner
