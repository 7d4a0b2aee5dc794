#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Writes a ThresholdedRelu as a comparison and a choice.
///
///   before   x -> ThresholdedRelu r (alpha) -> y
///   after    x, "r_alpha" -> Eltwise_Binary greater "x_gt_r_alpha" -> c
///            c, x, "r_zeros" -> Eltwise_Ternary select "ternary_r" -> y
///
/// Refuses: a name that is taken.
class ExpandThresholdedReluRule : public MatchAndRewriteRule {
 public:
  ExpandThresholdedReluRule();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr thresholdedReluPattern;
};

}  // namespace netforge::graphrefiner
