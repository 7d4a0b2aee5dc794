#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Removes two Transposes that undo each other around a Reduce.
///
///   before   x -> Transpose(p) -> Reduce(axes) -> Transpose(q) -> y      q is the inverse of p
///   after    x -> Reduce(axes') -> y                                    axes'[i] = place of axes[i] in q
///
/// The new axes keep the order of the old ones. An axis that q lacks leaves "axes" as it was.
/// Refuses: orders of different lengths (a Reduce that drops its axes), and a tensor between the ops that the
/// application or someone else reads.
class removeInverseTransposePair : public MatchAndRewriteRule {
 public:
  removeInverseTransposePair();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr firstPattern;
  PatternPtr reducePattern;
  PatternPtr rootPattern;
};

}  // namespace netforge::graphrefiner
