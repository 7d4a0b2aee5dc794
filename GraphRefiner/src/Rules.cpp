#include "GraphRefiner/src/Rules.h"

#include <algorithm>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

namespace {

// What the rule could match at its root, last op first.
std::vector<OpPtr> collectRoots(const IrGraph& graph, const PatternPtr& pattern) {
  const auto types = possibleRootTypes(pattern);
  std::vector<OpPtr> roots = types ? graph.opsOfTypes(*types) : graph.getOps();
  std::reverse(roots.begin(), roots.end());
  return roots;
}

// The nodes that read `node`, seen through alternatives and other wrappers.
void collectReaders(const ConsumerPatterns& consumers, const PatternPtr& node,
                    std::set<PatternPtr>& readers) {
  const auto entry = consumers.find(node);
  if (entry == consumers.end()) return;
  for (const PatternPtr& reader : entry->second) {
    if (dynamic_cast<OpPattern*>(reader.get()) != nullptr ||
        dynamic_cast<WildCardPattern*>(reader.get()) != nullptr) {
      readers.insert(reader);
    } else {
      collectReaders(consumers, reader, readers);
    }
  }
}

// Whether every bound op is in the graph and, but for the root, is read inside the match only. A tensor that
// feeds one op at two inputs counts once.
bool isIsolated(const GraphPtr& graph, const MatchedOps& matchedOps, const ConsumerPatterns& consumers) {
  for (const auto& [node, op] : matchedOps) {
    if (!op) continue;
    if (!graphHoldsOp(graph, op)) return false;
    std::set<PatternPtr> readers;
    collectReaders(consumers, node, readers);
    if (readers.empty()) continue;
    std::size_t uses = 0;
    for (const TensorPtr& output : op->getOutputs()) uses += output->getConsumers().size();
    if (uses != readers.size()) return false;
  }
  return true;
}

// Outputs that a rewrite moved to another producer don't count.
bool isLive(const OpPtr& op) {
  const auto outputs = op->getOutputs();
  return std::any_of(outputs.begin(), outputs.end(), [&](const TensorPtr& output) {
    return output->getProducer() == op && (!output->getConsumers().empty() || isGraphOutput(output));
  });
}

// The bound ops that the graph still holds, each once, last op first: the map itself is ordered by address.
std::vector<OpPtr> boundOpsInGraph(const GraphPtr& graph, const MatchedOps& matchedOps) {
  std::vector<OpPtr> ops;
  for (const auto& [node, op] : matchedOps) {
    if (op && graphHoldsOp(graph, op) && std::find(ops.begin(), ops.end(), op) == ops.end())
      ops.push_back(op);
  }
  std::sort(ops.begin(), ops.end(),
            [&](const OpPtr& a, const OpPtr& b) { return graph->getOpIndex(a) > graph->getOpIndex(b); });
  return ops;
}

void cleanUp(const GraphPtr& graph, const MatchedOps& matchedOps) {
  for (const OpPtr& op : boundOpsInGraph(graph, matchedOps)) {
    if (graphHoldsOp(graph, op) && !isLive(op)) removeDeadOp(graph, op);
  }
}

// Takes the op out with its links and dead outputs; returns its former inputs, each once, in input order.
std::vector<TensorPtr> removeSingleOp(const GraphPtr& graph, const OpPtr& op) {
  std::vector<TensorPtr> inputs;
  for (const TensorPtr& input : op->getInputs()) {
    if (std::find(inputs.begin(), inputs.end(), input) == inputs.end()) inputs.push_back(input);
  }
  for (const TensorPtr& input : inputs) graph->removeOpAsConsumer(op, input);
  for (const TensorPtr& output : op->getOutputs()) {
    op->removeOutput(output);
    if (output->getProducer() != op) continue;
    if (!output->getConsumers().empty() || isGraphOutput(output)) {
      output->clearProducer();
    } else if (graph->getTensor(output->getName()) == output) {
      graph->removeTensor(output->getName());
    }
  }
  graph->prune(op, false);
  return inputs;
}

}  // namespace

MatchAndRewriteRule::~MatchAndRewriteRule() = default;

bool MatchAndRewriteRule::apply(GraphPtr& graph, std::uint32_t keepMatchedOps) {
  bool changed = false;
  MatchedOps lastMatch;
  std::vector<OpPtr> roots = collectRoots(*graph, pattern);
  for (OpPtr& root : roots) {
    // An op that the rewrite removes is let go while its memory is still at hand.
    const OpPtr op = std::move(root);
    const bool justRewritten =
        std::any_of(lastMatch.begin(), lastMatch.end(),
                    [&](const MatchedOps::value_type& entry) { return entry.second == op; });
    if (justRewritten || !graphHoldsOp(graph, op) || !pattern->match(op)) continue;
    MatchedOps bindings = pattern->getPathMatchedOps();
    if (requireIsolatedMatch && !isIsolated(graph, bindings, pattern->getPathConsumerPatterns())) continue;
    MatchedOps handedOver = bindings;
    if (!rewriteCallback(graph, handedOver)) continue;
    changed = true;
    if (keepMatchedOps == 0) {
      lastMatch = std::move(bindings);
      cleanUp(graph, lastMatch);
    }
  }
  return changed;
}

void removeDeadOp(const GraphPtr& graph, const OpPtr& givenOp) {
  const OpPtr first = givenOp;  // the caller may hand in an element of what is edited
  // Depth first in input order, on a stack of our own: dead chains may be as long as the graph.
  std::vector<TensorPtr> pending;
  const auto removeAndPush = [&](const OpPtr& op) {
    const std::vector<TensorPtr> inputs = removeSingleOp(graph, op);
    pending.insert(pending.end(), inputs.rbegin(), inputs.rend());
  };
  removeAndPush(first);
  while (!pending.empty()) {
    const TensorPtr tensor = pending.back();
    pending.pop_back();
    const OpPtr producer = tensor->getProducer();
    if (producer && tensor->getConsumers().empty() && graphHoldsOp(graph, producer) && !isLive(producer)) {
      removeAndPush(producer);
    }
  }
}

SequenceTransformPass::SequenceTransformPass(std::vector<std::shared_ptr<MatchAndRewriteRule>> givenRules)
    : rules(std::move(givenRules)) {}

SequenceTransformPass::~SequenceTransformPass() = default;

bool SequenceTransformPass::run(GraphPtr& graph) {
  bool changed = false;
  for (const auto& rule : rules) changed = rule->apply(graph, keepMatchedOps) || changed;
  return changed;
}

const std::vector<std::shared_ptr<MatchAndRewriteRule>>& SequenceTransformPass::getRules() const {
  return rules;
}

bool graphHoldsOp(const GraphPtr& graph, const OpPtr& op) {
  return graph->holdsOp(op);
}

std::vector<OpPtr> snapshotOps(const GraphPtr& graph) {
  return graph->getOps();
}

std::vector<OpPtr> snapshotOps(const GraphPtr& graph, const std::set<std::string>& types) {
  return graph->opsOfTypes(types);
}

const std::string& opTypeOf(const OpPtr& op) {
  return op->getType();
}

}  // namespace netforge::graphrefiner
