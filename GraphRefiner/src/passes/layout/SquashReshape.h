#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Replaces a Reshape of a constant by a constant of the new dims.
///
///   before   c[2,3] -> Reshape -> r[6] -> Add
///   after    r[6] -> Add                      r is a constant
///
/// c stays in the graph, unread. An encoding per channel follows its axis.
/// Refuses: a constant that someone else reads too, or whose encoding doesn't outlive the new dims; an r that
/// the application reads; an r that is the initial state of an Lstm, whose expansion and unrolling read the
/// Reshape; a taken name. Leaves for the clean-up: the Reshape itself.
class squashReshape : public MatchAndRewriteRule {
 public:
  squashReshape();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr rootPattern;
};

}  // namespace netforge::graphrefiner
