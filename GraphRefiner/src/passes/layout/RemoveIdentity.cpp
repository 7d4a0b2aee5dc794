#include "GraphRefiner/src/passes/layout/RemoveIdentity.h"

#include <algorithm>
#include <exception>
#include <iostream>
#include <string>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/OperationCodes.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RawData.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/Failure.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

namespace {

void report(const char* handler, const std::string& text) {
  std::cout << "netforge::graphrefiner::removeIdentity::" << handler << ": " << text << '\n' << std::endl;
}

// Squashes, or reports `failureText` when the tensors at both ends of the op must stay.
bool trySquash(const GraphPtr& graph, const OpPtr& op, const TensorPtr& input, bool keepInput,
               bool transferQuant, const char* handler, const std::string& failureText) {
  try {
    graph->squash(op, input->getName(), keepInput, transferQuant);
    return true;
  } catch (const std::exception&) {
    report(handler, failureText);
    return false;
  }
}

// A constant whose values stand for good: null for one that can be updated after compilation.
StaticTensorPtr asConstant(const TensorPtr& tensor) {
  return tensor->isUpdateable() ? nullptr : std::dynamic_pointer_cast<IrStaticTensor>(tensor);
}

// Elements are read as 32-bit values whatever their type, so other widths are told apart by their size.
bool hasWordElements(const StaticTensorPtr& constant) {
  return constant->getDataSize() == constant->elements() * sizeof(std::uint32_t);
}

bool isFilledWithOnes(const StaticTensorPtr& constant) {
  return hasWordElements(constant) && allElementsEqualToValue(constant, 1.0f);
}

bool hasInputs(const OpPtr& op, std::uint32_t count) {
  return op->numInputs() >= count && op->numOutputs() >= 1;
}

// Whether the indices are 0, 1, ..., count-1.
bool listsAllPositions(const StaticTensorPtr& indices, std::uint32_t count) {
  const DataType type = indices->getDataType();
  if ((type != ORLO_DATATYPE_INT_32 && type != ORLO_DATATYPE_UINT_32) || !hasWordElements(indices) ||
      indices->elements() != count) {
    return false;
  }
  const std::uint8_t* data = indices->getData();
  for (std::uint32_t i = 0; i < count; ++i) {
    if (loadElement<std::uint32_t>(data, i) != i) return false;
  }
  return true;
}

// A FullyConnected that reads the tensor as its data, and there alone, and makes rows of features out of
// whatever shape it gets.
bool isFlattening(const OpPtr& reader, const TensorPtr& data) {
  if (reader->getType() != "FullyConnected") return false;
  const auto inputs = reader->getInputs();
  if (inputs[0] != data || std::count(inputs.begin(), inputs.end(), data) != 1) return false;
  const auto& attributes = reader->getAttributes();
  return !attributes->hasAttr("keep_dims") || !attributes->getAttr<bool>("keep_dims");
}

bool onlyRegroupsFeatures(const TensorPtr& input, const TensorPtr& output) {
  const std::uint32_t rank = input->getRank();
  if (rank < 1 || rank > 4 || output->getRank() == 0 || output->getConsumers().size() != 1) return false;
  // A vector is one row to a FullyConnected, and its result is a vector then.
  if ((rank == 1) != (output->getRank() == 1)) return false;
  if (input->getDims()[0] != output->getDims()[0] || isGraphOutput(output)) return false;
  return isFlattening(*output->getConsumers().begin(), output);
}

}  // namespace

removeIdentity::removeIdentity() {
  const auto binary = [](std::uint32_t operation) {
    return withAttr(makeOpType("Eltwise_Binary"), makeAttr("operation", static_cast<double>(operation)));
  };
  andPattern = binary(kAnd);
  divPattern = binary(kDivide);
  mulPattern = binary(kMultiply);
  tilePattern = makeOpType("Tile");
  gatherPattern = makeOpType("Gather");
  transposePattern = makeOpType("Transpose");
  reshapePattern = makeOpType("Reshape");
  splitPattern = makeOpType("Split");
  concatPattern = makeOpType("Concat");
  selectPattern =
      withAttr(makeOpType("Eltwise_Ternary"), makeAttr("eltwise_type", std::string("ElementWiseSelect")));
  // The last alternative is tried first, so the first of the list goes in last.
  rootPattern = selectPattern;
  for (const PatternPtr& next : {concatPattern, splitPattern, reshapePattern, transposePattern, gatherPattern,
                                 tilePattern, mulPattern, divPattern, andPattern}) {
    rootPattern = makeAlt(rootPattern, next);
  }
  pattern = rootPattern;
}

bool removeIdentity::rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) {
  const OpPtr op = matchedOps.at(rootPattern);
  const std::string& type = op->getType();
  if (type == "Eltwise_Binary") {
    // Of any integer type, as in the pattern.
    if (hasOperation(op, kAnd)) return handleAndOp(op, graph);
    if (hasOperation(op, kDivide)) return handleDivOp(op, graph);
    return hasOperation(op, kMultiply) && handleMulOp(op, graph);
  }
  if (type == "Tile") return handleTileOp(op, graph);
  if (type == "Gather") return handleGatherOp(op, graph);
  if (type == "Transpose") return handleTransposeOp(op, graph);
  if (type == "Reshape") return handleReshapeOp(op, graph);
  if (type == "Split") return handleSplitOp(op, graph);
  return false;
}

bool removeIdentity::handleAndOp(const OpPtr& op, const GraphPtr& graph) {
  if (!hasInputs(op, 2)) return false;
  const TensorPtr data = op->getInput(0);
  const StaticTensorPtr mask = asConstant(op->getInput(1));
  if (!mask || data->getDataType() != ORLO_DATATYPE_BOOL_8) return false;
  if (data->getShape() != op->getOutput(0)->getShape() || !allElementsEqualToValue(mask, std::uint8_t{1})) {
    return false;
  }
  return trySquash(graph, op, data, false, false, "handleAndOp",
                   "Squash elementwise and op: " + op->getName() + " due to identity not possible ");
}

bool removeIdentity::handleDivOp(const OpPtr& op, const GraphPtr& graph) {
  if (!hasInputs(op, 2)) return false;
  const StaticTensorPtr divisor = asConstant(op->getInput(1));
  if (!divisor || !isFilledWithOnes(divisor)) return false;
  return trySquash(graph, op, op->getInput(0), false, false, "handleDivOp",
                   "Squash elementwise div op: " + op->getName() + " due to identity not possible ");
}

bool removeIdentity::handleMulOp(const OpPtr& op, const GraphPtr& graph) {
  if (!hasInputs(op, 2)) return false;
  const TensorPtr left = op->getInput(0);
  const TensorPtr right = op->getInput(1);
  if (op->getOutput(0)->getConsumers().size() >= 2 || !hasSameDims(left, right)) return false;
  TensorPtr kept;
  if (left->isStatic()) {
    const StaticTensorPtr constant = asConstant(left);
    if (!constant || !isFilledWithOnes(constant)) return false;
    kept = right;
  } else if (const StaticTensorPtr factor = asConstant(right)) {
    const DataType type = left->getDataType();
    const bool isNeutral =
        (type == ORLO_DATATYPE_FLOAT_32 && isFilledWithOnes(factor)) ||
        (type == ORLO_DATATYPE_INT_32 && hasWordElements(factor) && allElementsEqualToValue(factor, 1));
    if (!isNeutral) return false;
    kept = left;
  } else {
    return false;
  }
  return trySquash(graph, op, kept, true, false, "handleMulOp",
                   "Squash elementwise product op: " + op->getName() + " due to identity not possible ");
}

bool removeIdentity::handleTileOp(const OpPtr& op, const GraphPtr& graph) {
  if (!hasInputs(op, 1)) return false;
  const TensorPtr input = op->getInput(0);
  const TensorPtr output = op->getOutput(0);
  if (!hasSameDims(input, output)) return false;
  if (input->getShape().hasDynamicAxes() || output->getShape().hasDynamicAxes()) {
    // The dims of such axes are placeholders: only the multiples tell.
    if (!allElementsEqualToValue(op->getAttributes()->getStaticTensor("multiples"), 1)) return false;
  }
  return trySquash(graph, op, input, false, true, "handleTileOp",
                   "Squash tile op: " + op->getName() + " due to shape match not possible ");
}

bool removeIdentity::handleGatherOp(const OpPtr& op, const GraphPtr& graph) {
  if (!hasInputs(op, 2)) return false;
  const TensorPtr data = op->getInput(0);
  const StaticTensorPtr indices = asConstant(op->getInput(1));
  if (!indices || indices == data || indices->getProducer()) return false;
  if (data->getShape().hasDynamicAxes() || indices->getShape().hasDynamicAxes()) return false;
  if (data->getShape() != op->getOutput(0)->getShape() || data->getConsumers().size() != 1) return false;
  const std::uint32_t axis = readAxis(op, "axis", data->getRank());
  if (axis >= data->getRank() || !listsAllPositions(indices, data->getDims()[axis])) return false;
  const bool keepInput = data->getProducer() == nullptr;
  if (!canSquash(graph, op, data, keepInput)) return false;

  graph->removeOpAsConsumer(op, indices);
  report("handleGatherOp", concatText("Squash Gather Op: ", op->getName(),
                                      " due to IdentityOp. Input shape: ", data->getShape()));
  graph->squash(op, data->getName(), keepInput, true);
  return true;
}

bool removeIdentity::handleTransposeOp(const OpPtr& op, const GraphPtr& graph) {
  if (!hasInputs(op, 1)) return false;
  if (!isIdentityPermutation(getTransposePerm(op))) return false;
  return trySquash(graph, op, op->getInput(0), false, true, "handleTransposeOp",
                   "Unable to squash identity Transpose: " + op->getName() + ".");
}

bool removeIdentity::handleReshapeOp(const OpPtr& op, const GraphPtr& graph) {
  if (!hasInputs(op, 1)) return false;
  const TensorPtr input = op->getInput(0);
  const TensorPtr output = op->getOutput(0);
  const bool isIdentity = input->getShape() == output->getShape() && input->getConsumers().size() == 1 &&
                          !graph->producesStaticGraphOutput(op);
  if (isIdentity && feedsLstmInitialState(op)) return false;
  if (!isIdentity && !onlyRegroupsFeatures(input, output)) return false;
  const std::string done =
      concatText("Squash Reshape Op: ", op->getName(), " due to IdentityOp. Input shape: ", input->getShape(),
                 ", shape after ", output->getShape());

  // The FullyConnected has to read the tensor with the unflattened shape, so that one is kept.
  const bool keepInput = !isIdentity;
  if (canSquash(graph, op, input, keepInput)) dropComputedInputs(graph, op);
  if (!trySquash(graph, op, input, keepInput, true, "handleReshapeOp",
                 "Squash Reshape op: " + op->getName() + " due to identity not possible ")) {
    return false;
  }
  report("handleReshapeOp", done);
  return true;
}

bool removeIdentity::handleSplitOp(const OpPtr& op, const GraphPtr& graph) {
  if (!hasInputs(op, 1)) return false;
  const StaticTensorPtr points = op->getAttributes()->getStaticTensor("split_index");
  if (points->getDims() != std::vector<std::uint32_t>{0}) return false;
  return trySquash(graph, op, op->getInput(0), false, false, "handleSplitOp",
                   "Unable to squash identity Split: " + op->getName() + "due to split index check.");
}

std::shared_ptr<Pass> buildRemoveNoOps1() {
  return makeSequencePass<removeIdentity>();
}

std::shared_ptr<Pass> buildRemoveNoOps2() {
  return makeSequencePass<removeIdentity>();
}

[[maybe_unused]] static const bool registered1 = PassManager::registerPass(PassId::RemoveNoOps1);
[[maybe_unused]] static const bool registered2 = PassManager::registerPass(PassId::RemoveNoOps2);

}  // namespace netforge::graphrefiner
