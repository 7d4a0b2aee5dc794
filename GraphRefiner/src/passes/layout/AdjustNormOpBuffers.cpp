#include "GraphRefiner/src/passes/layout/AdjustNormOpBuffers.h"

#include <algorithm>
#include <string>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

using Axes = std::vector<std::uint32_t>;

namespace {

// A Transpose to put in front of norm ops.
struct Permute {
  AxisFormat format;
  Permutation order;
};

// The orders that lead from one layout to another, by the letters of the normalised axes.
struct LayoutRow {
  const char* letters;
  AxisFormat current;
  std::uint32_t nontrivialRank;  // also for a tensor without a layout of this rank; 0: for none
  Permute permute;
};

const std::vector<LayoutRow>& layoutRows() {
  using enum AxisFormat;
  static const std::vector<LayoutRow> rows{
      {"HW", NDHWC, 5, {NCDHW, {0, 4, 1, 2, 3}}},
      {"HW", NHWC, 4, {NCHW, {0, 3, 1, 2}}},
      {"C", NCDHW, 5, {NDHWC, {0, 2, 3, 4, 1}}},
      {"C", NCHW, 4, {NHWC, {0, 2, 3, 1}}},
      {"C", NCF, 0, {NFC, {0, 2, 1}}},
      {"F", NFC, 0, {NCF, {0, 2, 1}}},
  };
  return rows;
}

// The axes that aren't normalised, ascending, and then the normalised ones; empty when `axes` aren't distinct
// axes of a tensor of this rank.
Permutation normOrder(const Axes& axes, std::uint32_t rank) {
  std::vector<bool> isNormalized(rank, false);
  for (const std::uint32_t axis : axes) {
    if (axis >= rank || isNormalized[axis]) return {};
    isNormalized[axis] = true;
  }
  Permutation order;
  for (std::uint32_t axis = 0; axis < rank; ++axis) {
    if (!isNormalized[axis]) order.push_back(axis);
  }
  order.insert(order.end(), axes.begin(), axes.end());
  return order;
}

Permutation normOrder(const OpPtr& op) {
  const std::uint32_t rank = op->getInput(0)->getRank();
  return normOrder(readAxes(op, rank), rank);
}

// Whether the order puts exactly these axes last, as they are listed.
bool putsLast(const Permutation& order, const Axes& axes) {
  return order.size() >= axes.size() && std::equal(axes.rbegin(), axes.rend(), order.rbegin());
}

// The letters of the normalised axes in the layout in which the op took its input.
std::string lettersOf(const OpPtr& op, const Axes& axes) {
  const std::string layout = axisFormatToString(op->getStoredInputAxisFormats().at(0));
  std::string letters;
  for (const std::uint32_t axis : axes) {
    if (axis < layout.size()) letters += layout[axis];
  }
  return letters;
}

Permute choosePermute(const OpPtr& op) {
  const TensorPtr tensor = op->getInput(0);
  const AxisFormat format = tensor->getAxisFormat();
  const std::uint32_t rank = tensor->getRank();
  const Axes axes = readAxes(op, rank);
  if (op->getStoredInputAxisFormats().at(0) != AxisFormat::NONTRIVIAL) {
    const std::string letters = lettersOf(op, axes);
    for (const LayoutRow& row : layoutRows()) {
      const bool fits =
          format == row.current || (format == AxisFormat::NONTRIVIAL && rank == row.nontrivialRank);
      // The layout that the op recorded may be another than that of the tensor now.
      if (fits && letters == row.letters && row.permute.order.size() == rank &&
          putsLast(row.permute.order, axes)) {
        return row.permute;
      }
    }
  }
  return {AxisFormat::NONTRIVIAL, normOrder(op)};
}

std::string permutedName(const TensorPtr& tensor, AxisFormat format) {
  return tensor->getName() + "." + axisFormatToString(format);
}

// Whether the name of the Transpose is free, or it stands there already.
bool canInjectPermute(const GraphPtr& graph, const TensorPtr& tensor, const Permute& permute) {
  const std::string name = permutedName(tensor, permute.format);
  if (isFreeName(graph, name)) return true;
  const TensorPtr existing = graph->getTensor(name);
  const OpPtr producer = existing ? existing->getProducer() : nullptr;
  return producer && producer->getType() == "Transpose" && producer->getInput(0) == tensor &&
         existing->getAxisFormat() == permute.format && getTransposePerm(producer) == permute.order;
}

bool isNorm(const OpPtr& op) {
  return (op->getType() == "RmsNorm" || op->getType() == "LayerNorm") && op->numInputs() >= 1 &&
         op->numOutputs() == 1 && op->getAttributes()->hasAttr("axes");
}

// Whether the op, which reads the tensor, can take it in this order and turn its output back.
bool canFollow(const GraphPtr& graph, const OpPtr& op, const TensorPtr& tensor, const Permutation& wanted,
               const Permutation& order) {
  if (!isNorm(op)) return false;
  const auto inputs = op->getInputs();
  if (inputs[0] != tensor || std::count(inputs.begin(), inputs.end(), tensor) != 1) return false;
  const TensorPtr out = op->getOutput(0);
  return normOrder(op) == wanted && putsLast(order, readAxes(op, tensor->getRank())) &&
         hasSameDims(tensor, out) && isFreeName(graph, permutedName(out, out->getAxisFormat()));
}

// The op's output follows its input, and a Transpose behind it restores the layout for those who read it.
void adjustNormOutput(const GraphPtr& graph, const OpPtr& op, const Permutation& order) {
  const TensorPtr in = op->getInput(0);
  const TensorPtr out = op->getOutput(0);
  const AxisFormat format = out->getAxisFormat();
  const std::string name = permutedName(out, format);
  const Permutation back = getInversePermutation(order);
  const Permutation sourceOrder = out->getExplicitPermuteOrder();
  std::vector<std::string> readers;
  for (const OpPtr& reader : consumersInGraphOrder(*graph, out->getConsumers())) {
    readers.push_back(reader->getName());
  }
  out->setShape(IrTensorShape(in->getDims()));
  out->setAxisFormat(in->getAxisFormat());
  graph->injectImplicitPermute(out->getName(), format, back, readers);
  const TensorPtr restored = graph->getTensor(name);
  restored->setSrcAxisFormat(out->getSrcAxisFormat());
  if (sourceOrder.size() == order.size()) {
    restored->setExplicitPermuteOrder(sourceOrder);
    out->setExplicitPermuteOrder(composePermutations(back, sourceOrder));
  }
  passGraphOutputOn(graph, out, restored);
}

}  // namespace

AdjustNormOpBuffersPass::AdjustNormOpBuffersPass() {
  rmsNormPattern = makeOpType("RmsNorm");
  layerNormPattern = makeOpType("LayerNorm");
  rootPattern = makeAlt(rmsNormPattern, layerNormPattern);
  pattern = rootPattern;
}

bool AdjustNormOpBuffersPass::rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) {
  const OpPtr root = matchedOps.at(rootPattern);
  if (!isNorm(root)) return false;
  const TensorPtr tensor = root->getInput(0);
  const AxisFormat format = tensor->getAxisFormat();
  if (format == AxisFormat::NF || format == AxisFormat::NC) return false;
  const Permutation wanted = normOrder(root);
  if (wanted.empty() || isIdentityPermutation(wanted)) return false;
  const Permute permute = choosePermute(root);
  if (!canInjectPermute(graph, tensor, permute)) return false;
  // The others would find the name taken, or be permuted once more.
  std::vector<OpPtr> group;
  std::vector<std::string> names;
  for (const OpPtr& reader : consumersInGraphOrder(*graph, tensor->getConsumers())) {
    if (!canFollow(graph, reader, tensor, wanted, permute.order)) continue;
    group.push_back(reader);
    names.push_back(reader->getName());
  }
  if (std::find(group.begin(), group.end(), root) == group.end()) return false;

  // ---- edits ----
  graph->injectImplicitPermute(tensor->getName(), permute.format, permute.order, names);
  for (const OpPtr& op : group) {
    const auto rank = static_cast<std::uint32_t>(permute.order.size());
    Axes trailing = readAxes(op, rank);
    const auto first = rank - static_cast<std::uint32_t>(trailing.size());
    for (std::uint32_t i = 0; i < trailing.size(); ++i) trailing[i] = first + i;
    op->setInputAxisFormat(op->getInput(0)->getAxisFormat(), 0);
    adjustNormOutput(graph, op, permute.order);
    setAxes(op, trailing);
  }
  return true;
}

std::shared_ptr<Pass> buildAdjustNormOpBuffers() {
  return makeSequencePass<AdjustNormOpBuffersPass>();
}
[[maybe_unused]] static const bool registeredAdjustNormOpBuffers =
    PassManager::registerPass(PassId::AdjustNormOpBuffers);

}  // namespace netforge::graphrefiner
