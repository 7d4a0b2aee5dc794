#include "GraphRefiner/src/passes/fusion/TileUnsqueezeToExpand.h"

#include <algorithm>
#include <string>
#include <vector>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner {

namespace {

bool isBroadcast(const OpPtr& op) {
  return op->numInputs() > 0 && isTailBroadcastable(op->getOutput(0)->getDims(), op->getInput(0)->getDims());
}

// Takes all inputs but the first off the op: an Expand has no use for the shape that a Reshape reads.
void dropFurtherInputs(const GraphPtr& graph, const OpPtr& op) {
  dropComputedInputs(graph, op);
  const auto data = op->getInput(0);
  for (const auto& input : op->getInputSet()) {
    if (input != data) graph->removeOpAsConsumer(op, input);
  }
}

}  // namespace

MatchSquashTileUnsqueezeToExpand::MatchSquashTileUnsqueezeToExpand() {
  expandDims = makeOpType("ExpandDims");
  tile = makeOpType("Tile");
  reshape = makeOpType("Reshape");
  tileOfReshape = makeOp("Tile", reshape);
  tileOfExpandDims = makeOp("Tile", expandDims);
  reshapeOfTile = makeOp("Reshape", tile);
  expandDimsOfTile = makeOp("ExpandDims", tile);
  pattern = makeAlt(makeAlt(makeAlt(tileOfReshape, tileOfExpandDims), reshapeOfTile), expandDimsOfTile);
}

bool MatchSquashTileUnsqueezeToExpand::isBroadcastSequence(const OpPtr& innerOp, const OpPtr& outerOp) {
  return isBroadcast(innerOp) && isBroadcast(outerOp);
}

bool MatchSquashTileUnsqueezeToExpand::rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) {
  OpPtr outer;
  OpPtr inner;
  const std::pair<PatternPtr, PatternPtr> arrangements[] = {{tileOfReshape, reshape},
                                                            {tileOfExpandDims, expandDims},
                                                            {reshapeOfTile, tile},
                                                            {expandDimsOfTile, tile}};
  for (const auto& [outerPattern, innerPattern] : arrangements) {
    if (matchedOps.count(outerPattern) == 0) continue;
    outer = matchedOps.at(outerPattern);
    inner = matchedOps.at(innerPattern);
    break;
  }
  if (!outer || !isBroadcastSequence(inner, outer) || hasInteriorGraphOutput(matchedOps, outer)) return false;
  const auto input = inner->getInput(0);
  const auto output = outer->getOutput(0);
  const std::vector<std::uint32_t> dims = output->getDims();
  if (input->getShape().hasDynamicAxes() || output->getShape().hasDynamicAxes() ||
      std::count(dims.begin(), dims.end(), 0u) != 0 || !canSquash(graph, inner, input, true)) {
    return false;
  }
  const std::string name = outer->getName() + "_expand";
  if (graph->hasOp(name)) return false;

  // ---- edits ----
  dropFurtherInputs(graph, outer);
  dropComputedInputs(graph, inner);
  graph->squash(inner, input->getName(), true, true);
  graph->replace(outer, createOp("Expand", name, {{"shape", dims}}));
  return true;
}

std::shared_ptr<Pass> buildSquashTileUnsqueezeToExpand() {
  return makeSequencePass<MatchSquashTileUnsqueezeToExpand>();
}
[[maybe_unused]] static const bool registeredSquashTileUnsqueezeToExpand =
    PassManager::registerPass(PassId::SquashTileUnsqueezeToExpand);

}  // namespace netforge::graphrefiner
