#include "GraphRefiner/src/passes/layout/rank_reduction/RankReduction.h"

#include <algorithm>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ops/OpFactory.h"
#include "ops/OpInference.h"

namespace netforge::graphrefiner {

namespace {

std::vector<TraceSource> sourcesOf(const GraphPtr& graph, const OpPtr& op, const TensorPtr& tensor) {
  return graph->collectTraceSources({{TraceKind::Op, op->getName()}, {TraceKind::Tensor, tensor->getName()}});
}

// Puts the clone at every place where the consumer reads the tensor.
void giveClone(const GraphPtr& graph, const StaticTensorPtr& tensor, const OpPtr& consumer,
               const std::string& name) {
  const auto clone = std::make_shared<IrStaticTensor>(
      name, tensor->getDims(), tensor->getDataSize(), tensor->getData(), tensor->getDataType(),
      tensor->getSrcDataType(), tensor->isQuantizable(), tensor->getQuantInfo(), tensor->getAxisFormat(),
      tensor->getSrcAxisFormat(), false, TensorType::Static, tensor->isUpdateable(),
      tensor->getExplicitPermuteOrder(), tensor->getTransformManager());
  graph->addTensor(clone);
  graph->updateTraceInfo(std::vector<TensorPtr>{clone}, {tensor}, {}, false);
  graph->transferConsumers(tensor, clone, {consumer});
}

}  // namespace

bool hasInputAboveRankLimit(const OpPtr& op) {
  const auto inputs = op->getInputs();
  return std::any_of(inputs.begin(), inputs.end(),
                     [](const TensorPtr& input) { return input->getRank() > kRankLimit; });
}

bool hasDynamicTensor(const OpPtr& op) {
  const auto isDynamic = [](const TensorPtr& tensor) { return tensor->getShape().hasDynamicAxes(); };
  const auto inputs = op->getInputs();
  const auto outputs = op->getOutputs();
  return std::any_of(inputs.begin(), inputs.end(), isDynamic) ||
         std::any_of(outputs.begin(), outputs.end(), isDynamic);
}

bool needsLowering(const OpPtr& op) {
  return hasInputAboveRankLimit(op) && !hasDynamicTensor(op);
}

bool cloneSharedStaticInputs(const OpPtr& op, const GraphPtr& graph) {
  bool cloned = false;
  for (const TensorPtr& input : op->getInputs()) {
    if (input->getRank() <= kRankLimit || !input->isStatic() || input->getConsumers().size() < 2) continue;
    const auto tensor = std::dynamic_pointer_cast<IrStaticTensor>(input);
    std::uint32_t counter = 0;
    for (const OpPtr& consumer : consumersInGraphOrder(*graph, tensor->getConsumers())) {
      if (tensor->getConsumers().size() < 2) break;
      giveClone(graph, tensor, consumer, nextFreeName(graph, tensor->getName() + "_6d_clone_", counter));
      cloned = true;
    }
  }
  return cloned;
}

std::string nextFreeName(const GraphPtr& graph, const std::string& prefix, std::uint32_t& counter) {
  std::string name;
  do {
    name = prefix + std::to_string(counter++);
  } while (!isFreeName(graph, name));
  return name;
}

std::string rankReductionName(const OpPtr& op, std::uint32_t index, const std::string& kind) {
  return op->getName() + "_idx_" + std::to_string(index) + "_6d_" + kind;
}

std::vector<std::uint32_t> readWords(const OpPtr& op, const std::string& attribute) {
  const auto values = ops::readInt32Values(*op->getAttributes()->getStaticTensor(attribute));
  return {values.begin(), values.end()};
}

void setWords(const OpPtr& op, const std::string& attribute, const std::string& tensorName,
              const std::vector<std::uint32_t>& words, const Dims& dims, DataType type) {
  const auto size = static_cast<std::uint32_t>(words.size() * sizeof(std::uint32_t));
  const auto tensor = std::make_shared<IrStaticTensor>(
      tensorName, dims, size, words.data(), type, AxisFormat::NOT_YET_DEFINED, AxisFormat::NOT_YET_DEFINED,
      false, TensorType::Static, Dims{});
  op->getAttributes()->add(attribute, tensor, ATTR_ORDINARY);
}

OpPtr makeReshape(const std::string& name, const Dims& dims) {
  return createOp("Reshape", name, OpParams{{"shape", OpParam(dims)}});
}

OpPtr makeTranspose(const std::string& name, const Permutation& perm) {
  return createOp("Transpose", name, OpParams{{"perm", OpParam(perm)}});
}

void inheritQuantization(const TensorPtr& from, const TensorPtr& to) {
  if (!from->isQuantized()) return;
  if (!to->isQuantizable()) {  // made with the source type of `from`, which may be a quantised one
    to->setDataType(ORLO_DATATYPE_FLOAT_32);
    to->setQuantizable(true);
  }
  to->setQInfo(from->getDataType(), from->getQuantInfo());
}

void injectFor(const GraphPtr& graph, const OpPtr& newOp, const TensorPtr& tensor,
               const std::vector<std::string>& readers, const std::vector<TraceSource>& sources) {
  const std::string& name = newOp->getName();
  graph->inject(newOp, tensor->getName(), name, readers, AxisFormat::NOT_YET_DEFINED, false, false);
  graph->addTraceSources({name}, {name}, sources);
  inheritQuantization(tensor, newOp->getOutput(0));
}

void injectPreReshape(const GraphPtr& graph, const OpPtr& op, std::uint32_t index, const Dims& dims) {
  const TensorPtr tensor = op->getInput(index);
  injectFor(graph, makeReshape(rankReductionName(op, index, "pre_reshape"), dims), tensor, {op->getName()},
            sourcesOf(graph, op, tensor));
}

void injectPostReshape(const GraphPtr& graph, const OpPtr& op, std::uint32_t index, const Dims& dims) {
  const TensorPtr tensor = op->getOutput(index);
  if (isGraphOutput(tensor)) {
    restoreOutputInPlace(graph, op, index, dims);
    return;
  }
  const std::string name = rankReductionName(op, index, "post_reshape");
  std::uint32_t counter = 0;
  for (const OpPtr& consumer : consumersInGraphOrder(*graph, tensor->getConsumers())) {
    injectFor(graph, makeReshape(name + std::to_string(counter++), dims), tensor, {consumer->getName()},
              sourcesOf(graph, op, tensor));
  }
}

void restoreOutputInPlace(const GraphPtr& graph, const OpPtr& op, std::uint32_t index, const Dims& dims) {
  const TensorPtr tensor = op->getOutput(index);
  const std::string name = rankReductionName(op, index, "post_reshape");
  const Dims reduced = tensor->getDims();
  tensor->setShape(IrTensorShape(dims));
  putBehindOutput(graph, op, index, makeReshape(name, dims), name + "_input", reduced);
}

void putBehindOutput(const GraphPtr& graph, const OpPtr& op, std::uint32_t index, const OpPtr& follower,
                     const std::string& tensorName, const Dims& tensorDims) {
  const TensorPtr output = op->getOutput(index);
  const auto sources = sourcesOf(graph, op, output);
  const TensorPtr between = addTensorLike(graph, tensorName, tensorDims, output);
  op->setOutput(between, index);
  between->setProducer(op);
  between->addConsumer(follower);
  follower->addInput(between);
  follower->addOutput(output);
  output->setProducer(follower);
  graph->addOp(follower, static_cast<std::int32_t>(graph->getOpIndex(op) + 1), false);
  graph->addTraceSources({follower->getName()}, {tensorName, output->getName()}, sources);
}

TensorPtr addTensorLike(const GraphPtr& graph, const std::string& name, const Dims& dims,
                        const TensorPtr& like) {
  const auto tensor = std::make_shared<IrTensor>(
      name, dims, like->getDataType(), like->getSrcDataType(), like->isQuantizable(), like->getQuantInfo(),
      AxisFormat::NOT_YET_DEFINED, AxisFormat::NOT_YET_DEFINED, TensorType::Native, Dims{});
  graph->addTensor(tensor);
  return tensor;
}

void injectLayoutTranspose(const GraphPtr& graph, const OpPtr& op, std::uint32_t index,
                           const Permutation& perm, bool beforeInput) {
  const TensorPtr tensor = beforeInput ? op->getInput(index) : op->getOutput(index);
  const std::string name = rankReductionName(op, index, beforeInput ? "pre_transpose" : "post_transpose");
  const std::vector<std::string> readers =
      beforeInput ? std::vector<std::string>{op->getName()} : std::vector<std::string>{};
  injectFor(graph, makeTranspose(name, perm), tensor, readers, sourcesOf(graph, op, tensor));
}

void reshapeAround(const GraphPtr& graph, const OpPtr& op, const std::vector<Dims>& inputDims,
                   const Dims& outputDims) {
  const TensorPtr output = op->getOutput(0);
  const Dims noted = output->getDims();
  for (std::uint32_t i = 0; i < inputDims.size(); ++i) injectPreReshape(graph, op, i, inputDims[i]);
  output->setShape(IrTensorShape(outputDims));
  injectPostReshape(graph, op, 0, noted);
}

}  // namespace netforge::graphrefiner
