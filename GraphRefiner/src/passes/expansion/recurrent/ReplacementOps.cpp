#include "GraphRefiner/src/passes/expansion/recurrent/ReplacementOps.h"

#include <numeric>
#include "GraphRefiner/src/RewriteUtilities.h"

namespace netforge::graphrefiner {

ReplacementOps::ReplacementOps(const std::shared_ptr<IrGraph>& graphToEdit, const OpPtr& op)
    : graph(graphToEdit),
      replaced(op),
      index(graphToEdit->getOpIndex(op)),
      sources(graphToEdit->getTraceInfo(TraceKind::Op, op->getName())) {}

void ReplacementOps::setUpdateable(bool value) {
  updateable = value;
}

void ReplacementOps::add(const std::string& type, const std::string& name, const Names& inputs,
                         const OpParams& params, const Names& outputs, AxisFormat format) {
  const std::vector<AxisFormat> formats(outputs.size(), format);
  graph->addOp(createOp(type, name, params), inputs, outputs, formats, static_cast<std::int32_t>(index++),
               false);
  graph->addTraceSources({name}, outputs, sources);
  if (!updateable) return;
  for (const std::string& output : outputs) graph->getTensor(output)->setUpdateable(*updateable);
}

std::string ReplacementOps::matMul(const std::string& name, const std::string& data,
                                   const std::string& weight) {
  const OpParams params{{"transpose_in0", OpParam(false)}, {"transpose_in1", OpParam(true)}};
  add("MatMul", name, {data, weight}, params, {name}, AxisFormat::NF);
  return name;
}

std::string ReplacementOps::binary(const std::string& name, std::uint32_t operation, const std::string& left,
                                   const std::string& right) {
  add("Eltwise_Binary", name, {left, right}, {{"operation", OpParam(operation)}}, {name}, AxisFormat::NF);
  return name;
}

std::string ReplacementOps::neuron(const std::string& name, std::uint32_t operation,
                                   const std::string& input) {
  add("ElementWiseNeuron", name, {input}, {{"operation", OpParam(operation)}}, {name}, AxisFormat::NF);
  return name;
}

std::string ReplacementOps::reshape(const std::string& name, const std::string& input, const Dims& dims,
                                    AxisFormat format) {
  add("Reshape", name, {input}, {{"shape", OpParam(dims)}}, {name}, format);
  return name;
}

bool ReplacementOps::canShareReshape(const std::string& input, const Dims& dims) const {
  const std::string name = input + "_reshape";
  const TensorPtr existing = graph->getTensor(name);
  if (!existing) return !graph->hasOp(name);
  const OpPtr producer = existing->getProducer();
  return producer && producer->getType() == "Reshape" && producer->getInput(0) == graph->getTensor(input) &&
         existing->getDims() == dims;
}

std::string ReplacementOps::sharedReshape(const std::string& input, const Dims& dims, AxisFormat format,
                                          bool copyProperties) {
  const std::string name = input + "_reshape";
  if (const TensorPtr existing = graph->getTensor(name)) {
    const OpPtr producer = existing->getProducer();
    if (graph->getOpIndex(producer) >= index) graph->moveOptoIndex(producer, index++);
    return name;
  }
  if (copyProperties) addTensorLike(graph->getTensor(input), name, dims);
  return reshape(name, input, dims, format);
}

ReplacementOps::Names ReplacementOps::splitOverTime(const std::string& base, const TimeSequence& sequence,
                                                    bool copyProperties) {
  const TensorPtr x = replaced->getInput(0);
  if (sequence.steps < 2) return {x->getName()};
  const Names pieces = numberedNames(base, sequence.steps);
  if (copyProperties) {
    for (const std::string& piece : pieces) addTensorLike(x, piece, sequence.stepDims(sequence.features));
  }
  std::vector<std::uint32_t> places(sequence.steps - 1);
  std::iota(places.begin(), places.end(), 1u);
  add("Split", base + "_split", {x->getName()},
      {{"axis", OpParam(sequence.timeAxis)}, {"split_index", OpParam(places)}}, pieces, x->getAxisFormat());
  return pieces;
}

std::string ReplacementOps::concatOverTime(const std::string& opName, const std::string& outputName,
                                           const TimeSequence& sequence, const Names& steps,
                                           AxisFormat format) {
  add("Concat", opName, sequence.reordered(steps), {{"axis", OpParam(sequence.timeAxis)}}, {outputName},
      format);
  return outputName;
}

ReplacementOps::TensorPtr ReplacementOps::addTensorLike(const TensorPtr& model, const std::string& name,
                                                        const Dims& dims, TensorType type) {
  const auto& order = model->getExplicitPermuteOrder();
  const auto tensor = std::make_shared<IrTensor>(
      name, dims, model->getDataType(), model->getSrcDataType(), model->isQuantizable(),
      model->getQuantInfo(), model->getAxisFormat(), model->getSrcAxisFormat(), type, model->isUpdateable(),
      order.size() == dims.size() ? order : Dims{});
  graph->addTensor(tensor);
  return tensor;
}

void ReplacementOps::takeOver(const TensorPtr& oldOutput, const std::string& newName) {
  const TensorPtr standIn = graph->getTensor(newName);
  if (!standIn) return;
  const auto consumers = oldOutput->getConsumers();
  graph->transferConsumers(oldOutput, standIn, consumers);
  const auto traces = graph->getTraceInfo(TraceKind::Tensor, newName);
  for (const OpPtr& consumer : consumersInGraphOrder(*graph, consumers)) {
    graph->addTraceSources(TraceKind::Op, consumer->getName(), traces);
  }
  const std::string oldName = oldOutput->getName();
  if (!isGraphOutput(oldOutput)) {
    graph->addTraceSources(TraceKind::Tensor, newName, graph->getTraceInfo(TraceKind::Tensor, oldName));
    return;
  }
  handOverGraphOutput(graph, oldOutput, standIn);
  graph->swapTensorNames(newName, oldName);
}

void ReplacementOps::retire() {
  const auto inputs = replaced->getInputs();
  Names outputs;
  for (const TensorPtr& output : replaced->getOutputs()) outputs.push_back(output->getName());
  graph->prune(replaced, true);
  for (const std::string& name : outputs) graph->removeTraceInfo(TraceKind::Tensor, name);
  graph->removeTraceInfo(TraceKind::Op, replaced->getName());
  for (const TensorPtr& input : inputs) {
    if (graph->getTensor(input->getName()) == input) removeDeadProducer(graph, input);
  }
}

}  // namespace netforge::graphrefiner
