#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Lets Softmax and LogSoftmax run on the last axis, the only one that targets compute on.
///
///   before   x -> Softmax(axis) -> y
///   after    x -> Transpose(p) -> Softmax(last) -> Transpose(inverse of p) -> y
///
/// p takes the layouts of images and sequences to and from channel-last where the axis fits, so that it
/// cancels with other such Transposes; otherwise it swaps the axis with the last. A Transpose of x with that
/// order is shared. A graph output keeps its name and layout, and the op's own output is renamed. Refuses: an
/// op without an axis of its input, and names that are taken.
class MatchPermuteAxisToLast : public MatchAndRewriteRule {
 public:
  MatchPermuteAxisToLast();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr rootPattern;
};

}  // namespace netforge::graphrefiner
