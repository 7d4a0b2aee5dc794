#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Moves two equal Transposes in front of a sum behind it, where they are one.
///
///   before   Transpose(p)(a) + Transpose(p)(b) -> s
///   after    a + b -> s -> Transpose(p) "transpose_<sum>" -> s_permute
///
/// Where the sum is a graph output the application reads "<s>_permute" instead: the value is the same, the
/// name is not.
/// Refuses: transposed tensors that someone else or the application reads, operands of different dims or
/// orders, a sum that is quantised along an axis, and names that are taken.
class MatchTransposeSumSequence : public MatchAndRewriteRule {
 public:
  MatchTransposeSumSequence();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr firstPattern;
  PatternPtr secondPattern;
  PatternPtr rootPattern;
};

}  // namespace netforge::graphrefiner
