#include "GraphRefiner/src/passes/expansion/recurrent/ReplacementOps.h"

#include <numeric>
#include "GraphRefiner/src/RewriteUtilities.h"

namespace netforge::graphrefiner {

ReplacementOps::ReplacementOps(const std::shared_ptr<IrGraph>& givenGraph, const OpPtr& replaced)
    : OpExpansion(givenGraph, replaced) {
  sources = graph->getTraceInfo(TraceKind::Op, op->getName());
}

void ReplacementOps::setUpdateable(bool value) {
  updateable = value;
}

void ReplacementOps::add(const std::string& type, const std::string& name, const Names& inputs,
                         const OpParams& params, const Names& outputs, AxisFormat format) {
  const std::vector<AxisFormat> formats(outputs.size(), format);
  graph->addOp(createOp(type, name, params), inputs, outputs, formats, static_cast<std::int32_t>(position++),
               false);
  graph->addTraceSources({name}, outputs, sources);
  if (!updateable) return;
  for (const std::string& written : outputs) graph->getTensor(written)->setUpdateable(*updateable);
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
  return producer && producer->getType() == "Reshape" && producer->numInputs() == 1 &&
         producer->getInput(0) == graph->getTensor(input) && existing->getDims() == dims;
}

std::string ReplacementOps::sharedReshape(const std::string& input, const Dims& dims, AxisFormat format,
                                          bool copyProperties) {
  const std::string name = input + "_reshape";
  if (const TensorPtr existing = graph->getTensor(name)) {
    const OpPtr producer = existing->getProducer();
    if (graph->getOpIndex(producer) >= position) graph->moveOptoIndex(producer, position++);
    return name;
  }
  if (copyProperties) addTensorLike(graph->getTensor(input), name, dims);
  return reshape(name, input, dims, format);
}

ReplacementOps::Names ReplacementOps::splitOverTime(const std::string& base, const TimeSequence& sequence,
                                                    bool copyProperties, OpParams params) {
  const TensorPtr x = op->getInput(0);
  if (sequence.steps < 2) return {x->getName()};
  const Names pieces = numberedNames(base, sequence.steps);
  if (copyProperties) {
    for (const std::string& piece : pieces) addTensorLike(x, piece, sequence.stepDims(sequence.features));
  }
  std::vector<std::uint32_t> places(sequence.steps - 1);
  std::iota(places.begin(), places.end(), 1u);
  params.emplace("axis", sequence.timeAxis);
  params.emplace("split_index", places);
  add("Split", base + "_split", {x->getName()}, params, pieces, x->getAxisFormat());
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
  const TensorPtr tensor = tensorLike(name, IrTensorShape(dims), *model);
  tensor->setTensorType(type);
  graph->addTensor(tensor);
  return tensor;
}

void ReplacementOps::moveReaders(const TensorPtr& oldOutput, const TensorPtr& standIn) {
  graph->transferConsumers(oldOutput, standIn, oldOutput->getConsumers());
  graph->addTraceSources(TraceKind::Tensor, standIn->getName(),
                         graph->getTraceInfo(TraceKind::Tensor, oldOutput->getName()));
}

void ReplacementOps::takeOver(const TensorPtr& oldOutput, const std::string& newName) {
  const TensorPtr standIn = graph->getTensor(newName);
  moveReaders(oldOutput, standIn);
  if (!isGraphOutput(oldOutput)) return;
  handOverGraphOutput(graph, oldOutput, standIn);
  if (updateable.value_or(false)) standIn->setUpdateable(true);
  graph->swapTensorNames(newName, oldOutput->getName());
}

}  // namespace netforge::graphrefiner
