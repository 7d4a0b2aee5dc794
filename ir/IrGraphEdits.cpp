// Edits of a graph's links: consumers, pruning, replacing, injecting.

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <limits>
#include <stdexcept>
#include <utility>
#include "ir/Failure.h"
#include "ir/GraphArguments.h"
#include "ir/IrGraph.h"

namespace netforge {

namespace {

constexpr const char* kGetConsumers = "netforge::IrGraph::getConsumers";
constexpr const char* kInject = "netforge::IrGraph::inject";
constexpr const char* kInjectAtIndex = "netforge::IrGraph::injectAtIndex";
constexpr const char* kPrune = "netforge::IrGraph::prune";
constexpr const char* kReplace = "netforge::IrGraph::replace";

// The distinct tensors of a list in order of first occurrence.
ops::IrOp::TensorList distinct(const ops::IrOp::TensorList& list) {
  ops::IrOp::TensorList result;
  std::set<IrTensor*> seen;
  for (const auto& tensor : list) {
    if (seen.insert(tensor.get()).second) result.push_back(tensor);
  }
  return result;
}

}  // namespace

std::vector<IrGraph::OpPtr> consumersInGraphOrder(const IrGraph& graph, const IrGraph::OpSet& ops) {
  std::vector<IrGraph::OpPtr> result(ops.begin(), ops.end());
  if (result.size() < 2) return result;
  std::vector<std::pair<std::uint32_t, IrGraph::OpPtr>> placed;
  placed.reserve(result.size());
  for (IrGraph::OpPtr& op : result) {
    const std::uint32_t index = graph.getOpIndex(op);
    placed.emplace_back(index, std::move(op));
  }
  std::sort(placed.begin(), placed.end(), [](const auto& a, const auto& b) {
    if (a.first != b.first) return a.first < b.first;
    return a.second->getName() < b.second->getName();
  });
  for (std::size_t i = 0; i < placed.size(); ++i) result[i] = std::move(placed[i].second);
  return result;
}

void IrGraph::removeOpAsConsumer(const OpPtr& givenOp, const TensorPtr& givenTensor) {
  constexpr const char* kFunction = "netforge::IrGraph::removeOpAsConsumer";
  const OpPtr op = givenOp;
  const TensorPtr tensor = givenTensor;
  requireOp(op, kFunction);
  requireTensor(tensor, kFunction);
  tensor->removeConsumer(op);
  op->removeInput(tensor);
}

void IrGraph::transferConsumers(const TensorPtr& givenFrom, const TensorPtr& givenTo,
                                const OpSet& consumers) {
  constexpr const char* kFunction = "netforge::IrGraph::transferConsumers";
  const TensorPtr fromTensor = givenFrom;
  const TensorPtr toTensor = givenTo;
  requireTensor(fromTensor, kFunction);
  requireTensor(toTensor, kFunction);
  for (const OpPtr& consumer : consumersInGraphOrder(*this, consumers)) {
    consumer->replaceInputTensor(fromTensor, toTensor);
    fromTensor->removeConsumer(consumer);
    toTensor->addConsumer(consumer);
  }
}

IrGraph::OpSet IrGraph::getConsumers(const TensorPtr& tensor, const Names& consumerNames) const {
  requireTensor(tensor, kGetConsumers);
  if (consumerNames.empty()) return tensor->getConsumers();
  OpSet result;
  for (const std::string& consumerName : consumerNames) {
    const OpPtr consumer = getOp(consumerName);
    if (consumer == nullptr) {
      fail<std::invalid_argument>(kGetConsumers, "Can't inject with a consumer ", consumerName,
                                  " which isn't in the graph");
    }
    if (tensor->getConsumers().count(consumer) == 0) {
      fail<std::invalid_argument>(kGetConsumers, "Can't inject with a consumer ", consumerName,
                                  " that doesn't consume input ", tensor->getName());
    }
    result.insert(consumer);
  }
  return result;
}

void IrGraph::transferGraphOutputTensor(const TensorPtr& givenFrom, const TensorPtr& givenTo) {
  const TensorPtr fromTensor = givenFrom;
  const TensorPtr toTensor = givenTo;
  if (fromTensor == nullptr || toTensor == nullptr) {
    const auto nameOf = [](const TensorPtr& tensor) {
      return tensor == nullptr ? "null" : tensor->getName();
    };
    fail<std::runtime_error>("netforge::IrGraph::transferGraphOutputTensor",
                             "transferGraphOutputTensor called with null tensor pointer (fromTensor=",
                             nameOf(fromTensor), ", toTensor=", nameOf(toTensor), ")");
  }
  if (!fromTensor->isGraphOutput()) return;
  toTensor->setTensorType(TensorType::GraphOutput);
  // By name, but the list may hold a stale entry of that name: this very tensor goes first.
  auto place = std::find(graphOutputs.begin(), graphOutputs.end(), fromTensor);
  if (place == graphOutputs.end()) {
    place = std::find_if(graphOutputs.begin(), graphOutputs.end(),
                         [&](const TensorPtr& output) { return output->getName() == fromTensor->getName(); });
  }
  if (place == graphOutputs.end()) {
    graphOutputs.push_back(toTensor);
  } else {
    *place = toTensor;
  }
}

void IrGraph::prune(const OpPtr& given, bool force) {
  const OpPtr op = given;
  requireOp(op, kPrune);
  for (const TensorPtr& output : op->getOutputs()) {
    for (const OpPtr& consumer : consumersInGraphOrder(*this, output->getConsumers())) {
      if (!force) {
        fail<std::runtime_error>(kPrune, "Cannot prune op ", op->getName(),
                                 " which has atleast one successor: ", consumer->getName());
      }
      removeOpAsConsumer(consumer, output);
    }
    eraseTensor(output);
    // The tensor may live on in the list of graph outputs; it must not keep the op.
    if (output->getProducer() == op) output->clearProducer();
  }
  for (const TensorPtr& input : distinct(op->getInputs())) removeOpAsConsumer(op, input);
  opOrder.erase(op.get());
  // Another op may have taken over the name.
  const OpPtr* held = opsByName.find(op->getName());
  if (held != nullptr && *held == op) opsByName.take(op->getName());
}

void IrGraph::replace(const OpPtr& givenOld, const OpPtr& givenReplacement) {
  const OpPtr oldOp = givenOld;
  const OpPtr replacement = givenReplacement;
  requireOp(oldOp, kReplace);
  requireOp(replacement, kReplace);
  if (!opOrder.contains(oldOp.get())) {
    fail<std::runtime_error>(kReplace, "Op ", oldOp->getName(), " not found in graph");
  }
  const OpPtr namesake = getOp(replacement->getName());
  if (replacement == oldOp || opOrder.contains(replacement.get()) ||
      (namesake != nullptr && namesake != oldOp)) {
    fail<std::runtime_error>(kReplace, "Op ", replacement->getName(), " already exists in graph");
  }
  if (replacement->numInputs() > 0 || replacement->numOutputs() > 0) {
    std::cout << kReplace << ": The replacement Op: " << replacement->getName()
              << " already has inputs/outputs which might be replaced with those of the original op.\n\n"
              << std::flush;
  }

  const ops::IrOp::TensorList inputs = oldOp->getInputs();
  const ops::IrOp::TensorList outputs = oldOp->getOutputs();
  replacement->setInputs(inputs);
  replacement->setOutputs(outputs);
  for (const TensorPtr& input : distinct(inputs)) {
    removeOpAsConsumer(oldOp, input);
    input->addConsumer(replacement);
  }
  const std::vector<IrTensorShape> shapes =
      replacement->inferOutputTensorShapes(axisOrder, static_cast<std::uint32_t>(outputs.size()));
  if (shapes.size() < outputs.size()) {
    fail<std::runtime_error>(kReplace, "Op ", replacement->getName(), " produced ", shapes.size(),
                             " output shapes but has ", outputs.size(), " outputs.");
  }
  replacement->overrideDataAxisFormats(axisOrder);
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    outputs[i]->setProducer(replacement);
    outputs[i]->setShape(shapes[i]);
  }
  replacement->populateOutputAxisFormats(axisOrder, inputLayoutCodes, false);
  replacement->validateOp();

  const std::vector<TraceSource> sources = getTraceInfo(TraceKind::Op, oldOp->getName());
  removeTraceInfo(TraceKind::Op, oldOp->getName());
  addTraceSources(TraceKind::Op, replacement->getName(), sources);

  opOrder.replace(oldOp.get(), replacement);
  opsByName.set(replacement->getName(), replacement);
  if (oldOp->getName() != replacement->getName()) opsByName.take(oldOp->getName());
}

// Attaches an op behind a tensor and in front of its consumers; the op still has to enter the order. Gives
// the consumers that moved.
IrGraph::OpSet IrGraph::putOnTensor(const OpPtr& op, const TensorPtr& input, const std::string& outputName,
                                    const Names& consumerNames, AxisFormat axisFormat,
                                    bool inheritQuantizable) {
  op->addInput(input, -1);
  const std::vector<IrTensorShape> shapes = op->inferOutputTensorShapes(axisOrder, 1);
  const std::vector<DataType> types = op->inferOutputSrcDataTypes(1);
  if (shapes.empty() || types.empty()) {
    fail<std::runtime_error>(kInject, "Op ", op->getName(), " produced ", shapes.size(),
                             " output shapes but has 1 outputs.");
  }
  const bool quantizable = inheritQuantizable ? input->isQuantizable() : isFloatDataType(types[0]);
  const auto output = std::make_shared<IrTensor>(
      outputName, shapes[0].dims, types[0], input->getSrcDataType(), quantizable, QuantInfo(), axisFormat,
      AxisFormat::NOT_YET_DEFINED, TensorType::Native, Dims{});
  enterTensor(output);
  output->setProducer(op);
  op->addOutput(output, -1);
  OpSet consumers = getConsumers(input, consumerNames);
  transferConsumers(input, output, consumers);
  input->addConsumer(op);
  return consumers;
}

void IrGraph::inject(const OpPtr& given, const std::string& inputName, const std::string& outputName,
                     const Names& consumerNames, AxisFormat axisFormat, bool validate,
                     bool inheritQuantizable) {
  const OpPtr op = given;
  requireOp(op, kInject);
  const TensorPtr input = getTensor(inputName);
  if (input == nullptr) {
    fail<std::invalid_argument>(kInject, "Can't inject op ", op->getName(), " onto a tensor ", inputName,
                                " which is not in the graph");
  }
  const OpSet consumers = putOnTensor(op, input, outputName, consumerNames, axisFormat, inheritQuantizable);

  std::uint32_t index = opOrder.size();
  if (const OpPtr producer = input->getProducer(); producer != nullptr) {
    if (opOrder.contains(producer.get())) {
      checkNewOp(op, validate);
      opOrder.insertBehind(producer.get(), op);
      opsByName.insert(op->getName(), op);
      return;
    }
  } else {
    for (const OpPtr& consumer : consumers) index = std::min(index, opOrder.indexOf(consumer.get()));
  }
  addOp(op, static_cast<std::int32_t>(index), validate);
}

void IrGraph::injectAtIndex(const OpPtr& given, const std::string& inputName, const std::string& outputName,
                            std::uint32_t index, const Names& consumerNames, AxisFormat axisFormat,
                            bool validate, bool inheritQuantizable) {
  const OpPtr op = given;
  requireOp(op, kInjectAtIndex);
  const TensorPtr input = getTensor(inputName);
  if (input == nullptr) {
    fail<std::invalid_argument>(kInjectAtIndex, "injectAtIndex: tensor '", inputName,
                                "' not found in graph.");
  }
  putOnTensor(op, input, outputName, consumerNames, axisFormat, inheritQuantizable);
  addOp(op, static_cast<std::int32_t>(std::min(index, opOrder.size())), validate);
}

}  // namespace netforge
