#include "GraphRefiner/src/passes/fusion/GatherNDSequence.h"

#include <string>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/OperationCodes.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner {

namespace {

// Whether Pack can stack the operands of the sum that makes the flat index.
bool isStackable(const TensorPtr& row, const TensorPtr& column, const TensorPtr& index) {
  return index->getRank() == 2 && !index->getShape().hasDynamicAxes() &&
         row->getShape() == index->getShape() && column->getShape() == index->getShape();
}

void squashOntoFirstInput(const GraphPtr& graph, const OpPtr& op, bool keepInput) {
  dropComputedInputs(graph, op);
  graph->squash(op, op->getInput(0)->getName(), keepInput, false);
}

}  // namespace

MatchGatherNDSequence::MatchGatherNDSequence() {
  dataReshapePattern = makeOp("Reshape", makeOpType("Transpose"));
  rowScalePattern = withAttr(makeOpType("Eltwise_Binary"), makeAttr("operation", kMultiply));
  const auto isSum = makeAttr("operation", kAdd);
  flatIndexPattern = makeAlt(withAttr(makeOp("Eltwise_Binary", rowScalePattern, makeWildCard()), isSum),
                             withAttr(makeOp("Eltwise_Binary", makeWildCard(), rowScalePattern), isSum));
  gatherPattern = makeCommutativeOp("Gather", dataReshapePattern, flatIndexPattern);
  gatherReshapePattern = makeOp("Reshape", gatherPattern);
  gatherTransposePattern =
      withAttr(makeOp("Transpose", gatherReshapePattern), makeAttr("perm", std::vector<double>{1, 2, 0}));
  reshapeOutPattern = makeOp("Reshape", gatherTransposePattern);
  pattern = reshapeOutPattern;
}

bool MatchGatherNDSequence::rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) {
  const OpPtr dataReshape = matchedOps.at(dataReshapePattern);
  const OpPtr rowScale = matchedOps.at(rowScalePattern);
  const OpPtr sum = matchedOps.at(flatIndexPattern);
  const OpPtr gather = matchedOps.at(gatherPattern);
  const OpPtr reshapeOut = matchedOps.at(reshapeOutPattern);
  const TensorPtr data = dataReshape->getInput(0);
  if (gather->numInputs() != 2 || gather->getInput(0)->getProducer() != dataReshape ||
      sum->numInputs() != 2 || hasInteriorGraphOutput(matchedOps, reshapeOut)) {
    return false;
  }
  if (reshapeOut->getOutput(0)->getRank() != 4 || data->getRank() < 2 || data->getShape().hasDynamicAxes()) {
    return false;
  }
  // The width may stand on either side of the product, as the product may in the sum.
  const bool rowIsSecond = sum->getInput(1)->getProducer() == rowScale;
  const TensorPtr column = sum->getInput(rowIsSecond ? 0 : 1);
  TensorPtr row = firstNonStaticInput(rowScale);
  if (!row) row = rowScale->getInput(0);
  if (column == rowScale->getOutput(0) || !isStackable(row, column, sum->getOutput(0))) return false;
  const std::string packName = sum->getName() + "_pack";
  const std::string permuteName = gather->getName() + "_permute";
  if (graph->hasOp(packName) || !isFreeName(graph, permuteName)) return false;

  // ---- edits ----
  if (row == rowScale->getInput(0)) dropComputedInputs(graph, rowScale);
  graph->squash(rowScale, row->getName(), false, false);
  if (rowIsSecond) sum->setInputs({sum->getInput(1), sum->getInput(0)});
  graph->replace(sum, createOp("Pack", packName, OpParams{{"axis", OpParam(std::uint32_t{2})}}));
  squashOntoFirstInput(graph, dataReshape, true);
  squashOntoFirstInput(graph, matchedOps.at(gatherReshapePattern), false);
  squashOntoFirstInput(graph, matchedOps.at(gatherTransposePattern), false);
  squashOntoFirstInput(graph, reshapeOut, false);
  const OpPtr gatherNd =
      createOp("GatherNd", gather->getName(), OpParams{{"batch_dims", OpParam(std::int32_t{0})}});
  graph->replace(gather, gatherNd);
  const TensorPtr gathered = gatherNd->getOutput(0);
  if (gathered->getRank() != 4) return false;

  const OpPtr permute =
      createOp("Transpose", permuteName, OpParams{{"perm", OpParam(Permutation{2, 3, 0, 1})}});
  graph->inject(permute, gathered->getName(), permuteName, {}, AxisFormat::NOT_YET_DEFINED, true, false);
  graph->addTraceSources(TraceKind::Op, permuteName, graph->getTraceInfo(TraceKind::Op, gatherNd->getName()));
  graph->addTraceSources(TraceKind::Tensor, permuteName,
                         graph->getTraceInfo(TraceKind::Tensor, gathered->getName()));
  if (isGraphOutput(gathered)) {
    handOverGraphOutput(graph, gathered, permute->getOutput(0));
    graph->swapTensorNames(gathered->getName(), permuteName);
  }
  return true;
}

std::shared_ptr<Pass> buildOptimizeGatherND() {
  return makeSequencePass<MatchGatherNDSequence>();
}
[[maybe_unused]] static const bool registeredOptimizeGatherND =
    PassManager::registerPass(PassId::OptimizeGatherND);

}  // namespace netforge::graphrefiner
