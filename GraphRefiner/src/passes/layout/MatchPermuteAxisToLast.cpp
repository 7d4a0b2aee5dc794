#include "GraphRefiner/src/passes/layout/MatchPermuteAxisToLast.h"

#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

namespace {

Permutation orderThatMovesToLast(std::uint32_t rank, std::uint32_t axis) {
  if (axis == 1 && rank >= 3 && rank <= 5) return permChannelFirstToLast(rank);
  // The last axis goes in front of the spatial ones, as from channel-last to channel-first.
  if ((rank == 4 || rank == 5) && axis == rank - 2) return permChannelLastToFirst(rank);
  return permAxisToLast(rank, axis);
}

// Whether `injectTranspose` behind the output can give its names; a graph output is renamed besides.
bool canInjectBehind(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<IrTensor>& output,
                     const Permutation& perm, const std::string& base) {
  if (inspectTransposeName(graph, output, perm, base) != TransposeName::Free) return false;
  if (!isGraphOutput(output)) return true;
  const Permutation digits = output->getPermuteOrder().empty() ? Permutation{} : getInversePermutation(perm);
  return inspectTransposeName(graph, output, digits, base) == TransposeName::Free;
}

}  // namespace

MatchPermuteAxisToLast::MatchPermuteAxisToLast() {
  rootPattern = makeAlt(makeOpType("Softmax"), makeOpType("LogSoftmax"));
  pattern = rootPattern;
}

bool MatchPermuteAxisToLast::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const auto op = matchedOps.at(rootPattern);
  const auto input = op->getInput(0);
  const auto output = op->getOutput(0);
  const std::uint32_t rank = input->getRank();
  if (!op->getAttributes()->hasAttr("axis")) return false;
  const std::uint32_t axis = readAxis(op, "axis", rank);
  if (axis >= rank || axis == rank - 1) return false;
  const Permutation forward = orderThatMovesToLast(rank, axis);
  const Permutation backward = getInversePermutation(forward);
  const std::string base = op->getName() + "_post_transpose";
  if (!canInsertOrReuseTranspose(graph, input, forward) || !canInjectBehind(graph, output, backward, base))
    return false;

  // ---- edits ----
  std::vector<std::uint32_t> dims;
  for (const std::uint32_t inputAxis : forward) dims.push_back(input->getDims()[inputAxis]);
  insertOrReuseTranspose(graph, op, 0, forward);
  writeAxis(op, rank - 1);
  output->setShape(IrTensorShape(dims));
  std::vector<std::string> readers;
  for (const auto& reader : output->getConsumers()) readers.push_back(reader->getName());
  injectTranspose(graph, output->getName(), backward, readers, base, true);
  return true;
}

std::shared_ptr<Pass> buildPermuteAxisToLast() {
  return makeSequencePass<MatchPermuteAxisToLast>();
}
[[maybe_unused]] static const bool registeredPermuteAxisToLast =
    PassManager::registerPass(PassId::PermuteAxisToLast);

}  // namespace netforge::graphrefiner
