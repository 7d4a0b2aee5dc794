#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Moves a Transpose from both sides of an elementwise op to its other operand.
///
///   before   x -> Transpose(q) -> op(., y) -> Transpose(p) -> z       q undoes p
///   after    x -> op(., Transpose(p)(y)) -> z
///
/// Either operand may be the transposed one. A Transpose of y with that order is shared; where both operands
/// are the same transposed tensor none is needed.
/// Refuses: a tensor between the ops that the application or someone else reads, operands of another rank or
/// of different last axes in the new layout, x itself as the other operand (both places would be moved), and
/// names that are taken.
/// Leaves for later: a Transpose of a constant y, which SquashConstantTranspose folds.
class MatchReduceEltwiseBinTranspose : public MatchAndRewriteRule {
 public:
  MatchReduceEltwiseBinTranspose();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr eltwisePattern;
  PatternPtr innerPattern;
  PatternPtr rootPattern;
};

}  // namespace netforge::graphrefiner
