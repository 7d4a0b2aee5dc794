#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Folds a product with a positive scalar constant in front of a Softmax into its "beta".
///
///   before   x -> Eltwise_Binary(operation 13, s) -> Softmax(beta) -> y
///   after    x -> Softmax(beta * s) -> y
///
/// The constant may be either operand; a missing "beta" counts as 1.
/// Refuses: a constant that isn't one element of 32-bit or 16-bit float or 32-bit integer above zero; a
/// product or operand that is quantised or has a range that the user gave; a constant of a higher rank than
/// x, which moves the axes of the Softmax; a product that others or the application read.
class MatchSoftmaxSequence : public MatchAndRewriteRule {
 public:
  MatchSoftmaxSequence();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr scalePattern;
  PatternPtr softmaxPattern;
};

}  // namespace netforge::graphrefiner
