#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Lets an elementwise op run in the layout of its lower-rank operand.
///
///   before   Binary(Transpose(p, Reshape(x) with ones in front), y) -> out
///   after    Binary(x, Transpose(inverse of p, y)) -> Transpose(p) "<out>_post_transpose_<p>"
///
/// Broadcasting puts the ones in front by itself. The operands may stand in either order and keep it. The
/// Transpose of y is shared when y feeds such a one already. A graph output keeps its name and layout: the
/// new Transpose writes it.
/// Applies to sum, quotient, product and difference whose operands differ in the last axis and agree in the
/// one that p moves there.
/// Refuses: a Reshape that does anything else, a y of another rank, tensors between the ops that the
/// application or someone else reads, and names that are taken.
/// Leaves for later: the Transposes, which join with those around.
class MatchOptimizeDepthBroadcastElementwise : public MatchAndRewriteRule {
 public:
  MatchOptimizeDepthBroadcastElementwise();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr rootPattern;
  PatternPtr transposePattern;
  PatternPtr reshapePattern;
};

}  // namespace netforge::graphrefiner
