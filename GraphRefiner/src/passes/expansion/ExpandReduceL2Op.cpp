#include "GraphRefiner/src/passes/expansion/ExpandReduceL2Op.h"

#include <algorithm>
#include "GraphRefiner/src/OperationCodes.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "GraphRefiner/src/passes/expansion/OpExpansion.h"

namespace netforge::graphrefiner {

namespace {

// Never of rank 0: a norm over all axes has dims [1].
IrTensorShape reducedShape(const IrTensorShape& shape, const std::vector<std::uint32_t>& axes,
                           bool keepDims) {
  std::vector<std::uint32_t> dims;
  std::set<std::uint32_t> dynamicAxes;
  for (std::uint32_t axis = 0; axis < shape.rank(); ++axis) {
    const bool isReduced = std::find(axes.begin(), axes.end(), axis) != axes.end();
    if (isReduced && !keepDims) continue;
    if (!isReduced && shape.isDynamicDim(axis)) dynamicAxes.insert(static_cast<std::uint32_t>(dims.size()));
    dims.push_back(isReduced ? 1 : shape.dims[axis]);
  }
  if (dims.empty()) dims.push_back(1);
  return {dims, dynamicAxes};
}

}  // namespace

ExpandReduceL2OpRule::ExpandReduceL2OpRule() {
  reducePattern = makeOpType("ReduceL2");
  pattern = reducePattern;
}

bool ExpandReduceL2OpRule::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const auto op = matchedOps.at(reducePattern);
  if (op->numInputs() == 0 || op->numOutputs() == 0) return false;
  const auto input = op->getInput(0);
  const auto output = op->getOutput(0);
  const std::string productName = op->getName() + "_mul";
  const std::string sumName = op->getName() + "_reduced_sum";
  const std::string rootName = op->getName() + "_sqrt";
  if (!OpExpansion::areFree(graph, {productName, sumName}) || graph->hasOp(rootName)) return false;
  const auto axes = readAxes(op, input->getRank());
  const auto& attributes = op->getAttributes();
  const bool keepDims = !attributes->hasAttr("keep_dims") || attributes->getAttr<bool>("keep_dims");
  const IrTensorShape shape = reducedShape(input->getShape(), axes, keepDims);

  // ---- edits ----
  OpExpansion expansion(graph, op);
  const auto product = OpExpansion::tensorLike(productName, input->getShape(), *input);
  expansion.addOp("Eltwise_Binary", productName, {{"operation", kMultiply}}, {input, input}, product);
  const auto sum =
      std::make_shared<IrTensor>(sumName, shape.dims, input->getDataType(), input->getSrcDataType(),
                                 input->isQuantizable(), input->getQuantInfo(), output->getAxisFormat(),
                                 output->getSrcAxisFormat(), TensorType::Native, output->getPermuteOrder());
  sum->setShape(shape);
  expansion.addOp("Reduce", sumName, {{"reduce_type", "ReduceSum"}, {"axes", axes}, {"keep_dims", keepDims}},
                  {product}, sum);
  expansion.addOp("Eltwise_Unary", rootName, {{"operation", kSquareRoot}}, {sum}, output);
  expansion.removeOp();
  return true;
}

std::shared_ptr<Pass> buildExpandReduceL2Op() {
  return makeSequencePass<ExpandReduceL2OpRule>();
}
[[maybe_unused]] static const bool registeredExpandReduceL2Op =
    PassManager::registerPass(PassId::ExpandReduceL2Op);

}  // namespace netforge::graphrefiner
