#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Turns a norm over several trailing axes into a norm over the last one.
///
///   before   t[2,3,4,5] -> LayerNorm(axes 2,3; gamma[4,5]) -> out[2,3,4,5]
///   after    t -> Reshape [2,3,1,20] "<op>_adjust_norm_pre_reshape" -> LayerNorm(axes 3; gamma[20])
///              -> out[2,3,1,20] -> Reshape [2,3,4,5] "<op>_adjust_norm_post_reshape" -> ...
///
/// The constants keep their names. A graph output keeps its name and dims: the last Reshape writes it.
/// Relies on AdjustNormOpBuffers for trailing axes; reports no change, whatever it does.
/// Refuses: axes that aren't trailing and ascending, axes 1, 2, 3 of rank 4, dims that aren't known, gamma or
/// beta that are no constants of one element or one for each normalised place, or that the application reads.
/// One that other ops read as well is told on standard output.
class AdjustNormOpFlattenLastDimsPass : public MatchAndRewriteRule {
 public:
  AdjustNormOpFlattenLastDimsPass();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr rmsNormPattern;
  PatternPtr layerNormPattern;
  PatternPtr rootPattern;
};

}  // namespace netforge::graphrefiner
