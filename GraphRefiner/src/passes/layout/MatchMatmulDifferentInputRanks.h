#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Brings the operands of a MatMul to equal ranks with ones in front of the lower one.
///
///   before   MatMul(a[2,3,4], c[4,5])
///   after    MatMul(a, c[1,4,5])                    a constant that this op alone reads
///            MatMul(a, Reshape(c) [1,4,5])          any other tensor
///
/// The constant keeps its name; the Reshape is called "<output>_<operand>_reshape" and serves this op alone.
/// Refuses: operands of rank below 2, for which ones in front would mean another product; a Reshape of dims
/// that aren't known, or under a name that is taken; an operand that the MatMul reads as bias too.
class MatchMatmulDifferentInputRanks : public MatchAndRewriteRule {
 public:
  MatchMatmulDifferentInputRanks();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr rootPattern;
};

}  // namespace netforge::graphrefiner
