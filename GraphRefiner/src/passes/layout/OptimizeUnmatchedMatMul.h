#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Moves the Transpose of a MatMul's second operand above the Reshape that flattens the spatial axes of a
/// channel-last tensor, where it turns channels to the front.
///
///   before   x[n,h,w,c] -> Reshape [n,h*w,c] -> Transpose(0,2,1) -> MatMul(a, .) -> Reshape -> out
///   after    x -> Transpose(0,3,1,2) "<x>_0312" -> Reshape [n,c,h*w] -> MatMul(a, .) -> Reshape -> out
///
/// Applies where the product is wider than high and the last Reshape takes its columns apart into two axes.
/// Refuses: a Reshape that regroups other axes than the spatial ones, or that takes its shape from a tensor;
/// a bias, transposed operands, tensors between the ops that the application or someone else reads, and the
/// name "<x>_0312" on anything but that very Transpose, which is shared.
class OptimizeUnmatchedMatMulRule : public MatchAndRewriteRule {
 public:
  OptimizeUnmatchedMatMulRule();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr reshapePattern;
  PatternPtr transposePattern;
  PatternPtr matmulPattern;
  PatternPtr rootPattern;
};

}  // namespace netforge::graphrefiner
