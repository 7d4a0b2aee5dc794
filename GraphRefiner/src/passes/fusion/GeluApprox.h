#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge {
class IrTensor;
}

namespace netforge::graphrefiner {

/// Fuses the tanh approximation of GELU, written out in elementary ops, into one op.
///
///   before   0.5 * x * (1 + tanh(sqrt(2/pi) * (x + 0.044715 * x^3)))          7 to 9 ops
///   after    x -> ElementWiseNeuron(operation 1, GELU) -> y
///
/// The outer product in four arrangements: (x * 0.5) * t, (t * 0.5) * x, (t / 2) * x, (x * t) * 0.5 with
/// t = 1 + tanh(...); the cube as a power or as (x * x) * x; the operands of sums and products either way
/// around. The fused op computes the exact form, so values move by up to 4.8e-4 of it.
///
/// Refuses: constants that are off by more than 0.1 % or are no float scalars; another tensor in one of the
/// places of x; a result whose shape isn't that of x; an op inside the cluster that others, or the
/// application, read. A GELU of a product whose cube is Mul(Mul(x, x), x) stays: the product that makes x
/// passes for the square.
class MatchGeluApproxPass : public MatchAndRewriteRule {
 public:
  MatchGeluApproxPass();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;
  /// Whether the match of arrangement `patternNumber` (1 to 4) is the formula. Changes nothing.
  bool validateConstantsAndExtract(const std::shared_ptr<ops::IrOp>& rootOp, MatchedOps& matches,
                                   int patternNumber);
  /// Puts the GELU op in the root's place and removes the rest. An exception of an edit is reported on
  /// standard output and gives false; the graph stays as far as the edits got.
  bool replaceWithGelu(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<ops::IrOp>& rootOp,
                       MatchedOps& matches);

 private:
  std::shared_ptr<IrTensor> findX(const MatchedOps& matches) const;
  bool sameXEverywhere(const std::shared_ptr<ops::IrOp>& rootOp, const MatchedOps& matches,
                       const std::shared_ptr<ops::IrOp>& innerSum) const;

  PatternPtr tanhPattern;
  PatternPtr addOnePattern;
  PatternPtr pattern1;
  PatternPtr pattern2;
  PatternPtr pattern3;
  PatternPtr pattern4;
  PatternPtr powerPattern;
  PatternPtr squarePattern;
  PatternPtr cubePattern;
  PatternPtr inputPattern;
};

/// Whether some input of the op is a constant of one float (32 or 16 bit) with
/// |value - expected| <= |expected| * relativeTolerance + absoluteTolerance. A null op gives false. Constants
/// that can be updated after compilation don't count.
bool hasScalarInputNear(const std::shared_ptr<ops::IrOp>& op, double expected, double relativeTolerance,
                        double absoluteTolerance);

}  // namespace netforge::graphrefiner
