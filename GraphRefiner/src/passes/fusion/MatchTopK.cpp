#include "GraphRefiner/src/passes/fusion/MatchTopK.h"

#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RawData.h"
#include "ir/Failure.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner {

using Dims = std::vector<std::uint32_t>;

namespace {

template <class... Parts>
void report(const char* function, const Parts&... parts) {
  std::cout << concatText("netforge::graphrefiner::MatchTopKRule::", function, ": MatchTopKPass: ", parts...)
            << std::endl;
}

bool hasText(const OpPtr& op, const std::string& attribute, const std::string& text) {
  const auto& attributes = op->getAttributes()->entries();
  const auto entry = attributes.find(attribute);
  return entry != attributes.end() && entry->second.isString() && entry->second.stringValue == text;
}

bool keepsDims(const OpPtr& op) {
  const auto& attributes = op->getAttributes()->entries();
  const auto entry = attributes.find("keep_dims");
  return entry != attributes.end() && entry->second.attrType == ORLO_PARAMTYPE_SCALAR &&
         entry->second.intValue != 0;
}

// The only axis of a Reduce, counted from the front.
std::optional<std::uint32_t> onlyAxis(const OpPtr& reduce, std::uint32_t rank) {
  const auto& attributes = reduce->getAttributes()->entries();
  const auto entry = attributes.find("axes");
  if (entry == attributes.end() || !entry->second.tensorValue) return std::nullopt;
  const StaticTensorPtr axes = entry->second.tensorValue;
  if (axes->getRank() == 0 || axes->getDims()[0] != 1 || axes->elements() != 1) return std::nullopt;
  if (axes->getDataSize() != sizeof(std::int32_t)) return std::nullopt;
  std::int64_t axis = loadElement<std::int32_t>(axes->getData(), 0);
  if (axis < 0) axis += rank;
  if (axis < 0 || axis >= rank) return std::nullopt;
  return static_cast<std::uint32_t>(axis);
}

bool hasRecord(const QuantInfo& record) {
  return record.encoding != QuantEncodingKind::Undefined || record.isOverridden;
}

// What the fusion calls its ops and tensors; a Transpose's name gets the digits of its order.
struct Names {
  explicit Names(const std::string& reduceName) : topK(reduceName + "_topk_0") {}

  std::string topK;
  std::string values = topK + "_values";
  std::string indices = topK + "_indices";
  std::string preTranspose = topK + "_pre_transpose";
  std::string valuesTranspose = topK + "_post_transpose_value";
  std::string indicesTranspose = topK + "_post_transpose_indice";
  std::string valuesReshape = topK + "_post_reshape_value";
  std::string indicesReshape = topK + "_post_reshape_indice";

  bool areFree(const IrGraph& graph, const Permutation& perm, const Permutation& inverse) const {
    std::vector<std::string> tensors{values, indices};
    std::vector<std::string> ops{topK, valuesReshape, indicesReshape};
    std::string valuesFeed = values;
    std::string indicesFeed = indices;
    if (!perm.empty()) {
      valuesFeed = valuesTranspose + "_" + permToString(inverse);
      indicesFeed = indicesTranspose + "_" + permToString(inverse);
      for (const std::string& name : {preTranspose + "_" + permToString(perm), valuesFeed, indicesFeed}) {
        tensors.push_back(name);
        ops.push_back(name);
      }
    }
    tensors.push_back(valuesFeed + "_reshape_value");
    tensors.push_back(indicesFeed + "_reshape_indice");
    for (const std::string& name : tensors) {
      if (graph.hasTensor(name)) return false;
    }
    for (const std::string& name : ops) {
      if (graph.hasOp(name)) return false;
    }
    return true;
  }
};

// The encoding of the maximum goes to the values; the indices have none.
void copyEncoding(const TensorPtr& from, const TensorPtr& to) {
  const QuantInfo& record = from->getQuantInfo();
  if (!hasRecord(record)) return;
  if (isFloatDataType(from->getDataType())) {
    to->setFloatQInfo(from->getDataType(), record);
  } else if (record.encoding != QuantEncodingKind::Undefined) {
    to->setDataType(ORLO_DATATYPE_FLOAT_32);  // only a float tensor can be made quantizable
    to->setQuantizable(true);
    to->setQInfo(from->getDataType(), record);
  }
}

// Lets `feed` stand for the op's output, behind a Reshape that takes the axis off unless the op keeps it.
void takeOver(const GraphPtr& graph, const OpPtr& op, const TensorPtr& feed, std::uint32_t axis,
              const std::string& reshapeName, const std::string& reshapeSuffix) {
  if (keepsDims(op)) {
    graph->squash(op, feed->getName(), false, false);
    return;
  }
  Dims shape = MatchTopKRule::dropDim(feed->getDims(), axis);
  if (shape.empty()) shape = {1};
  const OpPtr reshape = createOp("Reshape", reshapeName, {{"shape", shape}});
  const std::string reshaped = feed->getName() + reshapeSuffix;
  graph->inject(reshape, feed->getName(), reshaped, {op->getName()});
  graph->updateTraceInfo({reshape}, {op}, {}, false);
  graph->updateTraceInfo({reshape->getOutput(0)}, {feed}, {}, false);
  graph->squash(op, reshaped, false, false);
}

}  // namespace

MatchTopKRule::MatchTopKRule() {
  pattern = makeOpType("Reduce");
}

OpPtr MatchTopKRule::findArgmaxSibling(const IrGraph& graph, const OpPtr& reduceOp,
                                       std::uint32_t axis) const {
  const TensorPtr input = reduceOp->getInput(0);
  IrGraph::OpSet siblings;
  for (const OpPtr& op : input->getConsumers()) {
    if (op == reduceOp || op->getType() != "Arg" || !hasText(op, "arg_type", "Argmax")) continue;
    const auto& attributes = op->getAttributes()->entries();
    const auto entry = attributes.find("axis");
    if (entry == attributes.end() || entry->second.attrType != ORLO_PARAMTYPE_SCALAR ||
        entry->second.dataType != ORLO_DATATYPE_UINT_32 || entry->second.intValue != axis) {
      continue;
    }
    if (op->numInputs() == 1 && op->numOutputs() == 1) siblings.insert(op);
  }
  return siblings.empty() ? nullptr : consumersInGraphOrder(graph, siblings).front();
}

bool MatchTopKRule::hasMatchingIOEncodings(const OpPtr& reduceOp, const OpPtr& argOp) const {
  const QuantInfo& out = reduceOp->getOutput(0)->getQuantInfo();
  if (!hasRecord(out)) return true;
  const QuantInfo& in = reduceOp->getInput(0)->getQuantInfo();
  if (hasRecord(in) && in == out) return true;
  report("hasMatchingIOEncodings", "Skipping fusion for ReduceMax '", reduceOp->getName(), "' + Argmax '",
         argOp->getName(),
         hasRecord(in) ? "': ReduceMax input and output encoding schemes differ."
                       : "': ReduceMax output encoding present but input (parent) encoding is missing.");
  return false;
}

Dims MatchTopKRule::dropDim(const Dims& dims, std::uint32_t axis) {
  if (axis >= dims.size()) {
    throw std::runtime_error(concatText("MatchTopKPass: dropDim: axisToDrop (", axis,
                                        ") is out of bounds for rank ", dims.size()));
  }
  Dims result = dims;
  result.erase(result.begin() + static_cast<std::ptrdiff_t>(axis));
  return result;
}

// Empty for the last axis, which needs no Transpose.
Permutation MatchTopKRule::axisToLast(const IrGraph& graph, std::uint32_t rank, std::uint32_t axis) {
  if (axis + 1 == rank) return {};
  if (!axisOrderKnown) {
    isSpatialLast = std::dynamic_pointer_cast<SpatialLastAxisOrder>(graph.getAxisOrder()) != nullptr;
    axisOrderKnown = true;
  }
  return isSpatialLast && axis == 1 ? permChannelFirstToLast(rank) : permAxisToLast(rank, axis);
}

bool MatchTopKRule::rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) {
  constexpr const char* kFunction = "rewriteCallback";
  const OpPtr reduce = matchedOps.at(pattern);
  if (!hasText(reduce, "reduce_type", "ReduceMax")) return false;
  if (reduce->numInputs() != 1 || reduce->numOutputs() != 1) return false;
  const TensorPtr source = reduce->getInput(0);
  if (source->getShape().hasDynamicAxes()) return false;
  const std::uint32_t rank = source->getRank();
  const auto axis = onlyAxis(reduce, rank);
  if (!axis) return false;
  const OpPtr arg = findArgmaxSibling(*graph, reduce, *axis);
  if (!arg || !hasMatchingIOEncodings(reduce, arg)) return false;
  const Permutation perm = axisToLast(*graph, rank, *axis);
  const Permutation inverse = getInversePermutation(perm);
  const std::string reduceName = reduce->getName();
  const std::string argName = arg->getName();
  const Names names(reduceName);
  if (!names.areFree(*graph, perm, inverse)) return false;

  // ---- edits ----
  if (!perm.empty()) {
    injectTranspose(graph, source->getName(), perm, {reduceName, argName}, names.preTranspose, false);
  }
  const OpPtr topK = createOp("TopK", names.topK, {{"k", 1u}, {"largest", true}});
  const TensorPtr input = reduce->getInput(0);
  const OpPtr producer = input->getProducer();
  const std::uint32_t index = producer ? graph->getOpIndex(producer) + 1 : 0;
  graph->addOp(topK, {input->getName()}, {names.values, names.indices}, std::vector<AxisFormat>{},
               static_cast<std::int32_t>(index), true);
  const TensorPtr values = topK->getOutput(0);
  const TensorPtr indices = topK->getOutput(1);
  graph->updateTraceInfo({topK}, {reduce, arg}, {}, false);
  graph->updateTraceInfo({values}, {reduce->getOutput(0)}, {}, false);
  graph->updateTraceInfo({indices}, {arg->getOutput(0)}, {}, false);
  copyEncoding(reduce->getOutput(0), values);
  graph->transferConsumers(input, values, {reduce});
  graph->transferConsumers(input, indices, {arg});
  if (!perm.empty()) {
    injectTranspose(graph, names.values, inverse, {reduceName}, names.valuesTranspose, false);
    injectTranspose(graph, names.indices, inverse, {argName}, names.indicesTranspose, false);
  }

  const std::string valuesFeed = reduce->getInput(0)->getName();
  const std::string indicesFeed = arg->getInput(0)->getName();
  const TensorPtr valuesTensor = graph->getTensor(valuesFeed);
  if (!valuesTensor) {
    report(kFunction, "ERROR — TopK values feed tensor '", valuesFeed, "' not found; aborting fusion.");
    return false;
  }
  takeOver(graph, reduce, valuesTensor, *axis, names.valuesReshape, "_reshape_value");
  const TensorPtr indicesTensor = graph->getTensor(indicesFeed);
  if (!indicesTensor) {
    report(kFunction, "ERROR — TopK indices feed tensor '", indicesFeed,
           "' not found; aborting fusion (graph may be partially modified).");
    return false;
  }
  takeOver(graph, arg, indicesTensor, *axis, names.indicesReshape, "_reshape_indice");
  report(kFunction, "Fused ReduceMax '", reduceName, "' + Argmax '", argName, "' into TopK '", names.topK,
         "'.");
  return true;
}

std::shared_ptr<Pass> buildMatchTopK() {
  return makeSequencePass<MatchTopKRule>();
}

[[maybe_unused]] static const bool registeredMatchTopK = PassManager::registerPass(PassId::MatchTopK);

}  // namespace netforge::graphrefiner
