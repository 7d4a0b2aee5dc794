#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Folds Concats that feed a Concat on the same axis into it.
///
///   before   (a, b) -> Concat(axis) -> m;  (m, c) -> Concat(axis) -> y
///   after    (a, b, c) -> Concat(axis) -> y
///
/// One level a run; an m that stands at several places is replaced at each.
/// Refuses, for all inputs together: a y that the application reads; an m that others or the application
/// read, and an m of another axis, both with a line on standard output.
class MatchConcatSequence : public MatchAndRewriteRule {
 public:
  MatchConcatSequence();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;
};

}  // namespace netforge::graphrefiner
