// Squashing: removing an op that has become a no-op by merging the tensors at its two ends.

#include <algorithm>
#include <stdexcept>
#include <utility>
#include "ir/Failure.h"
#include "ir/GraphArguments.h"
#include "ir/IrGraph.h"

namespace netforge {

namespace {

constexpr const char* kSquash = "netforge::IrGraph::squash";

bool isListed(const std::vector<IrGraph::TensorPtr>& list, const IrGraph::TensorPtr& tensor) {
  return std::find(list.begin(), list.end(), tensor) != list.end();
}

}  // namespace

void IrGraph::squash(const OpPtr& givenOp, const std::string& givenInputName, bool keepInput,
                     bool transferQuant) {
  const OpPtr op = givenOp;
  requireOp(op, kSquash);
  const std::string inputName = givenInputName;
  if (op->numOutputs() != 1) {
    fail<std::runtime_error>(kSquash, "Op ", op->getName(),
                             " must have exactly one output to be squashed. But it has ", op->numOutputs());
  }
  const TensorPtr input = getTensor(inputName);
  requireTensor(input, kSquash);
  const ops::IrOp::TensorList inputs = op->getInputs();
  if (std::find(inputs.begin(), inputs.end(), input) == inputs.end()) {
    fail<std::runtime_error>(kSquash, "Tensor ", inputName, " is not an input to op ", op->getName());
  }
  const TensorPtr output = op->getOutputs().front();
  const bool isOutput = isListed(graphOutputs, output);
  if (input->isStatic() && op->getType() == "Reshape" && isOutput &&
      input->getShape() == output->getShape()) {
    fail<std::runtime_error>(kSquash, "Unable to squash node: ", op->getName(),
                             " into previous tensor: ", inputName, "as node produces a static output");
  }

  if (!keepInput && input->getConsumers().size() == 1 && input->getProducer() != nullptr &&
      !isListed(graphOutputs, input)) {
    squashIntoOutput(op, input, output, transferQuant);
  } else if (!output->getConsumers().empty() && !isOutput) {
    squashIntoInput(op, input, output, transferQuant);
  } else {
    fail<std::runtime_error>(kSquash, "Squash not possible for op ", op->getName(), " (type: ", op->getType(),
                             ", input: ", inputName, ")");
  }
  op->removeOutput(output);
  prune(op, true);
  removeTraceInfo(TraceKind::Op, op->getName());
}

// The input is this op's alone: its producer writes the output instead.
void IrGraph::squashIntoOutput(const OpPtr& op, const TensorPtr& input, const TensorPtr& output,
                               bool transferQuant) {
  const OpPtr previous = input->getProducer();
  const ops::IrOp::TensorList produced = previous->getOutputs();
  if (std::find(produced.begin(), produced.end(), input) == produced.end()) {
    fail<std::runtime_error>(kSquash, "Input tensor ", input->getName(),
                             " not found in previous op when squashing ", op->getName());
  }
  TraceSourceList trace;
  trace.add(getTraceInfo(TraceKind::Op, op->getName()));
  previous->replaceOutputTensor(input, output);
  output->setProducer(previous);
  removeOpAsConsumer(op, input);
  input->clearProducer();
  eraseTensor(input);

  ops::IrOp::TensorList others;
  for (const TensorPtr& other : op->getInputs()) {
    if (other->getName() != input->getName() && !isListed(others, other)) others.push_back(other);
  }
  transferQuantInfo(output, input, transferQuant);
  for (const TensorPtr& other : others) {
    removeOpAsConsumer(op, other);
    if (!other->getConsumers().empty()) continue;
    trace.add(getTraceInfo(TraceKind::Tensor, other->getName()));
    // What the application hands in or reads stays in its view of the model, unread.
    if (isListed(graphInputs, other) || isListed(graphOutputs, other)) continue;
    const OpPtr producer = other->getProducer();
    other->clearProducer();
    eraseTensor(other);
    if (producer != nullptr) producer->removeOutput(other);
  }
  addTraceSources(TraceKind::Op, previous->getName(), trace.sources());
}

// The readers of the output read the input instead.
void IrGraph::squashIntoInput(const OpPtr& op, const TensorPtr& input, const TensorPtr& output,
                              bool transferQuant) {
  const std::vector<OpPtr> consumers = consumersInGraphOrder(*this, output->getConsumers());
  for (const OpPtr& consumer : consumers) {
    consumer->replaceInputTensor(output, input);
    input->addConsumer(consumer);
    output->removeConsumer(consumer);
  }
  if (transferQuant) transferQuantInfo(output, input, false);
  removeOpAsConsumer(op, input);
  TraceSourceList trace;
  trace.add(getTraceInfo(TraceKind::Op, op->getName()));
  trace.add(getTraceInfo(TraceKind::Tensor, output->getName()));
  output->clearProducer();
  output->clearConsumers();
  eraseTensor(output);
  for (const OpPtr& consumer : consumers) {
    addTraceSources(TraceKind::Op, consumer->getName(), trace.sources());
  }
}

void IrGraph::transferQuantInfo(const TensorPtr& givenOutput, const TensorPtr& givenInput,
                                bool copyFromInput) {
  constexpr const char* kFunction = "netforge::IrGraph::transferQuantInfo";
  const TensorPtr output = givenOutput;
  const TensorPtr input = givenInput;
  requireTensor(output, kFunction);
  requireTensor(input, kFunction);
  const auto hasEncoding = [](const TensorPtr& tensor) {
    return tensor->getQuantInfo().encoding != QuantEncodingKind::Undefined;
  };
  const auto copy = [](const TensorPtr& from, const TensorPtr& to) {
    const QuantInfo quantInfo = from->getQuantInfo();
    to->setQInfo(from->getDataType(), quantInfo);
    to->setUpdateable(from->isUpdateable());
  };
  if (hasEncoding(output)) {
    if (input->isQuantizable()) copy(output, input);
  } else if (copyFromInput && hasEncoding(input) && output->isQuantizable()) {
    copy(input, output);
  }
}

bool IrGraph::producesStaticGraphOutput(const OpPtr& op) const {
  if (op == nullptr || op->numInputs() == 0 || op->numOutputs() == 0) return false;
  const TensorPtr input = op->getInput(0);
  const TensorPtr output = op->getOutput(0);
  return input->isStatic() && output->isGraphOutput() && input->getShape() == output->getShape();
}

}  // namespace netforge
