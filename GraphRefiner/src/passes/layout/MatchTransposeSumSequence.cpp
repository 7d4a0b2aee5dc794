#include "GraphRefiner/src/passes/layout/MatchTransposeSumSequence.h"

#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"
#include "ops/LayoutOps.h"

namespace netforge::graphrefiner {

namespace {

bool canSink(const GraphPtr& graph, const OpPtr& transpose) {
  return transpose->getAttributes()->hasAttr("perm") && !isGraphOutput(transpose->getOutput(0)) &&
         canSquash(graph, transpose, transpose->getInput(0), true);
}

// What the sum's readers see now: the sum with its types, in the layout of `transposed`.
TensorPtr makePermuted(const std::string& name, const TensorPtr& sum, const TensorPtr& transposed) {
  auto tensor = std::make_shared<IrTensor>(
      name, transposed->getDims(), sum->getDataType(), sum->getSrcDataType(), sum->isQuantizable(),
      sum->getQuantInfo(), transposed->getAxisFormat(), transposed->getSrcAxisFormat(), TensorType::Native,
      sum->isUpdateable(), sum->getExplicitPermuteOrder());
  tensor->setShape(transposed->getShape());
  return tensor;
}

// Takes the layout of a tensor of the same layout.
void adoptLayout(const TensorPtr& tensor, const TensorPtr& model) {
  tensor->setShape(model->getShape());
  tensor->setAxisFormat(model->getAxisFormat());
  tensor->setExplicitPermuteOrder(model->getExplicitPermuteOrder());
}

}  // namespace

MatchTransposeSumSequence::MatchTransposeSumSequence() {
  firstPattern = makeOp("Transpose", makeWildCard());
  secondPattern = makeOp("Transpose", makeWildCard());
  rootPattern = withAttr(makeOp("Eltwise_Binary", firstPattern, secondPattern), makeAttr("operation", 0.0));
  pattern = rootPattern;
}

bool MatchTransposeSumSequence::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const auto first = matchedOps.at(firstPattern);
  const auto second = matchedOps.at(secondPattern);
  const auto root = matchedOps.at(rootPattern);
  if (!canSink(graph, first) || !canSink(graph, second)) return false;
  const auto transposed = first->getOutput(0);
  if (!hasSameDims(first->getInput(0), second->getInput(0)) ||
      !hasSameDims(transposed, second->getOutput(0)) || getTransposePerm(first) != getTransposePerm(second))
    return false;
  const auto sum = root->getOutput(0);
  const std::string permutedName = sum->getName() + "_permute";
  const std::string transposeName = "transpose_" + root->getName();
  if (isEncodedAlongAxes(*sum) || graph->hasTensor(permutedName) || graph->hasOp(transposeName)) return false;

  // ---- edits ----
  const auto permuted = makePermuted(permutedName, sum, transposed);
  graph->addTensor(permuted);
  const auto transpose = std::make_shared<ops::TransposeOp>(transposeName, first->getAttributes());
  graph->squash(first, first->getInput(0)->getName(), true, false);
  if (second != first) graph->squash(second, second->getInput(0)->getName(), true, false);
  adoptLayout(sum, root->getInput(0));
  const auto readers = consumersInGraphOrder(*graph, sum->getConsumers());
  graph->transferConsumers(sum, permuted, {readers.begin(), readers.end()});
  handOverGraphOutput(graph, sum, permuted);
  graph->addOp(transpose, {sum->getName()}, {permutedName}, std::vector<AxisFormat>{},
               static_cast<std::int32_t>(graph->getOpIndex(root) + 1), false);

  graph->updateTraceInfo(std::vector<OpPtr>{transpose}, {}, {sum}, false);
  graph->updateTraceInfo(std::vector<TensorPtr>{permuted}, {}, {transpose}, false);
  if (!readers.empty()) graph->updateTraceInfo(readers, {}, {permuted}, false);
  return true;
}

std::shared_ptr<Pass> buildSinkTransposeBelowSum() {
  return makeSequencePass<MatchTransposeSumSequence>();
}
[[maybe_unused]] static const bool registeredSinkTransposeBelowSum =
    PassManager::registerPass(PassId::SinkTransposeBelowSum);

}  // namespace netforge::graphrefiner
