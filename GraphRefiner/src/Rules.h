#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>
#include "GraphRefiner/src/Pass.h"
#include "GraphRefiner/src/Pattern.h"

namespace netforge {
class IrGraph;
namespace ops {
class IrOp;
}
}  // namespace netforge

namespace netforge::graphrefiner {

/// A rewrite: a pattern, and what to do where it matches. The constructor of a derived rule builds the tree
/// and keeps the nodes that its callback reads back. Rule objects live as long as the process and hold the
/// state of the match in progress.
class MatchAndRewriteRule {
 public:
  /// Called where the pattern matched and no op inside the match is used outside it. `matchedOps` is a copy
  /// of the bindings on the way that matched; tensors are not bound, they are reached through the ops.
  ///
  /// First decides, then edits: false says that nothing changed. After an edit it returns true. It rewires
  /// the consumers of the outputs that it replaces; bound ops whose outputs nobody reads any more, and
  /// producers that this leaves dead, are removed by the engine, and it may remove ops itself. An exception
  /// ends the optimization.
  virtual bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) = 0;
  virtual ~MatchAndRewriteRule();

  /// One walk from the last op to the first over the ops that the graph holds now; ops that the walk creates
  /// wait for the next one, and the ops of the latest rewrite are not taken as a root again. Returns whether
  /// any callback returned true. `keepMatchedOps` other than 0 leaves the bound ops in the graph. Costs next
  /// to nothing when the graph holds no op of a type that the pattern's root can have.
  bool apply(std::shared_ptr<IrGraph>& graph, std::uint32_t keepMatchedOps);

 protected:
  PatternPtr pattern;
  bool requireIsolatedMatch = true;
};

/// Removes an op that nothing reads: its links, its outputs that no one reads and that are no graph outputs,
/// the op, and then the producers that this leaves dead, depth first in input order. An output that has moved
/// to another producer stays.
void removeDeadOp(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<ops::IrOp>& op);

/// A pass of rules. `run` applies them in list order, each with a walk of its own.
class SequenceTransformPass : public Pass {
 public:
  explicit SequenceTransformPass(std::vector<std::shared_ptr<MatchAndRewriteRule>> rules);
  bool run(std::shared_ptr<IrGraph>& graph) override;
  ~SequenceTransformPass() override;
  const std::vector<std::shared_ptr<MatchAndRewriteRule>>& getRules() const;

 private:
  std::vector<std::shared_ptr<MatchAndRewriteRule>> rules;
};

/// A pass of fresh rules of these classes, in this order.
template <class... Rules>
std::shared_ptr<Pass> makeSequencePass() {
  return std::make_shared<SequenceTransformPass>(
      std::vector<std::shared_ptr<MatchAndRewriteRule>>{std::make_shared<Rules>()...});
}

/// Whether the graph holds this very op: another op may meanwhile bear its name.
bool graphHoldsOp(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<ops::IrOp>& op);
/// The ops in execution order, a copy.
std::vector<std::shared_ptr<ops::IrOp>> snapshotOps(const std::shared_ptr<IrGraph>& graph);
/// The same of the ops of some types. Costs next to nothing when there are none.
std::vector<std::shared_ptr<ops::IrOp>> snapshotOps(const std::shared_ptr<IrGraph>& graph,
                                                    const std::set<std::string>& types);
const std::string& opTypeOf(const std::shared_ptr<ops::IrOp>& op);

/// A pass that visits the ops from the first to the last and dispatches on the type. The concrete pass
/// derives from this template over itself and fills `handlers` in its constructor. A handler does all its own
/// work: there is no clean-up. Ops that an earlier handler removed are not visited, nor are ops that the walk
/// creates.
template <class Derived>
class OpTransformPass : public Pass {
 public:
  /// Returns whether it changed the graph.
  using Handler = bool (Derived::*)(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
  bool run(std::shared_ptr<IrGraph>& graph) override {
    bool changed = false;
    std::vector<std::shared_ptr<ops::IrOp>> ops =
        handlesEveryType() ? snapshotOps(graph) : snapshotOps(graph, handledTypes());
    for (std::shared_ptr<ops::IrOp>& entry : ops) {
      std::shared_ptr<ops::IrOp> op = std::move(entry);  // let go at once when a handler removes it
      if (!graphHoldsOp(graph, op)) continue;
      const auto it = handlers.find(opTypeOf(op));
      const bool result = it != handlers.end() ? (static_cast<Derived*>(this)->*(it->second))(op, graph)
                                               : defaultHandler(op, graph);
      changed = result || changed;
    }
    return changed;
  }
  ~OpTransformPass() override = default;
  /// For ops of a type without a handler.
  virtual bool defaultHandler(std::shared_ptr<ops::IrOp>& /*op*/, std::shared_ptr<IrGraph>& /*graph*/) {
    return false;
  }

 protected:
  std::unordered_map<std::string, Handler> handlers;

 private:
  // Whether the concrete pass has a default handler of its own; otherwise ops of other types needn't be
  // visited.
  static constexpr bool handlesEveryType() {
    if constexpr (requires { &Derived::defaultHandler; }) {
      return !std::is_same_v<decltype(&Derived::defaultHandler), decltype(&OpTransformPass::defaultHandler)>;
    }
    return true;
  }

  std::set<std::string> handledTypes() const {
    std::set<std::string> types;
    for (const auto& entry : handlers) types.insert(entry.first);
    return types;
  }
};

}  // namespace netforge::graphrefiner
