#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Runs a reduction over the last axis in the layout in front of its Transpose.
///
///   before   x -> Transpose(p) -> - y -> Unary -> ReduceSum(last axis) -> / c -> Transpose(q) -> out
///   after    x -> - Transpose(q, y) -> Unary -> ReduceSum(place of that axis in q) -> / c -> out
///
/// q is the inverse of p and c has one element.
/// Refuses: an axis that q leaves where it is, a Reduce that drops its axis, a y of another rank or one that
/// is x or its Transpose, a tensor of the chain that the application reads, and the name "<y>_<q>" on
/// anything but that very Transpose, which is shared.
class MatchDepthReduceSequence : public MatchAndRewriteRule {
 public:
  MatchDepthReduceSequence();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr firstPattern;
  PatternPtr subtractPattern;
  PatternPtr unaryPattern;
  PatternPtr reducePattern;
  PatternPtr dividePattern;
  PatternPtr rootPattern;
};

}  // namespace netforge::graphrefiner
