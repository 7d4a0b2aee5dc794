#include "GraphRefiner/src/passes/fusion/ConcatSequence.h"

#include <iostream>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/Failure.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

namespace {

template <class... Parts>
void report(const Parts&... parts) {
  std::cout << concatText("netforge::graphrefiner::MatchConcatSequence::rewriteCallback: ", parts..., "\n\n")
            << std::flush;
}

OpPtr concatProducer(const TensorPtr& tensor) {
  const OpPtr producer = tensor->getProducer();
  return producer && producer->getType() == "Concat" ? producer : nullptr;
}

}  // namespace

MatchConcatSequence::MatchConcatSequence() {
  pattern = makeOpType("Concat");
}

bool MatchConcatSequence::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const OpPtr outer = matchedOps.at(pattern);
  const TensorPtr output = outer->getOutput(0);
  if (isGraphOutput(output) || !outer->getAttributes()->hasAttr("axis")) return false;
  const std::uint32_t axis = readAxis(outer, "axis", output->getRank());
  const auto inputs = outer->getInputs();
  bool folds = false;
  for (const TensorPtr& input : inputs) {
    const OpPtr inner = concatProducer(input);
    if (!inner) continue;
    // The application counts as a reader.
    const std::size_t readers = input->getConsumers().size() + (isGraphOutput(input) ? 1 : 0);
    if (readers != 1) {
      report("Found concat node ", outer->getName(), " with a concat input ", inner->getName(),
             ", but it has multiple consumers (", readers, "), skipping folding");
      return false;
    }
    if (!inner->getAttributes()->hasAttr("axis")) return false;
    const std::uint32_t innerAxis = readAxis(inner, "axis", input->getRank());
    if (innerAxis != axis) {
      report("Found concat node ", outer->getName(),
             " with a concat input, but axis does not match for input ", inner->getName(), ", ", innerAxis,
             " != ", axis);
      return false;
    }
    folds = true;
  }
  if (!folds) return false;

  // ---- edits ----
  ops::IrOp::TensorList joined;
  for (const TensorPtr& input : inputs) {
    if (const OpPtr inner = concatProducer(input)) {
      const auto parts = inner->getInputs();
      joined.insert(joined.end(), parts.begin(), parts.end());
    } else {
      joined.push_back(input);
    }
  }
  for (const TensorPtr& input : inputs) {
    const OpPtr inner = concatProducer(input);
    if (!inner) continue;  // a further place of one that is gone has no producer any more
    const auto sources = graph->collectTraceSources(
        {{TraceKind::Op, inner->getName()}, {TraceKind::Tensor, input->getName()}});
    graph->removeOpAsConsumer(outer, input);
    graph->prune(inner, true);
    graph->addTraceSources(TraceKind::Op, outer->getName(), sources);
  }
  outer->setInputs(joined);
  for (const TensorPtr& input : joined) input->addConsumer(outer);
  return true;
}

std::shared_ptr<Pass> buildFoldConcats() {
  return makeSequencePass<MatchConcatSequence>();
}
[[maybe_unused]] static const bool registeredFoldConcats = PassManager::registerPass(PassId::FoldConcats);

}  // namespace netforge::graphrefiner
