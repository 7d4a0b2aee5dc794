#include "GraphRefiner/src/passes/layout/MatchMatmulDifferentInputRanks.h"

#include <algorithm>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner {

namespace {

// An encoding per channel names the channels' axis, which moves up by the ones put in front of it.
void shiftEncodingAxis(IrTensor& tensor, std::uint32_t places) {
  QuantInfo record = tensor.getQuantInfo();
  std::int32_t* axis = nullptr;
  switch (record.encoding) {
    case QuantEncodingKind::AxisScaleOffset:
    case QuantEncodingKind::BwAxisScaleOffset:
    case QuantEncodingKind::BwAxisScaleOffsetMapped:
      axis = &record.axis;
      break;
    case QuantEncodingKind::Block:
    case QuantEncodingKind::BlockMapped:
      axis = &record.blockAxis;
      break;
    case QuantEncodingKind::SbqBlockwise:
      axis = &record.sbqAxis;
      break;
    default:
      return;
  }
  if (*axis < 0) return;  // counted from the end
  *axis += static_cast<std::int32_t>(places);
  tensor.setQInfo(tensor.getDataType(), record);
}

}  // namespace

MatchMatmulDifferentInputRanks::MatchMatmulDifferentInputRanks() {
  rootPattern = makeOpType("MatMul");
  pattern = rootPattern;
}

bool MatchMatmulDifferentInputRanks::rewriteCallback(std::shared_ptr<IrGraph>& graph,
                                                     MatchedOps& matchedOps) {
  const OpPtr matmul = matchedOps.at(rootPattern);
  if (matmul->numInputs() < 2) return false;
  const auto inputs = matmul->getInputs();
  if (inputs[0]->getRank() == inputs[1]->getRank()) return false;
  const bool isFirstSmall = inputs[0]->getRank() < inputs[1]->getRank();
  const TensorPtr small = inputs[isFirstSmall ? 0 : 1];
  const TensorPtr large = inputs[isFirstSmall ? 1 : 0];
  if (small->getRank() < 2 || std::count(inputs.begin(), inputs.end(), small) != 1) return false;
  const auto newDims = IrTensorShape::padDimsToRank(small->getDims(), large->getRank());

  const auto constant = std::dynamic_pointer_cast<IrStaticTensor>(small);
  if (constant && constant->getConsumers().size() == 1 && !isGraphOutput(constant)) {
    // ---- edits ----
    const StaticTensorPtr copy = reshapeStaticTensor(constant, newDims, "");
    copy->setExplicitPermuteOrder(constant->getPermuteOrder());
    copy->setAxisFormat(large->getAxisFormat());
    shiftEncodingAxis(*copy, large->getRank() - small->getRank());
    supersedeConstant(graph, constant, copy);
    graph->updateTraceInfo(std::vector<OpPtr>{matmul}, {}, {copy}, false);
    return true;
  }

  const std::string name = matmul->getOutput(0)->getName() + "_" + small->getName() + "_reshape";
  if (small->getShape().hasDynamicAxes() || !isFreeName(graph, name)) return false;

  // ---- edits ----
  const OpPtr reshape = createOp("Reshape", name, OpParams{{"shape", OpParam(newDims)}});
  graph->inject(reshape, small->getName(), name, {matmul->getName()}, large->getAxisFormat(), true, false);
  const TensorPtr reshaped = reshape->getOutput(0);
  graph->updateTraceInfo(std::vector<OpPtr>{reshape}, {}, {small}, false);
  graph->updateTraceInfo(std::vector<TensorPtr>{reshaped}, {}, {reshape}, false);
  graph->updateTraceInfo(std::vector<OpPtr>{matmul}, {}, {reshaped}, false);
  return true;
}

std::shared_ptr<Pass> buildAlignMatmulRanks() {
  return makeSequencePass<MatchMatmulDifferentInputRanks>();
}
[[maybe_unused]] static const bool registeredAlignMatmulRanks =
    PassManager::registerPass(PassId::AlignMatmulRanks);

}  // namespace netforge::graphrefiner
