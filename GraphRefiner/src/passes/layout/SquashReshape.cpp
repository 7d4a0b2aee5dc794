#include "GraphRefiner/src/passes/layout/SquashReshape.h"

#include <optional>
#include <vector>
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

namespace {

using Dims = std::vector<std::uint32_t>;

// The axis that holds the same channels in other dims of the same elements, if there is one.
std::optional<std::uint32_t> findAxisAgain(const Dims& before, std::uint32_t axis, const Dims& after) {
  std::uint64_t lead = 1;
  for (std::uint32_t i = 0; i < axis; ++i) lead *= before[i];
  std::uint64_t leadAfter = 1;
  for (std::uint32_t i = 0; i < after.size(); leadAfter *= after[i++]) {
    if (leadAfter == lead && after[i] == before[axis]) return i;
  }
  return std::nullopt;
}

}  // namespace

squashReshape::squashReshape() {
  rootPattern = makeOp("Reshape", makeConstant());
  pattern = rootPattern;
}

bool squashReshape::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const auto op = matchedOps.at(rootPattern);
  const auto constant = std::dynamic_pointer_cast<IrStaticTensor>(op->getInput(0));
  const auto output = op->getOutput(0);
  if (constant->getConsumers().size() > 1) return false;
  if (isGraphOutput(output)) return false;
  if (feedsLstmInitialState(op)) return false;
  if (graph->hasTensor(constant->getName() + "_tensorOut_0")) return false;

  std::optional<std::uint32_t> channelAxis = findChannelAxis(*constant);
  if (channelAxis) channelAxis = findAxisAgain(constant->getDims(), *channelAxis, output->getDims());
  if (isEncodedAlongAxes(*constant) && !channelAxis) return false;

  // ---- edits ----
  const StaticTensorPtr reshaped = reshapeStaticTensor(constant, output->getDims(), "");
  if (channelAxis) setChannelAxis(*reshaped, *channelAxis);
  // The application goes on reading the old constant, if it did.
  if (isGraphOutput(reshaped)) reshaped->setTensorType(TensorType::Static);
  reshaped->setExplicitPermuteOrder(output->getPermuteOrder());
  graph->addTensor(reshaped);
  replaceAllUsers(graph, reshaped, output, false);
  return true;
}

#define NETFORGE_SQUASH_RESHAPE(name)         \
  std::shared_ptr<Pass> build##name() {       \
    return makeSequencePass<squashReshape>(); \
  }                                           \
  [[maybe_unused]] static const bool registered##name = PassManager::registerPass(PassId::name);

NETFORGE_SQUASH_RESHAPE(SquashReshapeInstance1)
NETFORGE_SQUASH_RESHAPE(SquashReshapeInstance2)

#undef NETFORGE_SQUASH_RESHAPE

}  // namespace netforge::graphrefiner
