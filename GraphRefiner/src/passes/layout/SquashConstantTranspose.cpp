#include "GraphRefiner/src/passes/layout/SquashConstantTranspose.h"

#include <algorithm>
#include <set>
#include <string>
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

namespace {

bool hasWeights(const std::shared_ptr<ops::IrOp>& op) {
  static const std::set<std::string> types = {"Conv2d",         "Conv3d",          "DepthWiseConv2d",
                                              "FullyConnected", "TransposeConv2d", "TransposeConv3d"};
  return types.count(op->getType()) != 0;
}

}  // namespace

SquashConstantTransposePass::SquashConstantTransposePass() {
  handlers["Transpose"] = &SquashConstantTransposePass::handleTransposeOp;
}

bool SquashConstantTransposePass::handleTransposeOp(std::shared_ptr<ops::IrOp>& op,
                                                    std::shared_ptr<IrGraph>& graph) {
  if (!isFoldableConstantTranspose(graph, op)) return false;
  const auto readers = op->getOutput(0)->getConsumers();
  const bool intoNext = std::any_of(readers.begin(), readers.end(), hasWeights);

  // ---- edits ----
  squashConstantTranspose(op, graph, intoNext);
  return true;
}

std::shared_ptr<Pass> buildSquashConstantTranspose() {
  return std::make_shared<SquashConstantTransposePass>();
}
[[maybe_unused]] static const bool registeredSquashConstantTranspose =
    PassManager::registerPass(PassId::SquashConstantTranspose);

}  // namespace netforge::graphrefiner
