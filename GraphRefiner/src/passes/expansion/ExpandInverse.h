#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Writes the inverse of 2x2 matrices as adjugate by determinant (Cramer's rule).
///
///   before   x[..., 2, 2] -> Inverse n -> y
///   after    x, flip -> MatMul "n_adj_matmul_1" -> Transpose "n_adj_transpose" of the last two axes
///              -> MatMul with flip "n_adj_matmul_2" -> times signs "n_adj_sign_change" -> adj
///            x, adj -> MatMul "n_inv_matmul" -> sum of rows "n_inv_reduce_sum" -> mean of columns
///              "n_inv_reduce_mean" -> det
///            adj, det -> divided "n_inv_div" -> y
///
/// flip = [[0, 1], [1, 0]], signs = [[1, -1], [-1, 1]]. For x = [[a, b], [c, d]], flip times the transposed
/// x times flip is [[d, b], [c, a]], of which the signs make the adjugate. x times adj is [[det, 0], [0,
/// det]]: the sum over its rows is (det, det) and the mean of that det, so no element is picked out.
///
/// Refuses, with a line on standard output: matrices of other dims. In silence: matrix axes of unknown size,
/// a name that is taken.
class ExpandInverseRule : public MatchAndRewriteRule {
 public:
  ExpandInverseRule();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr inversePattern;
};

}  // namespace netforge::graphrefiner
