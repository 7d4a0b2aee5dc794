#include "GraphRefiner/src/passes/expansion/ExpandSparseOpStructure.h"

#include <iostream>
#include <vector>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/OperationCodes.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "GraphRefiner/src/passes/expansion/OpExpansion.h"

namespace netforge::graphrefiner {

namespace {

constexpr const char* kCount = "num_specified_elements";

bool isSparse(const TensorPtr& tensor) {
  return tensor->getSparseParams().layout != SparseParams().layout;
}

bool isSet(const OpPtr& op, const char* flag) {
  const auto& attributes = op->getAttributes();
  return attributes->hasAttr(flag) && attributes->getAttr<bool>(flag);
}

template <class... Parts>
bool refuse(const Parts&... parts) {
  std::cout << "netforge::graphrefiner::MatchExpandSparseOpStructure::handleAddOp: "
            << "Cannot expand sparse add operation: ";
  (std::cout << ... << parts);
  std::cout << "\n\n" << std::flush;
  return false;
}

// The factory gives every op a package; a new op has one only when the op that it stands for has one.
OpPtr createWithPackage(const std::string& type, const std::string& name, const OpParams& params) {
  const OpPtr op = createOp(type, name, params);
  if (params.count("packageName") == 0) op->getAttributes()->remove("packageName");
  return op;
}

OpParams with(OpParams params, const std::string& name, const OpParam& value) {
  params.insert_or_assign(name, value);
  return params;
}

// What differs from the default of an activation.
OpPtr createActivation(const OpPtr& op, const std::string& name) {
  const auto& attributes = op->getAttributes();
  OpParams params =
      with(OpExpansion::packageOf(op), "operation", attributes->getAttr<std::uint32_t>("operation"));
  for (const char* limit : {"min_value", "max_value"}) {
    if (attributes->hasAttr(limit)) params.emplace(limit, attributes->getAttr<float>(limit));
  }
  const OpPtr activation = createWithPackage("ElementWiseNeuron", name, params);
  for (const char* factor : {"alpha", "beta", "threshold"}) {
    if (!attributes->hasAttr(factor)) continue;
    activation->getAttributes()->add(factor, attributes->getAttr<float>(factor), ATTR_ORDINARY);
  }
  return activation;
}

std::uint32_t countOf(const TensorPtr& tensor) {
  return tensor->getSparseParams().numSpecifiedElements;
}

// [k, last dim of the sparse tensor].
IrTensorShape valuesShape(const TensorPtr& sparse, std::uint32_t k) {
  const IrTensorShape& shape = sparse->getShape();
  const std::uint32_t last = shape.rank() - 1;
  return {{k, shape.dims[last]},
          shape.isDynamicDim(last) ? std::set<std::uint32_t>{1} : std::set<std::uint32_t>{}};
}

// The rows of values that an op makes, one for each specified element.
TensorPtr valuesLike(const std::string& name, const TensorPtr& sparse, std::uint32_t k,
                     const IrTensor& model) {
  const TensorPtr values = OpExpansion::tensorLike(name, valuesShape(sparse, k), model);
  values->setAxisFormat(AxisFormat::NF);
  values->setSrcAxisFormat(AxisFormat::NF);
  values->setExplicitPermuteOrder({});
  return values;
}

// The ops that stand in the place of one elementwise op on sparse tensors, in the order of the calls.
class SparseExpansion : public OpExpansion {
 public:
  SparseExpansion(const GraphPtr& givenGraph, const OpPtr& givenOp, std::uint32_t behind, std::uint32_t count)
      : OpExpansion(givenGraph, givenOp, behind), package(packageOf(givenOp)), k(count) {}

  TensorPtr addValues(const TensorPtr& sparse, const std::string& name) {
    const OpPtr get =
        MatchExpandSparseOpStructure::createGetSparseValuesOp(graph, sparse, name, name + "_out", package, k);
    return addOp(get, {sparse}, graph->getTensor(name + "_out"));
  }
  TensorPtr addIndices(const TensorPtr& sparse, const std::string& name) {
    const auto indices = std::make_shared<IrTensor>(
        name + "_out", std::vector<std::uint32_t>{k, sparse->getRank() - 1}, ORLO_DATATYPE_INT_32,
        ORLO_DATATYPE_INT_32, false, QuantInfo(), AxisFormat::NF, AxisFormat::NF, TensorType::Native,
        std::vector<std::uint32_t>());
    return addOp(createWithPackage("GetSparseIndices", name, with(package, kCount, k)), {sparse}, indices);
  }
  void createSparse(const TensorPtr& indices, const TensorPtr& values, const TensorPtr& replaced,
                    const SparseParams& params, const std::string& name) {
    const TensorPtr result = tensorLike(name + "Out", replaced->getShape(), *replaced);
    result->setSparseParams(params);
    addOp(createWithPackage("CreateSparse", name, package), {indices, values}, result);
    replaceOutputKeepingName(result);
  }

 private:
  OpParams package;
  std::uint32_t k;
};

}  // namespace

MatchExpandSparseOpStructure::MatchExpandSparseOpStructure() {
  const auto makeConv = [](const PatternPtr& input) {
    return makeAlt(makeOp("Conv3d", input), makeOp("Conv2d", input));
  };
  neuronPattern = makeOpType("ElementWiseNeuron");
  sparseIndices1 = makeOpType("GetSparseIndices");
  activation1 = makeOpType("ElementWiseNeuron");
  createSparse1 = makeOp("CreateSparse", sparseIndices1, activation1);
  conv1 = makeConv(createSparse1);
  sparseValues = makeOp("GetSparseValues", conv1);
  sparseIndices2 = makeOp("GetSparseIndices", conv1);
  activation2 = makeOp("ElementWiseNeuron", sparseValues);
  createSparse2 = makeOp("CreateSparse", sparseIndices2, activation2);
  conv2 = makeConv(createSparse2);
  addPattern = makeCommutativeOp("Eltwise_Binary", createSparse1, conv2, makeAttr("operation", kAdd));
  pattern = makeAlt(neuronPattern, addPattern);
}

bool MatchExpandSparseOpStructure::rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) {
  const OpPtr op = matchedOps.at(pattern);
  if (op->numInputs() == 0 || op->numOutputs() == 0) return false;
  if (op->getType() == "ElementWiseNeuron") return handleElementWiseNeuronOp(op, graph);
  if (!convsShareSparseIndices(matchedOps.at(conv1), matchedOps.at(conv2))) return false;
  return isResidual(op, matchedOps) && handleAddOp(op, graph);
}

// A node that stands at two places of the tree may have met two ops.
bool MatchExpandSparseOpStructure::isResidual(const OpPtr& addOp, const MatchedOps& matchedOps) const {
  const auto reads = [](const OpPtr& op, const OpPtr& producer) {
    return op->getInput(0)->getProducer() == producer;
  };
  const OpPtr source = matchedOps.at(createSparse1);
  const OpPtr conv = matchedOps.at(conv1);
  const bool sumsSource =
      addOp->getInput(0)->getProducer() == source || addOp->getInput(1)->getProducer() == source;
  return sumsSource && reads(conv, source) && reads(matchedOps.at(sparseValues), conv) &&
         reads(matchedOps.at(sparseIndices2), conv);
}

bool MatchExpandSparseOpStructure::convsShareSparseIndices(const OpPtr& conv1Op, const OpPtr& conv2Op) {
  if (conv1Op->getType() != conv2Op->getType()) return false;
  const char* flag = conv1Op->getType() == "Conv3d" ? "reuse_sparse_indicies" : "reuse_sparse_indices";
  return isSet(conv1Op, flag) && isSet(conv2Op, flag);
}

OpPtr MatchExpandSparseOpStructure::createGetSparseValuesOp(const GraphPtr& graph, const TensorPtr& input,
                                                            const std::string& opName,
                                                            const std::string& outputName,
                                                            OpParams attributes, std::uint32_t k) {
  graph->addTensor(valuesLike(outputName, input, k, *input));
  return createWithPackage("GetSparseValues", opName, with(std::move(attributes), kCount, k));
}

bool MatchExpandSparseOpStructure::handleElementWiseNeuronOp(const OpPtr& neuronOp, const GraphPtr& graph) {
  const OpPtr op = neuronOp;
  const TensorPtr input = op->getInput(0);
  const TensorPtr output = op->getOutput(0);
  if (!isSparse(input) || input->getRank() < 2) return false;
  const std::string& name = op->getName();
  const std::string indicesName = name + "_sparseIndices";
  const std::string valuesName = name + "_sparseValues";
  const std::string activationName = name + "_postExpansion";
  const std::string resultName = name + "_createSparse";
  if (!OpExpansion::areFree(graph, {indicesName, indicesName + "_out", valuesName, valuesName + "_out",
                                    activationName, resultName, resultName + "Out"})) {
    return false;
  }
  // Ops of a model often call their output so.
  std::string activatedName = name + "_out";
  if (!OpExpansion::areFree(graph, {activatedName})) activatedName = activationName + "_out";
  if (!OpExpansion::areFree(graph, {activatedName})) return false;
  const std::uint32_t k = countOf(input);
  const OpPtr activation = createActivation(op, activationName);

  // ---- edits ----
  SparseExpansion expansion(graph, op, 1, k);
  expansion.traceFrom(input);
  const TensorPtr values = expansion.addValues(input, valuesName);
  const TensorPtr indices = expansion.addIndices(input, indicesName);
  expansion.traceFrom(output);
  const TensorPtr activated = valuesLike(activatedName, input, k, *input);
  expansion.addOp(activation, {values}, activated);
  expansion.createSparse(indices, activated, output, input->getSparseParams(), resultName);
  return true;
}

bool MatchExpandSparseOpStructure::handleAddOp(const OpPtr& addOp, const GraphPtr& graph) {
  const OpPtr op = addOp;
  const TensorPtr a = op->getInput(0);
  const TensorPtr b = op->getInput(1);
  const TensorPtr output = op->getOutput(0);
  if (!isSparse(a) || !isSparse(b)) return refuse("one or both inputs are not sparse tensors");
  if (countOf(a) != countOf(b)) {
    return refuse("numSpecifiedElements mismatch (", countOf(a), " vs ", countOf(b), ")");
  }
  if (a->getSparseParams().numSparseDimensions != b->getSparseParams().numSparseDimensions) {
    return refuse("numSparseDimensions mismatch");
  }
  if (a == b || !hasSameDims(a, b) || b->getRank() < 2) return false;
  const std::string& name = op->getName();
  const std::string valuesOfA = name + "_" + a->getName() + "_sparseValues";
  const std::string valuesOfB = name + "_" + b->getName() + "_sparseValues";
  const std::string indicesName = name + "_" + b->getName() + "_sparseIndices";
  const std::string sumName = name + "_postExpansion";
  const std::string summedName = name + "_addOut";
  const std::string resultName = name + "_createSparse";
  if (!OpExpansion::areFree(graph,
                            {valuesOfA, valuesOfA + "_out", valuesOfB, valuesOfB + "_out", indicesName,
                             indicesName + "_out", sumName, summedName, resultName, resultName + "Out"})) {
    return false;
  }
  const std::uint32_t k = countOf(a);

  // ---- edits ----
  SparseExpansion expansion(graph, op, 0, k);
  expansion.traceFrom(a);
  const TensorPtr left = expansion.addValues(a, valuesOfA);
  expansion.traceFrom(b);
  const TensorPtr right = expansion.addValues(b, valuesOfB);
  const TensorPtr indices = expansion.addIndices(b, indicesName);
  expansion.traceFrom(output);
  const TensorPtr summed = valuesLike(summedName, b, k, *output);
  expansion.addOp(
      createWithPackage("Eltwise_Binary", sumName, with(OpExpansion::packageOf(op), "operation", kAdd)),
      {left, right}, summed);
  expansion.createSparse(indices, summed, output, a->getSparseParams(), resultName);
  return true;
}

std::shared_ptr<Pass> buildExpandSparseOpStructure() {
  return makeSequencePass<MatchExpandSparseOpStructure>();
}
[[maybe_unused]] static const bool registeredExpandSparseOpStructure =
    PassManager::registerPass(PassId::ExpandSparseOpStructure);

}  // namespace netforge::graphrefiner
