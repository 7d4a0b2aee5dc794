#include "GraphRefiner/src/passes/fusion/GatherNegativeIndices.h"

#include <cstring>
#include <memory>
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RawData.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

namespace {

bool canCountFromFront(const IrStaticTensor& tensor) {
  const DataType type = tensor.getDataType();
  return !tensor.isUpdateable() && (type == ORLO_DATATYPE_INT_32 || type == ORLO_DATATYPE_UINT_32) &&
         tensor.getDataSize() == tensor.elements() * sizeof(std::int32_t);
}

void addToNegative(IrStaticTensor& tensor, std::uint32_t dim) {
  const std::uint32_t size = tensor.getDataSize();
  const std::uint8_t* old = tensor.getData();
  auto bytes = std::make_unique<std::uint8_t[]>(size);
  for (std::uint64_t i = 0; i < size / sizeof(std::uint32_t); ++i) {
    auto index = loadElement<std::uint32_t>(old, i);
    if (static_cast<std::int32_t>(index) < 0) index += dim;
    std::memcpy(bytes.get() + i * sizeof(index), &index, sizeof(index));
  }
  tensor.updateData(bytes.release(), size, true);
}

}  // namespace

matchGatherNegativeIndices::matchGatherNegativeIndices() {
  pattern = makeOp("Gather", makeWildCard(), makeConstant());
}

bool matchGatherNegativeIndices::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const auto gather = matchedOps.at(pattern);
  if (gather->numInputs() < 2) return false;
  const auto data = gather->getInput(0);
  const auto shared = gather->getInput(1);
  auto indices = std::dynamic_pointer_cast<IrStaticTensor>(shared);
  if (indices && !canCountFromFront(*indices)) return false;
  if (!anyElementNegative(indices) || data == shared) return false;
  const std::uint32_t axis = readAxis(gather, "axis", data->getRank());
  if (axis >= data->getRank() || data->getShape().isDynamicDim(axis)) return false;
  const bool copies = indices->getConsumers().size() > 1 || isGraphOutput(shared);
  const std::string copyName = gather->getName() + "_indices";
  if (copies && graph->hasTensor(copyName)) return false;

  // ---- edits ----
  if (copies) {
    indices = copyConstant(graph, indices, copyName);
    setInputTensor(gather, 1, indices);
    const auto sources = graph->getTraceInfo(TraceKind::Tensor, shared->getName());
    graph->addTraceSources({gather->getName()}, {copyName}, sources);
  }
  addToNegative(*indices, data->getDims()[axis]);
  return true;
}

std::shared_ptr<Pass> buildHandleGatherNegativeIndices() {
  return makeSequencePass<matchGatherNegativeIndices>();
}
[[maybe_unused]] static const bool registeredHandleGatherNegativeIndices =
    PassManager::registerPass(PassId::HandleGatherNegativeIndices);

}  // namespace netforge::graphrefiner
