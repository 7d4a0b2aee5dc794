// Ops that pick or place elements by index, and the Reshape that hands a tensor of high rank around.
#include <algorithm>
#include <cstdint>
#include <string>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/RankReduction.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/Refusal.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/Replace6dOpPass.h"

namespace netforge::graphrefiner {

namespace {

bool agreeExceptAt(const Dims& data, const Dims& indices, std::uint32_t axis) {
  if (data.size() != indices.size()) return false;
  for (std::size_t i = 0; i < data.size(); ++i) {
    if (i != axis && data[i] != indices[i]) return false;
  }
  return true;
}

// Whether some reader of the Reshape's output also reads its input: a Reshape put on the input for that
// reader would move both.
bool isBypassed(const OpPtr& reshape) {
  const TensorPtr input = reshape->getInput(0);
  const auto& readers = reshape->getOutput(0)->getConsumers();
  return std::any_of(readers.begin(), readers.end(),
                     [&](const OpPtr& reader) { return input->getConsumers().count(reader) != 0; });
}

}  // namespace

bool Replace6dOpPass::handleGatherOp(OpPtr& op, GraphPtr& graph) {
  const bool isLow = !hasInputAboveRankLimit(op) && op->getOutput(0)->getRank() <= kRankLimit;
  if (isLow || hasDynamicTensor(op)) return false;
  const TensorPtr indices = op->getInput(1);
  Dims dims = op->getInput(0)->getDims();
  std::uint32_t axis = readAxis(op, "axis", static_cast<std::uint32_t>(dims.size()));
  foldAroundAxis(dims, axis);
  if (dims.size() - 1 + indices->getRank() > kRankLimit) refuseMerged("handleGatherOp", op, "gather");
  cloneSharedStaticInputs(op, graph);
  writeAxis(op, axis);
  Dims outputDims = dims;
  const auto place = outputDims.erase(outputDims.begin() + static_cast<std::ptrdiff_t>(axis));
  const Dims& indexDims = indices->getDims();
  outputDims.insert(place, indexDims.begin(), indexDims.end());
  const bool readsOneTensor = op->getInput(0) == indices;
  reshapeAround(graph, op, {dims}, outputDims);
  if (readsOneTensor) {  // the indices keep their dims
    op->setInput(indices, 1);
    indices->addConsumer(op);
  }
  return true;
}

bool Replace6dOpPass::handleGatherElementsOp(OpPtr& op, GraphPtr& graph) {
  if (!needsLowering(op)) return false;
  Dims data = op->getInput(0)->getDims();
  Dims indices = op->getInput(1)->getDims();
  const std::uint32_t axis = readAxis(op, "axis", static_cast<std::uint32_t>(data.size()));
  if (!agreeExceptAt(data, indices, axis)) {
    refuseRank("handleGatherElementsOp", op,
               "GatherElements Op with rank > 5 doesn't support shape mismatch on all dimensions, except the "
               "dimension == axis");
  }
  cloneSharedStaticInputs(op, graph);
  std::uint32_t foldedAxis = axis;
  foldAroundAxis(data, foldedAxis);
  foldedAxis = axis;
  foldAroundAxis(indices, foldedAxis);
  writeAxis(op, foldedAxis);
  reshapeAround(graph, op, {data, indices}, indices);
  return true;
}

bool Replace6dOpPass::handleScatterNDOp(OpPtr& op, GraphPtr& /*graph*/) {
  constexpr const char* kHandler = "handleScatterNDOp";
  const auto rankOf = [&](std::uint32_t input) {
    return input < op->numInputs() ? op->getInput(input)->getRank() : 0;
  };
  if (rankOf(0) > kRankLimit)
    refuseRank(kHandler, op, " (type: ScatterND) does not support data with rank > 5.");
  if (rankOf(1) > kRankLimit + 1) {
    refuseRank(kHandler, op, " (type: ScatterND) does not support indice with rank >= 7.");
  }
  if (rankOf(2) > kRankLimit)
    refuseRank(kHandler, op, " (type: ScatterND) does not support update with rank > 5.");
  return false;
}

bool Replace6dOpPass::handleReshapeOp(OpPtr& op, GraphPtr& graph) {
  const TensorPtr output = op->getOutput(0);
  const Dims dims = output->getDims();
  if ((!hasInputAboveRankLimit(op) && dims.size() <= kRankLimit) || hasDynamicTensor(op)) return false;
  const bool cloned = cloneSharedStaticInputs(op, graph);
  const TensorPtr input = op->getInput(0);
  const auto readers = consumersInGraphOrder(*graph, output->getConsumers());
  if (dims.size() <= kRankLimit || readers.size() < 2) return cloned;
  // A graph output has to stay, and each reader's handler can reshape for itself.
  if (isGraphOutput(output) || isBypassed(op) || !canSquash(graph, op, input, true)) return cloned;

  const auto sources =
      graph->collectTraceSources({{TraceKind::Op, op->getName()}, {TraceKind::Tensor, output->getName()}});
  const std::string prefix = op->getName() + "_6d_clone_";
  dropComputedInputs(graph, op);
  graph->squash(op, input->getName(), true, false);
  std::uint32_t counter = 0;
  for (const OpPtr& reader : readers) {
    const OpPtr own = makeReshape(nextFreeName(graph, prefix, counter), dims);
    injectFor(graph, own, input, {reader->getName()}, sources);
    if (!input->isQuantized()) inheritQuantization(output, own->getOutput(0));
  }
  return true;
}

}  // namespace netforge::graphrefiner
