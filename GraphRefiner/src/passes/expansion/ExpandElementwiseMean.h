#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Writes a mean over inputs as sums, from left to right, and a division.
///
///   before   a, b, c -> Mean m -> y
///   after    a, b -> Eltwise_Binary add "m_add_op_1" -> "m_add_1"
///            "m_add_1", c -> Eltwise_Binary add "m_add_op_2" -> "m_add_2"
///            "m_add_2", "m_div_const" -> Eltwise_Binary divide "m_div_op" -> y
///
///   before   a -> Mean m -> y
///   after    a -> Reshape "m_identity_reshape" -> y
///
/// Refuses: a name that is taken, and inputs whose shapes don't broadcast, as those of an axis of unknown
/// size and of a known one above 1 don't. Leaves for later: a Reshape that changes nothing, which the removal
/// of no-ops takes out.
class ExpandElementwiseMeanRule : public MatchAndRewriteRule {
 public:
  ExpandElementwiseMeanRule();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr meanPattern;
};

}  // namespace netforge::graphrefiner
