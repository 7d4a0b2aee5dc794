// Rewrite utilities that insert, share and fold Transposes.
#include <algorithm>
#include <iostream>
#include <set>
#include <stdexcept>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/Failure.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner {

namespace {

bool isTransposeWith(const OpPtr& op, const Permutation& perm) {
  if (op->getType() != "Transpose" || !op->getAttributes()->hasAttr("perm")) return false;
  return getPermutation(op->getAttributes()->getStaticTensor("perm")) == perm;
}

// The first such consumer in execution order, `except` left out: an op can't read its own output.
OpPtr findSharedTranspose(const IrGraph& graph, const TensorPtr& tensor, const Permutation& perm,
                          const OpPtr& except) {
  for (const OpPtr& consumer : consumersInGraphOrder(graph, tensor->getConsumers())) {
    if (consumer != except && isTransposeWith(consumer, perm)) return consumer;
  }
  return nullptr;
}

std::string transposeName(const std::string& stem, const Permutation& perm) {
  return stem + "_" + permToString(perm);
}

// A reused Transpose may stand behind the op that reads it now: moves it in front.
void moveInFront(const GraphPtr& graph, const OpPtr& transpose, const OpPtr& op) {
  const std::uint32_t count = graph->numOps();
  const std::uint32_t opIndex = graph->getOpIndex(op);
  const std::uint32_t transposeIndex = graph->getOpIndex(transpose);
  if (opIndex == count || transposeIndex == count || transposeIndex <= opIndex) return;
  const OpPtr producer = transpose->getInput(0)->getProducer();
  // A graph input or constant has no producer, and so no place that the op could stand behind.
  const std::uint32_t target = (producer ? graph->getOpIndex(producer) : count) + 1;
  if (opIndex < target) {
    std::cout << "insertOrReuseTranspose: Error: Unable to guarantee topological order while inserting "
                 "Transpose for "
              << op->getName() << std::endl;
  }
  graph->moveOptoIndex(transpose, std::min(opIndex, target));
}

// Behind a graph output: the Transpose's output takes over name, place and encoding.
void takeOverGraphOutput(const GraphPtr& graph, const TensorPtr& input, const TensorPtr& output,
                         const Permutation& perm, const std::string& stem) {
  const std::string outputName = input->getName();
  Permutation order = input->getPermuteOrder();
  if (!order.empty()) order = getInversePermutation(perm);
  const std::string inputName = transposeName(stem, order);
  if (inputName == output->getName()) {
    graph->swapTensorNames(outputName, inputName);  // `perm` is its own inverse
  } else {
    graph->updateTensorName(outputName, inputName);
    graph->updateTensorName(output->getName(), outputName);
  }
  handOverGraphOutput(graph, input, output);
  copyTypeAndEncoding(input, output);
}

}  // namespace

OpPtr findTransposeWithPerm(const TensorPtr& tensor, const Permutation& perm) {
  OpPtr found;
  for (const OpPtr& consumer : tensor->getConsumers()) {
    if ((!found || consumer->getName() < found->getName()) && isTransposeWith(consumer, perm))
      found = consumer;
  }
  return found;
}

TransposeName inspectTransposeName(const GraphPtr& graph, const TensorPtr& tensor, const Permutation& perm,
                                   const std::string& base) {
  return inspectTransposeNamed(graph, tensor, perm,
                               transposeName(base.empty() ? tensor->getName() : base, perm));
}

TransposeName inspectTransposeNamed(const GraphPtr& graph, const TensorPtr& tensor, const Permutation& perm,
                                    const std::string& name) {
  const TensorPtr existing = graph->getTensor(name);
  if (!existing) return graph->hasOp(name) ? TransposeName::Taken : TransposeName::Free;
  const OpPtr producer = existing->getProducer();
  const bool reusable = producer && isTransposeWith(producer, perm) && producer->getInput(0) == tensor;
  return reusable ? TransposeName::Reusable : TransposeName::Taken;
}

bool canInsertOrReuseTranspose(const GraphPtr& graph, const TensorPtr& tensor, const Permutation& perm) {
  return inspectTransposeName(graph, tensor, perm, "") == TransposeName::Free ||
         findTransposeWithPerm(tensor, perm) != nullptr;
}

bool isEncodedAlongAxes(const IrTensor& tensor) {
  switch (tensor.getQuantInfo().encoding) {
    case QuantEncodingKind::AxisScaleOffset:
    case QuantEncodingKind::BwAxisScaleOffset:
    case QuantEncodingKind::BwAxisScaleOffsetMapped:
    case QuantEncodingKind::Block:
    case QuantEncodingKind::BlockMapped:
    case QuantEncodingKind::SbqBlockwise:
    case QuantEncodingKind::LaneEncoding:
      return true;
    default:
      return false;
  }
}

std::optional<std::uint32_t> findChannelAxis(const IrTensor& tensor) {
  const QuantInfo& record = tensor.getQuantInfo();
  if (record.encoding != QuantEncodingKind::AxisScaleOffset &&
      record.encoding != QuantEncodingKind::BwAxisScaleOffset &&
      record.encoding != QuantEncodingKind::BwAxisScaleOffsetMapped) {
    return std::nullopt;
  }
  const std::uint32_t rank = tensor.getRank();
  const auto axis = static_cast<std::uint32_t>(record.axis < 0 ? record.axis + static_cast<std::int32_t>(rank)
                                                               : record.axis);
  return axis < rank ? std::optional(axis) : std::nullopt;
}

void setChannelAxis(IrTensor& tensor, std::uint32_t axis) {
  QuantInfo record = tensor.getQuantInfo();
  record.axis = static_cast<std::int32_t>(axis);
  tensor.setQInfo(tensor.getDataType(), record);
}

void insertOrReuseTranspose(const GraphPtr& graph, const OpPtr& givenOp, std::uint32_t index,
                            const Permutation& perm) {
  const OpPtr op = givenOp;
  const TensorPtr tensor = op->getInput(index);
  const OpPtr transpose = findSharedTranspose(*graph, tensor, perm, op);
  if (!transpose) {
    injectTranspose(graph, tensor->getName(), perm, {op->getName()}, "", false);
    return;
  }
  graph->transferConsumers(tensor, transpose->getOutput(0), {op});
  moveInFront(graph, transpose, op);
}

void injectTranspose(const GraphPtr& graph, const std::string& tensorName, const Permutation& perm,
                     const std::vector<std::string>& consumers, const std::string& base,
                     bool keepGraphOutput) {
  const std::string stem = base.empty() ? tensorName : base;
  const std::string newName = transposeName(stem, perm);
  const TensorPtr input = graph->getTensor(tensorName);
  const OpPtr op = createOp("Transpose", newName, OpParams{{"perm", OpParam(perm)}});
  const std::set<std::string> names(consumers.begin(), consumers.end());
  graph->inject(op, tensorName, newName, {names.begin(), names.end()}, AxisFormat::NOT_YET_DEFINED, true,
                true);

  const TensorPtr output = op->getOutput(0);
  if (const OpPtr producer = input->getProducer()) {
    graph->updateTraceInfo(std::vector<OpPtr>{op}, {producer}, {}, false);
  }
  graph->updateTraceInfo(std::vector<TensorPtr>{output}, {input}, {}, false);

  if (keepGraphOutput && isGraphOutput(input)) takeOverGraphOutput(graph, input, output, perm, stem);

  const Permutation order = input->getPermuteOrder();
  if (order.empty()) return;
  Permutation outputOrder;
  for (const std::uint32_t axis : perm) {
    if (axis >= order.size()) {
      fail<std::out_of_range>("injectTranspose", "Permute order ", order, " of tensor ", input->getName(),
                              " has no entry ", axis);
    }
    outputOrder.push_back(order[axis]);
  }
  output->setExplicitPermuteOrder(outputOrder);
}

bool isFoldableConstantTranspose(const GraphPtr& graph, const OpPtr& op) {
  if (op->numInputs() == 0) return false;
  const TensorPtr constant = op->getInput(0);
  return constant->isStatic() && constant->getConsumers().size() < 2 &&
         isTransposableType(constant->getDataType()) &&
         (!isEncodedAlongAxes(*constant) || findChannelAxis(*constant)) &&
         !graph->hasTensor(joinNameParts(op->getName(), constant->getName(), "", ""));
}

void squashConstantTranspose(const OpPtr& givenOp, const GraphPtr& graph, bool intoNext) {
  const OpPtr op = givenOp;
  const TensorPtr output = op->getOutput(0);
  const StaticTensorPtr constant = std::dynamic_pointer_cast<IrStaticTensor>(op->getInput(0));
  if (!constant || !constant->isStatic()) return;
  const TensorPtr kept = intoNext ? output : TensorPtr(constant);
  if (isGraphOutput(kept)) {
    std::cout << "squashConstantTranspose: Cannot squash constant Transpose op " << op->getName()
              << (intoNext ? " into next op: output" : " into previous op: input") << " tensor "
              << kept->getName() << " is a graph output (app-read) tensor." << std::endl;
    return;
  }

  const Permutation perm = getPermutation(op->getAttributes()->getStaticTensor("perm"));
  const StaticTensorPtr folded =
      transposeStaticTensor(constant, perm, joinNameParts(op->getName(), constant->getName(), "", ""));
  if (const auto axis = findChannelAxis(*constant)) {
    setChannelAxis(*folded, getInversePermutation(perm)[*axis]);
  }
  // The application goes on reading the old constant, if it did.
  if (isGraphOutput(folded)) folded->setTensorType(TensorType::Static);
  graph->addTensor(folded);
  folded->setExplicitPermuteOrder(output->getPermuteOrder());

  replaceOutputByConstant(graph, op, folded, false);
  if (intoNext && !isGraphOutput(constant)) graph->swapTensorNames(constant->getName(), folded->getName());
}

}  // namespace netforge::graphrefiner
