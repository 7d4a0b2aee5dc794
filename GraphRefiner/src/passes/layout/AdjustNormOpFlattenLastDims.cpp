#include "GraphRefiner/src/passes/layout/AdjustNormOpFlattenLastDims.h"

#include <algorithm>
#include <functional>
#include <iostream>
#include <numeric>
#include <optional>
#include <string>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner {

using Dims = std::vector<std::uint32_t>;

namespace {

// How many trailing axes the op normalises over; none when it is one, or when they aren't r-k, ..., r-1.
std::optional<std::uint32_t> severalTrailingAxes(const OpPtr& op, std::uint32_t rank) {
  const Dims axes = readAxes(op, rank);
  const auto count = static_cast<std::uint32_t>(axes.size());
  if (count < 2 || count > rank) return std::nullopt;
  for (std::uint32_t i = 0; i < count; ++i) {
    if (axes[i] != rank - count + i) return std::nullopt;
  }
  return count;
}

// The last `count` dims become ones and, in the last place, their product.
Dims flattenTrailing(const Dims& dims, std::uint32_t count) {
  Dims result = dims;
  const auto first = result.end() - static_cast<std::ptrdiff_t>(count);
  const std::uint32_t product = std::accumulate(first, result.end(), 1u, std::multiplies<>());
  std::fill(first, result.end(), 1u);
  result.back() = product;
  return result;
}

bool isReadByOthers(const TensorPtr& tensor, const char* role) {
  const std::size_t readers = tensor->getConsumers().size();
  if (readers == 1) return false;
  std::cout << "netforge::graphrefiner::AdjustNormOpFlattenLastDimsPass::flattenLastDims: " << role << " has "
            << readers << " consumers. Multiple consumers on " << role
            << " is not supported in flatten_last_dims\n"
            << std::endl;
  return true;
}

bool isWeightOf(const TensorPtr& tensor, std::uint32_t places) {
  return tensor->isStatic() && !isGraphOutput(tensor) &&
         (tensor->elements() == 1 || tensor->elements() == places);
}

void flattenWeight(const GraphPtr& graph, const TensorPtr& weight) {
  const auto constant = std::dynamic_pointer_cast<IrStaticTensor>(weight);
  const auto count = static_cast<std::uint32_t>(constant->elements());
  const StaticTensorPtr copy = reshapeStaticTensor(constant, {count}, "");
  copy->setExplicitPermuteOrder(constant->getPermuteOrder());
  supersedeConstant(graph, constant, copy);
}

OpPtr injectReshape(const GraphPtr& graph, const std::string& name, const TensorPtr& tensor, const Dims& dims,
                    const std::vector<std::string>& readers) {
  const OpPtr reshape = createOp("Reshape", name, OpParams{{"shape", OpParam(dims)}});
  graph->inject(reshape, tensor->getName(), name, readers, tensor->getAxisFormat(), false, false);
  return reshape;
}

void flattenLastDims(const GraphPtr& graph, const OpPtr& op) {
  if (op->numInputs() < 2 || op->numOutputs() != 1 || !op->getAttributes()->hasAttr("axes")) return;
  const TensorPtr in = op->getInput(0);
  const TensorPtr out = op->getOutput(0);
  const TensorPtr gamma = op->getInput(1);
  TensorPtr beta = op->numInputs() > 2 ? op->getInput(2) : nullptr;
  if (beta && beta->getTensorType() == TensorType::Null) beta = nullptr;
  const std::uint32_t rank = in->getRank();
  const auto count = severalTrailingAxes(op, rank);
  if (!count || (rank == 4 && *count == 3)) return;
  if (in->getShape().hasDynamicAxes() || !hasSameDims(in, out) || in == gamma || in == beta) return;
  if (isReadByOthers(gamma, "gamma") || (beta && isReadByOthers(beta, "beta"))) return;
  const Dims oldDims = in->getDims();
  const Dims newDims = flattenTrailing(oldDims, *count);
  if (!isWeightOf(gamma, newDims.back()) || (beta && !isWeightOf(beta, newDims.back()))) return;
  const std::string before = op->getName() + "_adjust_norm_pre_reshape";
  const std::string behind = op->getName() + "_adjust_norm_post_reshape";
  if (!isFreeName(graph, before) || !isFreeName(graph, behind)) return;

  // ---- edits ----
  injectReshape(graph, before, in, newDims, {op->getName()});
  flattenWeight(graph, gamma);
  if (beta && beta != gamma) flattenWeight(graph, beta);
  setAxes(op, {rank - 1});
  out->setShape(IrTensorShape(newDims));
  const TensorPtr restored = injectReshape(graph, behind, out, oldDims, {})->getOutput(0);
  graph->addTraceSources(
      {behind}, {behind},
      graph->collectTraceSources({{TraceKind::Op, op->getName()}, {TraceKind::Tensor, out->getName()}}));
  passGraphOutputOn(graph, out, restored);
}

}  // namespace

AdjustNormOpFlattenLastDimsPass::AdjustNormOpFlattenLastDimsPass() {
  rmsNormPattern = makeOpType("RmsNorm");
  layerNormPattern = makeOpType("LayerNorm");
  rootPattern = makeAlt(rmsNormPattern, layerNormPattern);
  pattern = rootPattern;
}

bool AdjustNormOpFlattenLastDimsPass::rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) {
  flattenLastDims(graph, matchedOps.at(rootPattern));
  return false;
}

std::shared_ptr<Pass> buildAdjustNormOpFlattenLastDims() {
  return makeSequencePass<AdjustNormOpFlattenLastDimsPass>();
}
[[maybe_unused]] static const bool registeredAdjustNormOpFlattenLastDims =
    PassManager::registerPass(PassId::AdjustNormOpFlattenLastDims);

}  // namespace netforge::graphrefiner
