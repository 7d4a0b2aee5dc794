#include "GraphRefiner/src/passes/layout/HoistTransposeAboveElementWiseMux.h"

#include <algorithm>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner {

namespace {

std::string transposedName(const TensorPtr& input) {
  return input->getName() + "_transpose_for_mux";
}

bool isPermutation(const Permutation& perm) {
  Permutation sorted = perm;
  std::sort(sorted.begin(), sorted.end());
  return isIdentityPermutation(sorted);
}

Permutation permutedDims(const TensorPtr& tensor, const Permutation& perm) {
  Permutation dims;
  for (const std::uint32_t axis : perm) dims.push_back(tensor->getDims()[axis]);
  return dims;
}

bool hasOneElement(const TensorPtr& tensor) {
  const auto& dims = tensor->getDims();
  return !tensor->getShape().hasDynamicAxes() &&
         std::all_of(dims.begin(), dims.end(), [](std::uint32_t dim) { return dim == 1; });
}

// Of the dims alone: see the note in the header.
bool isPermutationInvariant(const TensorPtr& tensor, const Permutation& perm) {
  return tensor->getRank() == perm.size() && permutedDims(tensor, perm) == tensor->getDims();
}

bool canTranspose(const GraphPtr& graph, const TensorPtr& input, const Permutation& perm) {
  if (isPermutationInvariant(input, perm)) return true;
  if (input->getRank() != perm.size()) return hasOneElement(input);
  return !isEncodedAlongAxes(*input) &&
         inspectTransposeNamed(graph, input, perm, transposedName(input)) != TransposeName::Taken;
}

// A Transpose behind the input with all of the input's properties but its dims.
TensorPtr addTranspose(const GraphPtr& graph, const TensorPtr& input, const Permutation& perm) {
  const std::string name = transposedName(input);
  const auto output = std::make_shared<IrTensor>(
      name, permutedDims(input, perm), input->getDataType(), input->getSrcDataType(), input->isQuantizable(),
      input->getQuantInfo(), input->getAxisFormat(), input->getSrcAxisFormat(), TensorType::Native,
      input->isUpdateable(), input->getPermuteOrder());
  output->setShape(input->getShape().permute(perm));  // dynamic axes too
  graph->addTensor(output);
  const OpPtr transpose = createOp("Transpose", name, OpParams{{"perm", OpParam(perm)}});
  const OpPtr producer = input->getProducer();
  const std::uint32_t index = producer ? graph->getOpIndex(producer) + 1 : 0;
  graph->addOp(transpose, {input->getName()}, {name}, std::vector<AxisFormat>{},
               static_cast<std::int32_t>(index), false);
  graph->updateTraceInfo(std::vector<OpPtr>{transpose}, {}, {input}, false);
  graph->updateTraceInfo(std::vector<TensorPtr>{output}, {input}, {}, false);
  return output;
}

TensorPtr transposedInput(const GraphPtr& graph, const OpPtr& mux, const TensorPtr& input,
                          const Permutation& perm) {
  if (isPermutationInvariant(input, perm) || input->getRank() != perm.size()) return input;
  const TensorPtr existing = graph->getTensor(transposedName(input));
  if (!existing) return addTranspose(graph, input, perm);
  const OpPtr transpose = existing->getProducer();
  const std::uint32_t place = graph->getOpIndex(mux);
  if (graph->getOpIndex(transpose) > place) graph->moveOptoIndex(transpose, place);
  return existing;
}

void replaceInputs(const OpPtr& op, const std::vector<TensorPtr>& inputs) {
  for (const TensorPtr& input : op->getInputSet()) input->removeConsumer(op);
  op->setInputs(inputs);
  for (const TensorPtr& input : inputs) input->addConsumer(op);
}

// Merging the mux's output with the Transpose's loses an array of encodings to an encoding of another kind.
void restoreArrayEncoding(const TensorPtr& output, DataType type, const QuantInfo& record) {
  if (record.encoding == QuantEncodingKind::ArrayEncoding && !record.arrayEncodings.empty() &&
      output->getQuantInfo().arrayEncodings.empty() && output->isQuantizable()) {
    output->setQInfo(type, record);
  }
}

}  // namespace

HoistTransposeAboveElementWiseMuxPass::HoistTransposeAboveElementWiseMuxPass() {
  muxPattern = makeOpType("ElementWiseMux");
  rootPattern = makeOp("Transpose", muxPattern);
  pattern = rootPattern;
}

bool HoistTransposeAboveElementWiseMuxPass::rewriteCallback(std::shared_ptr<IrGraph>& graph,
                                                            MatchedOps& matchedOps) {
  const auto mux = matchedOps.at(muxPattern);
  const auto root = matchedOps.at(rootPattern);
  const auto muxOut = mux->getOutput(0);
  const Permutation perm = getTransposePerm(root);
  const auto inputs = mux->getInputs();
  if (isGraphOutput(muxOut) || !canSquash(graph, root, muxOut, false) || !isPermutation(perm)) return false;
  if (!std::all_of(inputs.begin(), inputs.end(),
                   [&](const TensorPtr& input) { return canTranspose(graph, input, perm); }))
    return false;

  // ---- edits ----
  const QuantInfo record = muxOut->getQuantInfo();
  const DataType type = muxOut->getDataType();
  graph->squash(root, muxOut->getName(), false, true);
  restoreArrayEncoding(mux->getOutput(0), type, record);
  std::vector<TensorPtr> transposed;
  for (const TensorPtr& input : inputs) transposed.push_back(transposedInput(graph, mux, input, perm));
  replaceInputs(mux, transposed);
  return true;
}

std::shared_ptr<Pass> buildHoistTransposeAboveElementWiseMux() {
  return makeSequencePass<HoistTransposeAboveElementWiseMuxPass>();
}
[[maybe_unused]] static const bool registeredHoistTransposeAboveElementWiseMux =
    PassManager::registerPass(PassId::HoistTransposeAboveElementWiseMux);

}  // namespace netforge::graphrefiner
