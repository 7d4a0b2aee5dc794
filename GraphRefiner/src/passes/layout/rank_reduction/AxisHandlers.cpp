// Ops that work along some axes and leave the others alone.
#include <algorithm>
#include <cstdint>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/RankReduction.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/Refusal.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/Replace6dOpPass.h"

namespace netforge::graphrefiner {

namespace {

bool keepsDims(const OpPtr& reduce) {
  const auto& attributes = reduce->getAttributes();
  return attributes->hasAttr("keep_dims") && attributes->getAttr<bool>("keep_dims");
}

Dims reducedDims(const Dims& dims, const std::vector<std::uint32_t>& axes, bool keepDims) {
  Dims result;
  for (std::uint32_t axis = 0; axis < dims.size(); ++axis) {
    const bool isReduced = std::find(axes.begin(), axes.end(), axis) != axes.end();
    if (!isReduced) {
      result.push_back(dims[axis]);
    } else if (keepDims) {
      result.push_back(1);
    }
  }
  return result.empty() ? Dims{1} : result;
}

}  // namespace

bool Replace6dOpPass::handleSoftmaxOp(OpPtr& op, GraphPtr& graph) {
  if (!needsLowering(op)) return false;
  cloneSharedStaticInputs(op, graph);
  Dims dims = op->getInput(0)->getDims();
  std::uint32_t axis = readAxis(op, "axis", static_cast<std::uint32_t>(dims.size()));
  foldAroundAxis(dims, axis);
  writeAxis(op, axis);
  reshapeAround(graph, op, {dims}, dims);
  return true;
}

bool Replace6dOpPass::handleConcatOp(OpPtr& op, GraphPtr& graph) {
  if (!needsLowering(op)) return false;
  cloneSharedStaticInputs(op, graph);
  const std::uint32_t axis = readAxis(op, "axis", op->getInput(0)->getRank());
  std::uint32_t foldedAxis = axis;
  std::vector<Dims> folded;
  Dims outputDims;
  for (const TensorPtr& input : op->getInputs()) {
    Dims dims = input->getDims();
    foldedAxis = axis;
    foldAroundAxis(dims, foldedAxis);
    if (folded.empty()) {
      outputDims = dims;
    } else {
      outputDims[foldedAxis] += dims[foldedAxis];
    }
    folded.push_back(dims);
  }
  writeAxis(op, foldedAxis);
  reshapeAround(graph, op, folded, outputDims);
  return true;
}

bool Replace6dOpPass::handleReduceOp(OpPtr& op, GraphPtr& graph) {
  if (!needsLowering(op)) return false;
  Dims dims = op->getInput(0)->getDims();
  std::vector<std::uint32_t> axes = readAxes(op, static_cast<std::uint32_t>(dims.size()));
  mergeDimsExcept(dims, axes);
  if (dims.size() > kRankLimit) refuseMerged("handleReduceOp", op, "Reduce");
  cloneSharedStaticInputs(op, graph);
  replaceWordsAttribute(op, "axes", axes);
  reshapeAround(graph, op, {dims}, reducedDims(dims, axes, keepsDims(op)));
  return true;
}

bool Replace6dOpPass::handleTileOp(OpPtr& op, GraphPtr& graph) {
  if (!needsLowering(op)) return false;
  const TiledDims merged = mergeTiledAxes(op->getInput(0)->getDims(), readWords(op, "multiples"));
  if (merged.input.size() > kRankLimit) refuseMerged("handleTileOp", op, "tile");
  cloneSharedStaticInputs(op, graph);
  replaceWordsAttribute(op, "multiples", merged.multiples);
  reshapeAround(graph, op, {merged.input}, merged.output);
  return true;
}

}  // namespace netforge::graphrefiner
