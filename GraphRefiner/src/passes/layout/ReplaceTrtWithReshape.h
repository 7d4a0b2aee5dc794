#pragma once

#include <cstdint>
#include <memory>
#include <vector>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Replaces Transpose, Reshape, Transpose by one Reshape where the three keep the row-major order of the
/// elements.
///
///   before   x[2,1,6] -> Transpose(1,0,2) -> Reshape r [1,12,1] -> Transpose(2,1,0) -> y[1,12,1]
///   after    x[2,1,6] -> Reshape "r_replaced" -> y[1,12,1]
///
/// Whether they do is found out by running them on numbers, never on the tensor's own data.
/// Refuses: dynamic axes; a tensor between the ops that someone else or the application reads; a taken name;
/// an empty tensor whose dims a Reshape can't express, since a 0 in "shape" copies the input's dim.
class ReplaceTrtWithReshapePass : public MatchAndRewriteRule {
 public:
  ReplaceTrtWithReshapePass();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

  /// Whether `first`, `reshape` and `last` together turn a row-major tensor of `inDims` into the same row of
  /// elements under `outDims`. False for orders that don't fit the dims. The dims between the ops are those
  /// of their outputs. The answer for given dims and orders is always the same.
  static bool isEquivalentToReshape(const std::shared_ptr<ops::IrOp>& first,
                                    const std::shared_ptr<ops::IrOp>& reshape,
                                    const std::shared_ptr<ops::IrOp>& last,
                                    const std::vector<std::uint32_t>& inDims,
                                    const std::vector<std::uint32_t>& outDims);
};

}  // namespace netforge::graphrefiner
