#include "GraphRefiner/src/passes/layout/RemoveInverseTransposePair.h"

#include <algorithm>
#include <optional>
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

namespace {

// The axes of the transposed tensor in terms of the tensor that is transposed; none when one is no axis.
std::optional<std::vector<std::uint32_t>> axesBefore(const std::vector<std::uint32_t>& axes,
                                                     const Permutation& inverse) {
  std::vector<std::uint32_t> result;
  for (const std::uint32_t axis : axes) {
    const auto place = std::find(inverse.begin(), inverse.end(), axis);
    if (place == inverse.end()) return std::nullopt;
    result.push_back(static_cast<std::uint32_t>(place - inverse.begin()));
  }
  return result;
}

}  // namespace

removeInverseTransposePair::removeInverseTransposePair() {
  firstPattern = makeOp("Transpose", makeWildCard());
  reducePattern = makeOp("Reduce", firstPattern);
  rootPattern = makeOp("Transpose", reducePattern);
  pattern = rootPattern;
}

bool removeInverseTransposePair::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const auto first = matchedOps.at(firstPattern);
  const auto reduce = matchedOps.at(reducePattern);
  const auto root = matchedOps.at(rootPattern);
  const Permutation perm = getTransposePerm(first);
  const Permutation back = getTransposePerm(root);
  if (perm.size() != back.size() || getInversePermutation(perm) != back) return false;
  const auto transposed = first->getOutput(0);
  const auto reduced = reduce->getOutput(0);
  if (isGraphOutput(transposed) || isGraphOutput(reduced)) return false;
  if (!canSquash(graph, first, first->getInput(0), true) || !canSquash(graph, root, reduced, false))
    return false;
  const auto axes = axesBefore(readAxes(reduce, static_cast<std::uint32_t>(perm.size())), back);

  // ---- edits ----
  graph->squash(first, first->getInput(0)->getName(), true, true);
  graph->squash(root, reduced->getName(), false, true);
  if (axes) replaceWordsAttribute(reduce, "axes", *axes);
  return true;
}

std::shared_ptr<Pass> buildRemoveInverseTransposePair() {
  return makeSequencePass<removeInverseTransposePair>();
}
[[maybe_unused]] static const bool registeredRemoveInverseTransposePair =
    PassManager::registerPass(PassId::RemoveInverseTransposePair);

}  // namespace netforge::graphrefiner
