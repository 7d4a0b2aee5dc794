#include "GraphRefiner/src/passes/fusion/PadSequence.h"

#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

namespace {

// Whether all amounts are zero; false as well when there are none that can be read as 32-bit words.
bool padsNothing(const std::shared_ptr<ops::IrOp>& pad) {
  const auto& attributes = pad->getAttributes()->entries();
  const auto entry = attributes.find("pad_amount");
  if (entry == attributes.end() || !entry->second.tensorValue) return false;
  const auto& amounts = entry->second.tensorValue;
  const std::uint64_t count = amounts->elements();
  if (count == 0 || amounts->getDataSize() != count * sizeof(std::uint32_t)) return false;
  return allElementsEqualToValue(amounts, std::int32_t{0});
}

}  // namespace

MatchPadSequence::MatchPadSequence() {
  pattern = makeOpType("Pad");
}

bool MatchPadSequence::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const auto pad = matchedOps.at(pattern);
  const auto input = pad->getInput(0);
  if (!padsNothing(pad) || input->getConsumers().size() != 1 || isGraphOutput(pad->getOutput(0)))
    return false;
  const bool keepInput = input->getProducer() == nullptr;
  if (!canSquash(graph, pad, input, keepInput)) return false;

  // ---- edits ----
  dropComputedInputs(graph, pad);
  graph->squash(pad, input->getName(), keepInput, false);
  return true;
}

std::shared_ptr<Pass> buildSquashPad() {
  return makeSequencePass<MatchPadSequence>();
}
[[maybe_unused]] static const bool registeredSquashPad = PassManager::registerPass(PassId::SquashPad);

}  // namespace netforge::graphrefiner
