#include "GraphRefiner/src/passes/fusion/SpaceToDepthSequence.h"

#include <string>
#include <vector>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/AxisOrder.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner {

using Dims = std::vector<std::uint32_t>;

namespace {

std::uint32_t blockSizeOf(const OpPtr& reshapeIn) {
  return reshapeIn->getOutput(0)->getDims()[3];
}

// A native tensor like `model` but with its axes moved to the order N, then the two behind C, then C.
void addChannelLastTensor(const GraphPtr& graph, const std::string& name, const TensorPtr& model,
                          AxisFormat format) {
  const Dims& dims = model->getDims();
  graph->addTensor(name, {dims[0], dims[2], dims[3], dims[1]}, model->getDataType(), model->getSrcDataType(),
                   format, model->getSrcAxisFormat(), model->isQuantizable(), model->getQuantInfo(),
                   TensorType::Native, model->isUpdateable(), model->getPermuteOrder());
}

OpPtr makeTranspose(const std::string& name, const Permutation& perm) {
  return createOp("Transpose", name, OpParams{{"perm", OpParam(perm)}});
}

}  // namespace

matchSpaceToDepth::matchSpaceToDepth() {
  reshapeInPattern = makeOpType("Reshape");
  PatternPtr node = makeOp("Transpose", reshapeInPattern);
  node = makeOp("Transpose", makeOp("Reshape", node));
  node = makeOp("Transpose", makeOp("Reshape", node));
  reshapeOutPattern = makeOp("Reshape", node);
  pattern = reshapeOutPattern;
}

bool matchSpaceToDepth::isSpaceToDepthSequence(const OpPtr& firstOp, const OpPtr& lastOp) {
  const TensorPtr x = firstOp->getInput(0);
  const TensorPtr out = lastOp->getOutput(0);
  if (firstOp->getOutput(0)->getRank() != 6 || x->getRank() != 4) return false;
  if (x->getShape().hasDynamicAxes() || out->getShape().hasDynamicAxes()) return false;
  const std::uint32_t block = blockSizeOf(firstOp);
  const OnnxAxisOrder order;
  const Dims image = order.extractSpatialDims(x->getDims());  // N, H, W, C
  if (block == 0 || image[1] % block != 0 || image[2] % block != 0) return false;
  return out->getDims() ==
         order.makeSpatial2dDims(image[0], image[1] / block, image[2] / block, image[3] * block * block);
}

bool matchSpaceToDepth::rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) {
  const OpPtr reshapeIn = matchedOps.at(reshapeInPattern);
  const OpPtr reshapeOut = matchedOps.at(reshapeOutPattern);
  if (!isSpaceToDepthSequence(reshapeIn, reshapeOut) || hasInteriorGraphOutput(matchedOps, reshapeOut)) {
    return false;
  }
  const TensorPtr x = reshapeIn->getInput(0);
  const TensorPtr out = reshapeOut->getOutput(0);
  const Permutation toChannelLast = {0, 2, 3, 1};
  const std::string inName = x->getName() + ".nhwc";
  const std::string outName = out->getName() + ".nchw";
  const std::string opName = reshapeIn->getName() + "_space_to_depth";
  // Another sequence on the same tensor may have put the Transpose there already.
  const OpPtr present = findTransposeWithPerm(x, toChannelLast);
  const bool reuses = present && present->getOutput(0)->getName() == inName;
  if (!isFreeName(graph, outName) || graph->hasOp(opName) || (!reuses && !isFreeName(graph, inName))) {
    return false;
  }

  // ---- edits ----
  const auto place = [&] { return graph->getOpIndex(reshapeIn); };
  const auto insertOp = [&](const OpPtr& op, const TensorPtr& from, const TensorPtr& to) {
    graph->addOp(op, {from->getName()}, {to->getName()}, {to->getShape()}, {},
                 static_cast<std::int32_t>(place()), false);
  };
  std::vector<TraceKey> keys;
  for (OpPtr op = reshapeOut; op != reshapeIn; op = op->getInput(0)->getProducer()) {
    keys.push_back({TraceKind::Op, op->getName()});
  }
  keys.push_back({TraceKind::Op, reshapeIn->getName()});
  const auto sources = graph->collectTraceSources(keys);
  const bool isOutput = isGraphOutput(out);

  if (!reuses) {
    addChannelLastTensor(graph, inName, x, AxisFormat::NHWC);
    insertOp(makeTranspose(inName, toChannelLast), x, graph->getTensor(inName));
    graph->addTraceSources({inName}, {inName}, graph->getTraceInfo(TraceKind::Tensor, x->getName()));
  } else if (graph->getOpIndex(present) > place()) {
    graph->moveOptoIndex(present, place());
  }
  addChannelLastTensor(graph, outName, out, AxisFormat::NCHW);
  const TensorPtr result = graph->getTensor(outName);
  const Dims block(2, blockSizeOf(reshapeIn));
  insertOp(createOp("SpaceToDepth", opName, OpParams{{"block_size", OpParam(block)}}),
           graph->getTensor(inName), result);
  graph->addTraceSources({opName}, {outName}, sources);

  out->clearProducer();
  reshapeOut->removeOutput(out);
  if (!isOutput || !out->getConsumers().empty()) {
    insertOp(makeTranspose(outName, {0, 3, 1, 2}), result, out);
    graph->addTraceSources(TraceKind::Op, outName, sources);
  }
  handOverGraphOutput(graph, out, result);
  graph->swapTensorNames(outName, out->getName());
  if (!out->getProducer()) graph->removeTensor(outName);  // what was the graph output
  return true;
}

std::shared_ptr<Pass> buildMatchSpaceToDepth() {
  return makeSequencePass<matchSpaceToDepth>();
}
[[maybe_unused]] static const bool registeredMatchSpaceToDepth =
    PassManager::registerPass(PassId::MatchSpaceToDepth);

}  // namespace netforge::graphrefiner
