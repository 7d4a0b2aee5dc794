// Pads: the leading axes merge into the fifth last one.
#include <algorithm>
#include <cstdint>
#include <numeric>
#include <string>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/RankReduction.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/Refusal.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/Replace6dOpPass.h"

namespace netforge::graphrefiner {

namespace {

constexpr std::uint32_t kConstant = 0;  // "scheme": the padding is one value

bool padsWithConstant(const OpPtr& op) {
  const auto& attributes = op->getAttributes();
  return !attributes->hasAttr("scheme") || attributes->getAttr<std::uint32_t>("scheme") == kConstant;
}

// The order that moves an axis in front of all others.
Permutation axisToFront(std::uint32_t axis, std::uint32_t rank) {
  Permutation order(rank);
  std::iota(order.begin(), order.end(), 0u);
  std::rotate(order.begin(), order.begin() + axis, order.begin() + axis + 1);
  return order;
}

// Behind the Pad: a Reshape to the dims in the moved order, and a Transpose back.
void restoreMovedOutput(const GraphPtr& graph, const OpPtr& op, const Dims& movedDims,
                        const Permutation& inverse) {
  const TensorPtr output = op->getOutput(0);
  if (!isGraphOutput(output)) {
    injectPostReshape(graph, op, 0, movedDims);
    for (const OpPtr& reshape : consumersInGraphOrder(*graph, output->getConsumers())) {
      injectLayoutTranspose(graph, reshape, 0, inverse, false);
    }
    return;
  }
  // The graph output keeps its name and dims, as the output of the Transpose.
  const Dims paddedDims = output->getDims();
  const std::string reshapeName = rankReductionName(op, 0, "post_reshape");
  output->setShape(IrTensorShape(movedDims).permute(inverse));
  putBehindOutput(graph, op, 0, makeTranspose(reshapeName + "_idx_0_6d_post_transpose", inverse), reshapeName,
                  paddedDims);
  restoreOutputInPlace(graph, op, 0, movedDims);
}

}  // namespace

bool Replace6dOpPass::handlePadOp(OpPtr& op, GraphPtr& graph) {
  if (!needsLowering(op)) return false;
  const Dims inputDims = op->getInput(0)->getDims();
  const Dims noted = op->getOutput(0)->getDims();
  const auto rank = static_cast<std::uint32_t>(inputDims.size());
  const std::uint32_t merged = rank - kRankLimit;  // the axis that the ones in front of it merge into
  const std::vector<std::uint32_t> pads = readWords(op, "pad_amount");
  const std::uint32_t lead = product({inputDims.begin(), inputDims.begin() + merged});
  const auto isZero = [](std::uint32_t amount) { return amount == 0; };
  // Merged rows can take constant padding alone: a reflection would run through the rows of one index.
  const bool movesAxis = pads.at(2 * merged) != 0 || pads.at(2 * merged + 1) != 0;
  if (!std::all_of(pads.begin(), pads.begin() + 2 * merged, isZero) ||
      (movesAxis && lead > 1 && !padsWithConstant(op))) {
    refuseRank("handlePadOp", op,
               " Pad Op with rank > 5 does not support nonzero pad amount on the dimension which rank > 5.");
  }

  cloneSharedStaticInputs(op, graph);
  const Permutation order = axisToFront(merged, rank);
  if (movesAxis) injectLayoutTranspose(graph, op, 0, order, true);
  Dims dims = op->getInput(0)->getDims();
  std::vector<std::uint32_t> lastFour{merged + 1, merged + 2, merged + 3, merged + 4};
  mergeDimsExcept(dims, lastFour);
  injectPreReshape(graph, op, 0, dims);

  std::vector<std::uint32_t> lowPads(pads.begin() + 2 * merged, pads.end());
  lowPads[0] *= lead;
  lowPads[1] *= lead;
  setWords(op, "pad_amount", op->getAttributes()->getStaticTensorName("pad_amount"), lowPads, {kRankLimit, 2},
           ORLO_DATATYPE_UINT_32);
  for (std::size_t axis = 0; axis < dims.size(); ++axis)
    dims[axis] += lowPads[2 * axis] + lowPads[2 * axis + 1];
  op->getOutput(0)->setShape(IrTensorShape(dims));
  if (movesAxis) {
    restoreMovedOutput(graph, op, IrTensorShape(noted).permute(order).dims, getInversePermutation(order));
  } else {
    injectPostReshape(graph, op, 0, noted);
  }
  return true;
}

}  // namespace netforge::graphrefiner
