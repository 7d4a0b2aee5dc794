#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Folds a product with a scalar constant into the "scale" of the HadamardTransform in front of it.
///
///   before   x -> HadamardTransform(s) [-> Reshape] -> Eltwise_Binary(operation 13, c) -> y
///   after    x -> HadamardTransform(s * c) [-> Reshape] -> y
///
/// The constant may be either operand. Of several products in a row one goes in each run.
/// Refuses: a constant that isn't one element of 32-bit or 16-bit float or 32-bit integer, or of a higher
/// rank than y; ranges that the user gave; an interior tensor that others or the application read.
class FoldHadamardWithMulPass : public MatchAndRewriteRule {
 public:
  FoldHadamardWithMulPass();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;
};

}  // namespace netforge::graphrefiner
