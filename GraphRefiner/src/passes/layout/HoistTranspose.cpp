#include "GraphRefiner/src/passes/layout/HoistTranspose.h"

#include <array>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "GraphRefiner/src/passes/layout/HoistTransposeRegions.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner {

namespace {

constexpr std::uint32_t kRank = 4;

AttrClass attributeClassOf(const OpPtr& op, const std::string& name) {
  return op->getAttributes()->entries().at(name).attrClass;
}

// One row of `columns` values per axis: row k becomes row channelLastAxisMap[k].
void remapRows(const OpPtr& op, const std::string& attribute, std::uint32_t columns,
               const std::string& suffix, DataType type) {
  if (!op->getAttributes()->hasAttr(attribute)) return;
  const auto rows = op->getAttributes()->getStaticTensor(attribute);
  if (rows->getDims().empty() || rows->getDims()[0] != kRank) return;
  rows->getData();  // getElement doesn't load
  std::vector<std::uint32_t> words(kRank * columns);
  for (std::uint32_t k = 0; k < kRank; ++k) {
    for (std::uint32_t column = 0; column < columns; ++column) {
      words[channelLastAxisMap()[k] * columns + column] = rows->getElement(k * columns + column);
    }
  }
  const std::vector<std::uint32_t> dims =
      columns == 1 ? std::vector<std::uint32_t>{kRank} : std::vector<std::uint32_t>{kRank, columns};
  const auto remapped = std::make_shared<IrStaticTensor>(
      op->getName() + suffix, dims, static_cast<std::uint32_t>(words.size() * sizeof(std::uint32_t)),
      words.data(), type, AxisFormat::NOT_YET_DEFINED, AxisFormat::NOT_YET_DEFINED, false, TensorType::Static,
      std::vector<std::uint32_t>{});
  op->getAttributes()->add(attribute, remapped, attributeClassOf(op, attribute));
}

// One bit per axis; bits beyond the axes say nothing and are dropped.
void remapMask(const OpPtr& op, const std::string& attribute) {
  if (!op->getAttributes()->hasAttr(attribute)) return;
  const auto mask = static_cast<std::uint32_t>(op->getAttributes()->entries().at(attribute).intValue);
  std::uint32_t remapped = 0;
  for (std::uint32_t axis = 0; axis < kRank; ++axis) {
    if ((mask >> axis & 1u) != 0) remapped |= 1u << channelLastAxisMap()[axis];
  }
  op->getAttributes()->add(attribute, remapped, attributeClassOf(op, attribute));
}

void remapAttributes(const OpPtr& op) {
  const std::string& type = op->getType();
  if (type == "Concat" || type == "Split" || type == "CumulativeSum" || type == "L2Norm") {
    writeAxis(op, channelLastAxisMap()[readAxis(op, "axis", kRank)]);
  } else if (type == "Pad") {
    remapRows(op, "pad_amount", 2, "_pad_nhwc", ORLO_DATATYPE_UINT_32);
  } else if (type == "StridedSlice") {
    remapRows(op, "ranges", 3, "_ranges_nhwc", ORLO_DATATYPE_INT_32);
    for (const char* mask : {"begin_mask", "end_mask", "shrink_axes", "new_axes_mask"}) remapMask(op, mask);
  } else if (type == "Tile") {
    remapRows(op, "multiples", 1, "_multiples_nhwc", ORLO_DATATYPE_UINT_32);
  }
}

void recordSource(const GraphPtr& graph, const OpPtr& op, const TensorPtr& source) {
  graph->updateTraceInfo(std::vector<OpPtr>{op}, {}, {source}, false);
  graph->updateTraceInfo(std::vector<TensorPtr>{op->getOutput(0)}, {source}, {}, false);
}

OpPtr makeChannelLastTranspose(const std::string& name) {
  return createOp("Transpose", name, OpParams{{"perm", OpParam(channelLastOrder())}});
}

void transposeInput(const GraphPtr& graph, const TensorPtr& input, std::uint32_t index) {
  const std::string name = hoistedTransposeName(*input);
  const OpPtr transpose = makeChannelLastTranspose(name);
  graph->injectAtIndex(transpose, input->getName(), name, index, {}, AxisFormat::NHWC, false, true);
  recordSource(graph, transpose, input);
}

void transposeConstant(const GraphPtr& graph, const TensorPtr& constant) {
  if (isLayoutFreeConstant(*constant)) return;
  TensorPtr source = constant;
  if (constant->getRank() != kRank) {
    const std::string name = hoistedBroadcastName(*constant);
    const auto dims = IrTensorShape::padDimsToRank(constant->getDims(), kRank);
    const OpPtr reshape = createOp("Reshape", name, OpParams{{"shape", OpParam(dims)}});
    graph->inject(reshape, constant->getName(), name, {}, AxisFormat::NOT_YET_DEFINED, false, false);
    recordSource(graph, reshape, constant);
    source = reshape->getOutput(0);
  }
  const std::string name = hoistedTransposeName(*constant);
  const OpPtr transpose = makeChannelLastTranspose(name);
  graph->inject(transpose, source->getName(), name, {}, AxisFormat::NHWC, false, false);
  recordSource(graph, transpose, constant);
}

void removeTranspose(const GraphPtr& graph, const OpPtr& transpose) {
  if (transpose->numInputs() == 0 || transpose->numOutputs() == 0) return;
  const TensorPtr output = transpose->getOutput(0);
  const bool keepInput = !output->getConsumers().empty() && !isGraphOutput(output);
  graph->squash(transpose, transpose->getInput(0)->getName(), keepInput, false);
}

void relabel(const TensorPtr& tensor) {
  std::vector<std::uint32_t> dims;
  for (const std::uint32_t axis : channelLastOrder()) dims.push_back(tensor->getDims()[axis]);
  tensor->setShape(IrTensorShape(dims));
  if (tensor->getAxisFormat() == AxisFormat::NCHW) tensor->setAxisFormat(AxisFormat::NHWC);
  std::vector<std::uint32_t> order = tensor->getExplicitPermuteOrder();
  for (std::uint32_t& axis : order) {
    if (axis < kRank) axis = channelLastAxisMap()[axis];
  }
  tensor->setExplicitPermuteOrder(order);
}

// The op's inputs are in the new layout already.
void moveToChannelLast(const OpPtr& op) {
  remapAttributes(op);
  for (std::uint32_t i = 0; i < op->numInputs(); ++i) {
    op->setInputAxisFormat(op->getInput(i)->getAxisFormat(), i);
  }
  for (const TensorPtr& output : op->getOutputs()) relabel(output);
}

}  // namespace

HoistTransposePass::~HoistTransposePass() = default;

bool HoistTransposePass::run(GraphPtr& graph) {
  const std::vector<HoistNode> survivors = HoistRegions(*graph).survivors();

  // ---- edits ----
  std::uint32_t index = 0;  // the Transposes of the inputs stand at the head of the ops, in their order
  for (const HoistNode& node : survivors) {
    if (node.isGraphInput) {
      transposeInput(graph, node.tensor, index++);
    } else if (node.tensor) {
      transposeConstant(graph, node.tensor);
    } else if (node.op->getType() == "Transpose") {
      removeTranspose(graph, node.op);
    } else {
      moveToChannelLast(node.op);
    }
  }
  return false;
}

std::shared_ptr<Pass> buildHoistTranspose() {
  return std::make_shared<HoistTransposePass>();
}
[[maybe_unused]] static const bool registeredHoistTranspose =
    PassManager::registerPass(PassId::HoistTranspose);

}  // namespace netforge::graphrefiner
