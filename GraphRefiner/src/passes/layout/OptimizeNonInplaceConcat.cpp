#include "GraphRefiner/src/passes/layout/OptimizeNonInplaceConcat.h"

#include <algorithm>
#include <string>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner {

using Dims = std::vector<std::uint32_t>;

namespace {

constexpr std::uint32_t kLastAxisAlignment = 32;
constexpr std::uint32_t kMiddleAxisAlignment = 8;

std::vector<OpPtr> readersByName(const TensorPtr& tensor) {
  std::vector<OpPtr> readers(tensor->getConsumers().begin(), tensor->getConsumers().end());
  std::sort(readers.begin(), readers.end(),
            [](const OpPtr& a, const OpPtr& b) { return a->getName() < b->getName(); });
  return readers;
}

void injectTransposeFor(const GraphPtr& graph, const TensorPtr& tensor, const std::string& name,
                        const Permutation& perm, const OpPtr& reader) {
  const OpPtr op = createOp("Transpose", name, OpParams{{"perm", OpParam(perm)}});
  graph->inject(op, tensor->getName(), name, {reader->getName()}, AxisFormat::NOT_YET_DEFINED, true, false);
  const TensorPtr output = op->getOutput(0);
  graph->updateTraceInfo(std::vector<OpPtr>{op}, {}, {tensor}, false);
  graph->updateTraceInfo(std::vector<TensorPtr>{output}, {}, {op}, false);
  graph->updateTraceInfo(std::vector<OpPtr>{reader}, {}, {output}, false);
}

}  // namespace

bool isConcatAligned(std::uint32_t axis, const std::vector<Dims>& dims) {
  const auto isAligned = [axis](const Dims& entry) {
    if (axis >= entry.size()) return false;
    if (axis == 0) return true;
    return entry[axis] % (axis + 1 == entry.size() ? kLastAxisAlignment : kMiddleAxisAlignment) == 0;
  };
  return !dims.empty() && std::all_of(dims.begin(), dims.end(), isAligned);
}

OptimizeNonInplaceConcatRule::OptimizeNonInplaceConcatRule() {
  transposePattern = makeOpType("Transpose");
  reshapePattern = makeOpType("Reshape");
  concatPattern = makeCommutativeOp("Concat", transposePattern, reshapePattern);
  innerPattern = makeOp("Reshape", concatPattern);
  rootPattern = makeOp("Transpose", innerPattern);
  pattern = rootPattern;
}

bool OptimizeNonInplaceConcatRule::rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) {
  const OpPtr concat = matchedOps.at(concatPattern);
  const OpPtr transpose = matchedOps.at(transposePattern);
  if (concat->numInputs() != 2) return false;
  if (hasInteriorGraphOutput(matchedOps, matchedOps.at(rootPattern))) return false;
  const TensorPtr out = concat->getOutput(0);
  const Permutation back = getTransposePerm(transpose);
  const Permutation inverse = getInversePermutation(back);
  const std::uint32_t axis = readAxis(concat, "axis", out->getRank());
  const std::string digits = permToString(inverse);
  const std::string backDigits = permToString(back);
  const auto inputs = concat->getInputs();
  std::vector<Dims> dims;
  std::vector<Dims> permutedDims;
  for (const TensorPtr& input : inputs) {
    if (input->getRank() != inverse.size()) return false;
    if (!isFreeName(graph, input->getName() + "_" + digits)) return false;
    dims.push_back(input->getDims());
    permutedDims.push_back(IrTensorShape(input->getDims()).permute(inverse).dims);
  }
  const auto place = std::find(inverse.begin(), inverse.end(), axis);
  if (place == inverse.end() || isConcatAligned(axis, dims)) return false;
  const auto newAxis = static_cast<std::uint32_t>(place - inverse.begin());
  if (!isConcatAligned(newAxis, permutedDims)) return false;
  const std::vector<OpPtr> readers = readersByName(out);
  const auto nameBehind = [&](std::size_t i) {
    return out->getName() + "_" + std::to_string(i) + "_" + backDigits;
  };
  for (std::size_t i = 0; i < readers.size(); ++i) {
    if (!isFreeName(graph, nameBehind(i))) return false;
  }

  // ---- edits ----
  for (const TensorPtr& input : inputs) {
    injectTransposeFor(graph, input, input->getName() + "_" + digits, inverse, concat);
  }
  writeAxis(concat, newAxis);
  out->setShape(IrTensorShape(IrTensorShape(out->getDims()).permute(inverse)));
  out->setExplicitPermuteOrder(concat->getInput(0)->getPermuteOrder());
  for (std::size_t i = 0; i < readers.size(); ++i) {
    injectTransposeFor(graph, out, nameBehind(i), back, readers[i]);
  }
  return true;
}

std::shared_ptr<Pass> buildOptimizeNonInplaceConcat() {
  return makeSequencePass<OptimizeNonInplaceConcatRule>();
}
[[maybe_unused]] static const bool registeredOptimizeNonInplaceConcat =
    PassManager::registerPass(PassId::OptimizeNonInplaceConcat);

}  // namespace netforge::graphrefiner
