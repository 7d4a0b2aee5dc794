#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Removes a Cast between equal types.
///
///   before   x (float 32) -> Cast -> y (float 32) -> ...          after    x -> ...
///
/// Of the two tensors the one survives that `IrGraph::squash` keeps; a known encoding goes along.
/// Refuses: a Cast between tensors that must both stay, such as a graph input and a graph output.
class SquashCastPass : public MatchAndRewriteRule {
 public:
  SquashCastPass();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr rootPattern;
};

/// Removes a Cast whatever its types, for targets that know one arithmetic type only. What the Cast did to
/// the values (rounding, narrowing, truth values) no longer happens. InjectCastForGather brings back the one
/// cast that indices need. Refuses what SquashCastPass refuses.
class ForcePruneCastPass : public MatchAndRewriteRule {
 public:
  ForcePruneCastPass();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr rootPattern;
};

/// Removes the Cast when its types are equal or `force` is set. Gives whether it did.
bool squashCast(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<ops::IrOp>& op, bool force);

}  // namespace netforge::graphrefiner
