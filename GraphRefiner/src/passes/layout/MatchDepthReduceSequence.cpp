#include "GraphRefiner/src/passes/layout/MatchDepthReduceSequence.h"

#include <algorithm>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

using Dims = std::vector<std::uint32_t>;

namespace {

// A sum over the last of `rank` axes alone, which stays as an axis of length 1.
bool sumsLastAxis(const OpPtr& reduce, std::uint32_t rank) {
  const auto& attributes = reduce->getAttributes();
  if (!attributes->hasAttr("reduce_type") || !attributes->hasAttr("axes") ||
      !attributes->hasAttr("keep_dims")) {
    return false;
  }
  const IrAttribute& kind = attributes->entries().at("reduce_type");
  return kind.isString() && kind.stringValue == "ReduceSum" && attributes->getAttr<bool>("keep_dims") &&
         attributes->getStaticTensor("axes")->getDims() == Dims{1} &&
         readAxes(reduce, rank) == Dims{rank - 1};
}

}  // namespace

MatchDepthReduceSequence::MatchDepthReduceSequence() {
  firstPattern = makeOpType("Transpose");
  subtractPattern =
      withAttr(makeOp("Eltwise_Binary", firstPattern, makeWildCard()), makeAttr("operation", 18.0));
  unaryPattern = withAttr(makeOp("Eltwise_Unary", subtractPattern), makeAttr("operation", 0.0));
  reducePattern = makeOp("Reduce", unaryPattern);
  dividePattern =
      withAttr(makeOp("Eltwise_Binary", reducePattern, makeConstant()), makeAttr("operation", 2.0));
  rootPattern = makeOp("Transpose", dividePattern);
  pattern = rootPattern;
}

bool MatchDepthReduceSequence::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const OpPtr first = matchedOps.at(firstPattern);
  const OpPtr subtract = matchedOps.at(subtractPattern);
  const OpPtr unary = matchedOps.at(unaryPattern);
  const OpPtr reduce = matchedOps.at(reducePattern);
  const OpPtr divide = matchedOps.at(dividePattern);
  const OpPtr root = matchedOps.at(rootPattern);
  if (subtract->numInputs() != 2 || divide->numInputs() != 2) return false;
  if (hasInteriorGraphOutput(matchedOps, root) || isGraphOutput(root->getOutput(0))) return false;
  const Permutation perm = getTransposePerm(first);
  const Permutation back = getTransposePerm(root);
  if (perm.empty() || perm.size() != back.size() || perm != getInversePermutation(back)) return false;
  const auto rank = static_cast<std::uint32_t>(perm.size());
  if (back[rank - 1] == rank - 1 || !sumsLastAxis(reduce, rank)) return false;
  if (divide->getInput(1)->getDims() != Dims{1}) return false;
  const TensorPtr x = first->getInput(0);
  const TensorPtr y = subtract->getInput(1);
  if (y == x || y == first->getOutput(0) || y->getRank() != rank) return false;
  const TransposeName name = inspectTransposeName(graph, y, back, "");
  if (name == TransposeName::Taken) return false;
  const TensorPtr quotient = divide->getOutput(0);
  if (!canSquash(graph, first, x, true) || !canSquash(graph, root, quotient, false)) return false;
  const auto newAxis = std::find(back.begin(), back.end(), rank - 1) - back.begin();

  // ---- edits ----
  graph->squash(first, x->getName(), true, true);
  graph->squash(root, quotient->getName(), false, true);
  if (name == TransposeName::Reusable) {
    insertOrReuseTranspose(graph, subtract, 1, back);
  } else {
    injectTranspose(graph, y->getName(), back, {subtract->getName()}, "", false);
  }
  replaceWordsAttribute(reduce, "axes", {static_cast<std::uint32_t>(newAxis)});
  for (const OpPtr& op : {subtract, unary, reduce}) {
    const TensorPtr output = op->getOutput(0);
    output->setShape(output->getShape().permute(back));
  }
  return true;
}

std::shared_ptr<Pass> buildOptimizeDepthReduce() {
  return makeSequencePass<MatchDepthReduceSequence>();
}
[[maybe_unused]] static const bool registeredOptimizeDepthReduce =
    PassManager::registerPass(PassId::OptimizeDepthReduce);

}  // namespace netforge::graphrefiner
