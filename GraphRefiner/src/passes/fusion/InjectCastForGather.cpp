#include "GraphRefiner/src/passes/fusion/InjectCastForGather.h"

#include <iostream>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/Failure.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner {

namespace {

bool isIndexType(DataType type) {
  return type == ORLO_DATATYPE_INT_32 || type == ORLO_DATATYPE_UINT_32;
}

bool isCastOf(const TensorPtr& tensor, const TensorPtr& indices) {
  const OpPtr cast = tensor->getProducer();
  return cast && cast->getType() == "Cast" && isIndexType(tensor->getDataType()) && cast->numInputs() == 1 &&
         cast->getInput(0) == indices;
}

void injectCast(const GraphPtr& graph, const OpPtr& gather, const TensorPtr& indices,
                const std::string& castName) {
  graph->addTensor(castName, indices->getDims(), ORLO_DATATYPE_INT_32, indices->getSrcDataType(),
                   indices->getAxisFormat(), indices->getSrcAxisFormat(), indices->isQuantizable(),
                   indices->getQuantInfo(), TensorType::Native, indices->isUpdateable(),
                   indices->getExplicitPermuteOrder());
  graph->getTensor(castName)->setShape(indices->getShape());  // with its dynamic axes
  graph->addOp(createOp("Cast", castName, {}), {indices->getName()}, {castName}, {},
               static_cast<std::int32_t>(graph->getOpIndex(gather)), false);
  const auto sources = graph->collectTraceSources(
      {{TraceKind::Op, gather->getName()}, {TraceKind::Tensor, indices->getName()}});
  graph->addTraceSources({castName}, {castName}, sources);
}

}  // namespace

InjectCastForGatherRule::InjectCastForGatherRule() {
  pattern = makeOpType("Gather");
}

bool InjectCastForGatherRule::rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) {
  const OpPtr gather = matchedOps.at(pattern);
  if (gather->numInputs() != 2) return false;
  const TensorPtr indices = gather->getInput(1);
  if (isIndexType(indices->getDataType())) return false;
  const std::string castName = indices->getName() + "_cast";
  const TensorPtr existing = graph->getTensor(castName);
  if (existing ? !isCastOf(existing, indices) : graph->hasOp(castName)) return false;

  // ---- edits ----
  if (!existing) {
    injectCast(graph, gather, indices, castName);
  } else if (const std::uint32_t place = graph->getOpIndex(gather);
             graph->getOpIndex(existing->getProducer()) > place) {
    graph->moveOptoIndex(existing->getProducer(), place);
  }
  setInputTensor(gather, 1, graph->getTensor(castName));
  std::cout << concatText("netforge::graphrefiner::InjectCastForGatherRule::rewriteCallback: ",
                          existing ? "Reusing existing cast op " : "Injecting cast op ", castName,
                          " for node ", gather->getName(), "'s indices input.\n\n")
            << std::flush;
  return true;
}

std::shared_ptr<Pass> buildInjectCastForGather() {
  return makeSequencePass<InjectCastForGatherRule>();
}
[[maybe_unused]] static const bool registeredInjectCastForGather =
    PassManager::registerPass(PassId::InjectCastForGather);

}  // namespace netforge::graphrefiner
