#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Writes a Euclidean norm as the root of a sum of squares.
///
///   before   x -> ReduceL2 r (axes, keep_dims) -> y
///   after    x, x -> Eltwise_Binary multiply "r_mul" -> Reduce sum "r_reduced_sum" -> Eltwise_Unary square
///            root "r_sqrt" -> y
///
/// Refuses: a name that is taken.
/// Leaves for later: HoistTranspose moves no Transpose across the square root.
class ExpandReduceL2OpRule : public MatchAndRewriteRule {
 public:
  ExpandReduceL2OpRule();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr reducePattern;
};

}  // namespace netforge::graphrefiner
