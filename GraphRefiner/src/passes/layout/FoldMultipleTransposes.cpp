#include "GraphRefiner/src/passes/layout/FoldMultipleTransposes.h"

#include <vector>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

namespace {

struct Fold {
  OpPtr reader;
  Permutation perm;  // from the input of the folded Transpose to the output of the reader
};

// Takes out a Transpose that reads `input` and has become an identity, if that is possible.
void removeIdentityReader(const GraphPtr& graph, const OpPtr& reader, const TensorPtr& input) {
  const TensorPtr output = reader->getOutput(0);
  if (isGraphOutput(output)) {
    // Taking over name and place would destroy what the application hands in or reads under another name.
    if (input->isStatic() || !input->getProducer() || isGraphOutput(input)) return;
    graph->transferConsumers(output, input, output->getConsumers());
    handOverGraphOutput(graph, output, input);
    graph->swapTensorNames(input->getName(), output->getName());
    graph->prune(reader, true);
  } else if (output->getConsumers().empty()) {
    graph->prune(reader, true);
  } else {
    graph->squash(reader, input->getName(), false, false);
  }
  graph->removeTraceInfo({reader});
}

}  // namespace

foldMultipleTransposes::foldMultipleTransposes() {
  transposePattern = makeOpType("Transpose");
  pattern = transposePattern;
}

bool foldMultipleTransposes::rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) {
  const OpPtr transpose = matchedOps.at(transposePattern);
  const TensorPtr input = transpose->getInput(0);
  const TensorPtr middle = transpose->getOutput(0);
  if (isGraphOutput(middle)) return false;
  std::vector<Fold> folds;
  Permutation perm;
  for (const OpPtr& reader : consumersInGraphOrder(*graph, middle->getConsumers())) {
    if (reader->getType() != "Transpose") continue;
    if (folds.empty()) perm = getTransposePerm(transpose);
    folds.push_back({reader, composePermutations(perm, getTransposePerm(reader))});
  }
  if (folds.empty()) return false;

  // ---- edits ----
  for (const Fold& fold : folds) {
    replaceWordsAttribute(fold.reader, "perm", fold.perm);
    graph->transferConsumers(middle, input, {fold.reader});
    graph->updateTraceInfo(std::vector<OpPtr>{fold.reader}, {}, {input}, false);
    if (isIdentityPermutation(fold.perm)) removeIdentityReader(graph, fold.reader, input);
  }
  if (middle->getConsumers().empty()) {
    graph->prune(transpose, true);
    graph->removeTraceInfo({transpose});
  }
  return true;
}

std::shared_ptr<Pass> buildOptimizeTransposes() {
  return makeSequencePass<foldMultipleTransposes>();
}
[[maybe_unused]] static const bool registeredOptimizeTransposes =
    PassManager::registerPass(PassId::OptimizeTransposes);

}  // namespace netforge::graphrefiner
