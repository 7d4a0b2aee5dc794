#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Lets a Gather read its indices as 32-bit integers, as the target needs it.
///
///   before   (x, i) -> Gather -> y
///   after    i -> Cast -> i_cast [INT_32];  (x, i_cast) -> Gather -> y
///
/// All Gathers on the same indices share one Cast, which stands in front of the first of them. Each change
/// gives a line on standard output.
/// Refuses: a Gather without exactly two inputs; a name "<indices>_cast" that stands for something else.
class InjectCastForGatherRule : public MatchAndRewriteRule {
 public:
  InjectCastForGatherRule();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;
};

}  // namespace netforge::graphrefiner
