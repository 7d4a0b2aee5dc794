// Rewrite utilities that test and move the links between tensors and ops.
#include <algorithm>
#include <stdexcept>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "GraphRefiner/src/Rules.h"
#include "ir/Failure.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

bool isGraphOutput(const TensorPtr& tensor) {
  switch (tensor->getTensorType()) {
    case TensorType::GraphOutput:
    case TensorType::GraphInputOutput:
    case TensorType::OptionalOutput:
    case TensorType::OptionalInputOutput:
      return true;
    default:
      return false;
  }
}

bool hasInteriorGraphOutput(const MatchedOps& matchedOps, const OpPtr& root) {
  return std::any_of(matchedOps.begin(), matchedOps.end(), [&](const MatchedOps::value_type& entry) {
    if (!entry.second || entry.second == root) return false;
    const auto outputs = entry.second->getOutputs();
    return std::any_of(outputs.begin(), outputs.end(), isGraphOutput);
  });
}

bool isFreeName(const GraphPtr& graph, const std::string& name) {
  return !graph->hasTensor(name) && !graph->hasOp(name);
}

bool canMergeTensors(const GraphPtr& graph, const TensorPtr& input, const TensorPtr& output, bool keepInput) {
  const auto graphOutputs = graph->getGraphOutputs();
  const auto isListed = [&](const TensorPtr& tensor) {
    return std::find(graphOutputs.begin(), graphOutputs.end(), tensor) != graphOutputs.end();
  };
  if (!keepInput && input->getProducer() && input->getConsumers().size() == 1 && !isListed(input))
    return true;
  return !output->getConsumers().empty() && !isListed(output);
}

bool canSquash(const GraphPtr& graph, const OpPtr& op, const TensorPtr& input, bool keepInput) {
  if (!op || !input || op->numOutputs() != 1 || graph->getTensor(input->getName()) != input) return false;
  const auto inputs = op->getInputs();
  if (std::find(inputs.begin(), inputs.end(), input) == inputs.end()) return false;
  return canMergeTensors(graph, input, op->getOutput(0), keepInput);
}

bool feedsLstmInitialState(const OpPtr& op) {
  const auto& readers = op->getOutput(0)->getConsumers();
  return std::any_of(readers.begin(), readers.end(), [&](const OpPtr& reader) {
    if (reader->getType() != "Lstm") return false;
    const auto isFromOp = [&](std::uint32_t index) {
      return reader->numInputs() > index && reader->getInput(index)->getProducer() == op;
    };
    return isFromOp(10) || isFromOp(11);
  });
}

void removeDeadProducer(const GraphPtr& graph, const TensorPtr& tensor) {
  const OpPtr producer = tensor->getProducer();
  if (!producer || !graphHoldsOp(graph, producer)) return;
  const auto outputs = producer->getOutputs();
  const bool isRead = std::any_of(outputs.begin(), outputs.end(), [](const TensorPtr& output) {
    return !output->getConsumers().empty() || isGraphOutput(output);
  });
  if (!isRead) removeDeadOp(graph, producer);
}

void dropComputedInputs(const GraphPtr& graph, const OpPtr& givenOp) {
  const OpPtr op = givenOp;
  const auto inputs = op->getInputs();
  for (std::size_t i = 1; i < inputs.size(); ++i) {
    const TensorPtr& input = inputs[i];
    if (input == inputs[0] || !input->getProducer() || input->getConsumers().count(op) == 0) continue;
    graph->removeOpAsConsumer(op, input);
    removeDeadProducer(graph, input);
  }
}

StaticTensorPtr copyConstant(const GraphPtr& graph, const StaticTensorPtr& givenConstant,
                             const std::string& name) {
  const StaticTensorPtr constant = givenConstant;
  const TensorType role = constant->getTensorType();
  if (isGraphOutput(constant)) constant->setTensorType(TensorType::Static);  // the copy takes over the type
  graph->addTensor(name, constant);
  constant->setTensorType(role);
  return graph->getStaticTensor(name);
}

void setInputTensor(const OpPtr& op, std::uint32_t index, const TensorPtr& givenTensor) {
  const TensorPtr tensor = givenTensor;
  const TensorPtr before = op->getInput(index);
  op->setInput(tensor, index);
  tensor->addConsumer(op);
  const auto inputs = op->getInputs();
  if (std::find(inputs.begin(), inputs.end(), before) == inputs.end()) before->removeConsumer(op);
}

void manageSharedStaticInput(const GraphPtr& graph, const OpPtr& givenOp, std::uint32_t index) {
  const OpPtr op = givenOp;
  const TensorPtr shared = op->getInput(index);
  if (shared->getConsumers().size() < 2) return;
  const std::string name = op->getName() + (index == 1 ? "_kernel_weight" : "_kernel_bias");
  if (const auto constant = std::dynamic_pointer_cast<IrStaticTensor>(shared)) {
    copyConstant(graph, constant, name);
  }
  const TensorPtr copy = graph->getTensor(name);
  if (!copy) fail<std::runtime_error>("manageSharedStaticInput", "Failed to clone static tensor: ", name);
  graph->updateTraceInfo(std::vector<TensorPtr>{copy}, {shared}, {}, false);
  setInputTensor(op, index, copy);
}

void replaceAllUsers(const GraphPtr& graph, const TensorPtr& givenNew, const TensorPtr& givenOld,
                     bool strict) {
  constexpr const char* kFunction = "replaceAllUsers";
  const TensorPtr newTensor = givenNew;
  const TensorPtr oldTensor = givenOld;
  for (const OpPtr& consumer : consumersInGraphOrder(*graph, oldTensor->getConsumers())) {
    if (strict && newTensor->getQuantInfo() != oldTensor->getQuantInfo()) {
      fail<std::runtime_error>(kFunction, "QInfo must match for both the tensors");
    }
    if (strict && newTensor->getDataType() != oldTensor->getDataType()) {
      fail<std::runtime_error>(kFunction, "DataType must match for both the tensors");
    }
    if (!hasSameDims(newTensor, oldTensor)) {
      fail<std::runtime_error>(kFunction, "Dimensions must match for both the tensors");
    }
    consumer->replaceInputTensor(oldTensor, newTensor);
    newTensor->addConsumer(consumer);
  }
  oldTensor->clearConsumers();
  graph->swapTensorNames(newTensor->getName(), oldTensor->getName());
}

void replaceOutputByConstant(const GraphPtr& graph, const OpPtr& givenOp, const StaticTensorPtr& constant,
                             bool strict) {
  const OpPtr op = givenOp;
  const TensorPtr output = op->getOutput(0);
  const auto sources =
      graph->collectTraceSources({{TraceKind::Op, op->getName()}, {TraceKind::Tensor, output->getName()}});
  for (const OpPtr& consumer : consumersInGraphOrder(*graph, output->getConsumers())) {
    graph->addTraceSources(TraceKind::Op, consumer->getName(), sources);
  }
  handOverGraphOutput(graph, output, constant);
  replaceAllUsers(graph, constant, output, strict);
  graph->prune(op, false);
}

void handOverGraphOutput(const GraphPtr& graph, const TensorPtr& givenFrom, const TensorPtr& givenTo) {
  const TensorPtr from = givenFrom;
  const TensorPtr to = givenTo;
  if (!isGraphOutput(from)) return;
  const bool optional = from->isOptional();
  const bool alsoInput = from->getTensorType() == TensorType::GraphInputOutput ||
                         from->getTensorType() == TensorType::OptionalInputOutput;
  from->setTensorType(TensorType::GraphOutput);  // the only kind that the graph itself hands over
  graph->transferGraphOutputTensor(from, to);
  to->setTensorType(optional ? TensorType::OptionalOutput : TensorType::GraphOutput);
  to->setUpdateable(from->isUpdateable());
  if (alsoInput) {
    from->setTensorType(optional ? TensorType::OptionalInput : TensorType::GraphInput);
  } else {
    from->setTensorType(TensorType::Native);
    from->setUpdateable(false);
  }
}

void passGraphOutputOn(const GraphPtr& graph, const TensorPtr& givenInner, const TensorPtr& givenOuter) {
  const TensorPtr inner = givenInner;
  const TensorPtr outer = givenOuter;
  if (!isGraphOutput(inner)) return;
  copyTypeAndEncoding(inner, outer);
  handOverGraphOutput(graph, inner, outer);
  graph->swapTensorNames(inner->getName(), outer->getName());
}

void copyTypeAndEncoding(const TensorPtr& from, const TensorPtr& to) {
  const DataType type = from->getDataType();
  const QuantInfo record = from->getQuantInfo();
  if (from->isQuantized()) {
    if (!to->isQuantizable()) {
      to->setDataType(ORLO_DATATYPE_FLOAT_32);  // only a float tensor becomes quantizable
      to->setQuantizable(true);
    }
    to->setQInfo(type, record);
  } else if (record.isOverridden && isFloatDataType(type)) {
    to->setFloatQInfo(type, record);
  } else {
    if (!isFloatDataType(type)) to->setQuantizable(false);
    to->setDataType(type);
  }
}

void supersedeConstant(const GraphPtr& graph, const TensorPtr& givenConstant,
                       const StaticTensorPtr& givenSuccessor) {
  const TensorPtr constant = givenConstant;
  const StaticTensorPtr successor = givenSuccessor;
  graph->transferConsumers(constant, successor, graph->getConsumers(constant, {}));
  graph->removeTensor(constant->getName());
  successor->setName(constant->getName());
  graph->addTensor(successor);
}

}  // namespace netforge::graphrefiner
