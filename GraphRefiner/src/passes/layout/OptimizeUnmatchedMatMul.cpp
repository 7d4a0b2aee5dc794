#include "GraphRefiner/src/passes/layout/OptimizeUnmatchedMatMul.h"

#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner {

using Dims = std::vector<std::uint32_t>;

namespace {

const Permutation& channelsToFront() {
  static const Permutation order{0, 3, 1, 2};
  return order;
}

bool isSet(const OpPtr& op, const char* flag) {
  return op->getAttributes()->hasAttr(flag) && op->getAttributes()->getAttr<bool>(flag);
}

// [n,h,w,c] to [n,h*w,c].
bool flattensSpatialAxes(const TensorPtr& input, const TensorPtr& output) {
  const Dims& from = input->getDims();
  return from.size() == 4 && output->getDims() == Dims{from[0], from[1] * from[2], from[3]};
}

// Whether the product is wider than high and is taken apart into [n, rows, h, w].
bool spreadsColumns(const OpPtr& matmul, const TensorPtr& out) {
  const Dims& a = matmul->getInput(0)->getDims();
  const Dims& b = matmul->getInput(1)->getDims();
  const Dims& m = matmul->getOutput(0)->getDims();
  const Dims& o = out->getDims();
  if (o.size() != 4 || a.size() < 2 || b.size() != 3 || m.size() < 3) return false;
  return a[1] == o[1] && a[0] == b[0] && b[2] == o[2] * o[3] && m[1] < m[2];
}

// The new Transpose in front of the Reshape, with an output like x in everything but the axes.
void transposeInFrontOf(const GraphPtr& graph, const OpPtr& reshape, const TensorPtr& x) {
  const Permutation& order = channelsToFront();
  const std::string name = x->getName() + "_" + permToString(order);
  const OpPtr op = createOp("Transpose", name, OpParams{{"perm", OpParam(order)}});
  Dims dims;
  for (const std::uint32_t axis : order) dims.push_back(x->getDims()[axis]);
  graph->addTensor(std::make_shared<IrTensor>(name, dims, x->getDataType(), x->getSrcDataType(),
                                              x->isQuantizable(), x->getQuantInfo(), x->getAxisFormat(),
                                              x->getSrcAxisFormat(), TensorType::Native, x->isUpdateable(),
                                              x->getPermuteOrder()));
  graph->addOp(op, {x->getName()}, {name}, std::vector<AxisFormat>{},
               static_cast<std::int32_t>(graph->getOpIndex(reshape)), false);
  const TensorPtr turned = op->getOutput(0);
  graph->updateTraceInfo(std::vector<OpPtr>{op}, {reshape}, {x}, false);
  graph->updateTraceInfo(std::vector<TensorPtr>{turned}, {}, {op}, false);
  graph->transferConsumers(x, turned, {reshape});
}

}  // namespace

OptimizeUnmatchedMatMulRule::OptimizeUnmatchedMatMulRule() {
  reshapePattern = makeOpType("Reshape");
  transposePattern = makeOp("Transpose", reshapePattern);
  matmulPattern = makeOp("MatMul", makeWildCard(), transposePattern);
  rootPattern = makeOp("Reshape", matmulPattern);
  pattern = rootPattern;
}

bool OptimizeUnmatchedMatMulRule::rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) {
  const OpPtr reshape = matchedOps.at(reshapePattern);
  const OpPtr transpose = matchedOps.at(transposePattern);
  const OpPtr matmul = matchedOps.at(matmulPattern);
  const OpPtr root = matchedOps.at(rootPattern);
  const TensorPtr x = reshape->getInput(0);
  const TensorPtr flat = reshape->getOutput(0);
  if (flat->getConsumers().size() > 1 || matmul->getOutput(0)->getConsumers().size() > 1) return false;
  if (hasInteriorGraphOutput(matchedOps, root)) return false;
  if (matmul->numInputs() != 2 || reshape->numInputs() != 1) return false;
  if (matmul->getInput(0) == matmul->getInput(1)) return false;
  if (isSet(matmul, "transpose_in0") || isSet(matmul, "transpose_in1")) return false;
  if (getTransposePerm(transpose) != Permutation{0, 2, 1}) return false;
  if (!flattensSpatialAxes(x, flat) || !spreadsColumns(matmul, root->getOutput(0))) return false;
  const TransposeName name = inspectTransposeName(graph, x, channelsToFront(), "");
  if (name == TransposeName::Taken || !canSquash(graph, transpose, flat, true)) return false;

  // ---- edits ----
  graph->squash(transpose, flat->getName(), true, true);
  if (name == TransposeName::Reusable) {
    insertOrReuseTranspose(graph, reshape, 0, channelsToFront());
  } else {
    transposeInFrontOf(graph, reshape, x);
  }
  const Dims& dims = flat->getDims();
  flat->setShape(IrTensorShape(Dims{dims[0], dims[2], dims[1]}));
  const auto shape = std::make_shared<IrStaticTensor>(reshape->getName() + "_shape", flat->getDims());
  reshape->getAttributes()->add("shape", shape, ATTR_SUPPLEMENTAL);
  return true;
}

std::shared_ptr<Pass> buildOptimizeUnmatchedMatMul() {
  return makeSequencePass<OptimizeUnmatchedMatMulRule>();
}
[[maybe_unused]] static const bool registeredOptimizeUnmatchedMatMul =
    PassManager::registerPass(PassId::OptimizeUnmatchedMatMul);

}  // namespace netforge::graphrefiner
