#include "GraphRefiner/src/passes/fusion/DepthToSpaceSequence.h"

#include <algorithm>
#include <cstring>
#include <optional>
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
using BlockSize = std::array<std::uint32_t, 2>;

namespace {

constexpr double kChannelAxis = 3.0;
constexpr std::uint32_t kModeDcr = 0;

// Bytes of an element of the types that can be reordered; 0 for the others.
std::uint32_t weightWidth(DataType type) {
  switch (type) {
    case ORLO_DATATYPE_FLOAT_32:
      return 4;
    case ORLO_DATATYPE_FLOAT_16:
    case ORLO_DATATYPE_UFIXED_POINT_16:
    case ORLO_DATATYPE_SFIXED_POINT_16:
      return 2;
    case ORLO_DATATYPE_UFIXED_POINT_8:
    case ORLO_DATATYPE_SFIXED_POINT_8:
      return 1;
    default:
      return 0;
  }
}

std::uint32_t biasWidth(DataType type) {
  switch (type) {
    case ORLO_DATATYPE_FLOAT_32:
    case ORLO_DATATYPE_INT_32:
    case ORLO_DATATYPE_SFIXED_POINT_32:
      return 4;
    case ORLO_DATATYPE_FLOAT_16:
      return 2;
    case ORLO_DATATYPE_UFIXED_POINT_8:
    case ORLO_DATATYPE_SFIXED_POINT_8:
      return 1;
    default:
      return 0;
  }
}

bool isEncodedAsAWhole(const TensorPtr& tensor) {
  const QuantEncodingKind kind = tensor->getQuantInfo().encoding;
  return kind == QuantEncodingKind::Undefined || kind == QuantEncodingKind::ScaleOffset ||
         kind == QuantEncodingKind::BwScaleOffset;
}

// Whether the constant holds `channels` on its last axis and can be rewritten in place.
bool isReorderable(const StaticTensorPtr& tensor, std::uint32_t rank, std::uint32_t width,
                   std::uint32_t channels) {
  return tensor && width != 0 && tensor->getRank() == rank && tensor->getDims().back() == channels &&
         tensor->getDataSize() == tensor->elements() * width && tensor->getConsumers().size() == 1 &&
         !tensor->isUpdateable() && !isGraphOutput(tensor) && isEncodedAsAWhole(tensor);
}

void reorderLastAxis(IrStaticTensor& tensor, std::uint32_t width, const std::vector<std::uint32_t>& table) {
  const std::uint32_t size = tensor.getDataSize();
  const std::uint8_t* old = tensor.getData();
  auto bytes = std::make_unique<std::uint8_t[]>(size);
  const std::size_t row = table.size() * width;
  for (std::size_t begin = 0; row != 0 && begin + row <= size; begin += row) {
    for (std::size_t k = 0; k < table.size(); ++k) {
      std::memcpy(bytes.get() + begin + k * width, old + begin + table[k] * std::size_t{width}, width);
    }
  }
  tensor.updateData(bytes.release(), size, true);
}

std::optional<BlockSize> readBlockSize(const OpPtr& depthToSpace) {
  const auto& attributes = depthToSpace->getAttributes()->entries();
  const auto entry = attributes.find("block_size");
  if (entry == attributes.end() || !entry->second.tensorValue) return std::nullopt;
  const Permutation words = getPermutation(entry->second.tensorValue);
  if (words.size() != 2 || words[0] == 0 || words[1] == 0) return std::nullopt;
  return BlockSize{words[0], words[1]};
}

bool isChannelLast(const IrGraph& graph) {
  const Dims places = {0, 1, 2, 3};
  return graph.getAxisOrder()->extractSpatialDims(places) == places;
}

bool isUngrouped(const OpPtr& conv) {
  return !conv->getAttributes()->hasAttr("group") ||
         conv->getAttributes()->getAttr<std::uint32_t>("group") == 1;
}

}  // namespace

MatchDepthToSpaceSequence::MatchDepthToSpaceSequence() {
  convPattern = makeAlt(makeOp("Conv2d", makeWildCard(), makeConstant(), makeConstant()),
                        makeOp("Conv2d", makeWildCard(), makeConstant()));
  splitPattern = withAttr(makeOp("Split", convPattern), makeAttr("axis", kChannelAxis));
  for (PatternPtr& node : depthToSpacePatterns) {
    node = withAttr(makeOp("DepthToSpace", splitPattern), makeAttr("mode", double{kModeDcr}));
  }
  concatPattern =
      withAttr(makeOp("Concat", depthToSpacePatterns[0], depthToSpacePatterns[1], depthToSpacePatterns[2]),
               makeAttr("axis", kChannelAxis));
  pattern = concatPattern;
}

void MatchDepthToSpaceSequence::reorderWeights(const StaticTensorPtr& weights, const StaticTensorPtr& bias,
                                               const BlockSize& blockSize) {
  const auto [blockHeight, blockWidth] = blockSize;
  const std::uint32_t groups = weights->getDims().back() / (blockHeight * blockWidth);
  std::vector<std::uint32_t> table(std::size_t{groups} * blockHeight * blockWidth);
  std::uint32_t source = 0;
  for (std::uint32_t c = 0; c < groups; ++c) {
    for (std::uint32_t place = 0; place < blockHeight * blockWidth; ++place) {
      table[std::size_t{place} * groups + c] = source++;
    }
  }
  reorderLastAxis(*weights, weightWidth(weights->getDataType()), table);
  if (bias) reorderLastAxis(*bias, biasWidth(bias->getDataType()), table);
}

void MatchDepthToSpaceSequence::squashDepthToSpaceOp(const OpPtr& op, const GraphPtr& graph) {
  const auto inputs = op->getInputs();
  const auto kept = std::find_if(inputs.begin(), inputs.end(), [](const TensorPtr& input) {
    return input->getConsumers().size() == 1 && !input->isGraphInput();
  });
  if (kept == inputs.end()) return;
  for (const TensorPtr& input : inputs) {
    if (input != *kept && input->getConsumers().count(op) != 0) graph->removeOpAsConsumer(op, input);
  }
  graph->squash(op, (*kept)->getName(), false, false);
}

bool MatchDepthToSpaceSequence::rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) {
  const OpPtr conv = matchedOps.at(convPattern);
  const OpPtr split = matchedOps.at(splitPattern);
  const OpPtr concat = matchedOps.at(concatPattern);
  std::array<OpPtr, 3> blocks;
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    blocks[i] = matchedOps.at(depthToSpacePatterns[i]);
    if (blocks[i]->getInput(0)->getProducer() != split) return false;
  }
  const TensorPtr convOut = conv->getOutput(0);
  const TensorPtr output = concat->getOutput(0);
  const auto block = readBlockSize(blocks[0]);
  const std::string newName = split->getName() + "_DCR_DepthToSpace";
  if (!block || concat->numInputs() != 3 || hasInteriorGraphOutput(matchedOps, concat) ||
      !isChannelLast(*graph) || !isUngrouped(conv) || graph->hasOp(newName)) {
    return false;
  }
  if (output->getConsumers().empty() && !isGraphOutput(output)) return false;
  // One DepthToSpace on all channels must give what the three give together.
  const auto [height, width] = *block;
  const Dims in = convOut->getDims();
  if (convOut->getShape().hasDynamicAxes() || in.size() != 4 || in[3] % (height * width) != 0 ||
      output->getDims() != Dims{in[0], in[1] * height, in[2] * width, in[3] / (height * width)}) {
    return false;
  }
  const auto weights = std::dynamic_pointer_cast<IrStaticTensor>(conv->getInput(1));
  if (!isReorderable(weights, 4, weights ? weightWidth(weights->getDataType()) : 0, in[3])) return false;
  StaticTensorPtr bias;
  if (conv->numInputs() > 2) {
    bias = std::dynamic_pointer_cast<IrStaticTensor>(conv->getInput(2));
    if (!isReorderable(bias, 1, bias ? biasWidth(bias->getDataType()) : 0, in[3])) return false;
  }
  if (!isEncodedAsAWhole(convOut)) return false;

  // ---- edits ----
  reorderWeights(weights, bias, *block);
  squashDepthToSpaceOp(concat, graph);
  for (std::size_t i = blocks.size(); i-- > 0;) squashDepthToSpaceOp(blocks[i], graph);
  for (const TensorPtr& piece : split->getOutputs()) {
    if (!piece->getConsumers().empty() || isGraphOutput(piece)) continue;
    split->removeOutput(piece);
    piece->clearProducer();
    graph->removeTensor(piece->getName());
  }
  const OpParams params = {{"block_size", OpParam(Dims{height, width})}, {"mode", OpParam(kModeDcr)}};
  graph->replace(split, createOp("DepthToSpace", newName, params));
  return true;
}

std::shared_ptr<Pass> buildOptimizeDepthToSpace() {
  return makeSequencePass<MatchDepthToSpaceSequence>();
}
[[maybe_unused]] static const bool registeredOptimizeDepthToSpace =
    PassManager::registerPass(PassId::OptimizeDepthToSpace);

}  // namespace netforge::graphrefiner
