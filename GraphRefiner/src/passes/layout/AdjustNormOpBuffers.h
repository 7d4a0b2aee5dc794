#pragma once

#include <memory>
#include <vector>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Lets a norm op normalise over trailing axes.
///
///   before   t[n,c,h,w] -> LayerNorm(axes 1) -> out
///   after    t -> Transpose "<t>.NHWC" -> LayerNorm(axes 3) -> Transpose "<out>.NCHW" -> ...
///
/// The order puts the normalised axes last, in the order of "axes", and gets the name of the layout that it
/// leads to where there is one, else NONTRIVIAL. gamma and beta are laid out in the order of "axes" and stay.
/// All norm ops that read t and need the same order share one Transpose; one of another order finds the name
/// taken and stays. A graph output keeps its name and layout: the Transpose behind writes it.
/// Refuses: layouts NF and NC, "axes" that aren't distinct axes of t, and names that are taken.
/// Leaves for later: several trailing axes, which AdjustNormOpFlattenLastDims makes one.
class AdjustNormOpBuffersPass : public MatchAndRewriteRule {
 public:
  AdjustNormOpBuffersPass();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr rmsNormPattern;
  PatternPtr layerNormPattern;
  PatternPtr rootPattern;
};

}  // namespace netforge::graphrefiner
