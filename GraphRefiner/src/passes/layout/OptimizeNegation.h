#pragma once

#include <memory>
#include "GraphRefiner/src/RewriteUtilities.h"
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Writes a product with -1 as a negation.
///
///   before   x, c = -1 -> Eltwise_Binary (product) p -> y          after    x -> Eltwise_Unary p_neg -> y
///
/// Refuses: a constant with another element, of a type that can't say -1 (`isAllMinusOne`), that can be
/// updated, or that broadcasts x to a larger shape; a product of two constants. OptimizeNegationAddRule takes
/// the result on.
class OptimizeNegationMultiplyRule : public MatchAndRewriteRule {
 public:
  OptimizeNegationMultiplyRule();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;
};

/// Writes a sum with a negated operand as a difference.
///
///   before   a -> neg -> n;  y, n -> sum s        after    y, a -> difference s_sub      y + -a and -a + y
///   before   a -> neg -> n;  b -> neg -> m;
///            n, m -> sum s                         after    n, b -> difference s_sub      -a + -b
///
/// Refuses: a negation that others, or the application, read; one negation at both operands.
class OptimizeNegationAddRule : public MatchAndRewriteRule {
 public:
  OptimizeNegationAddRule();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;
};

/// Whether all elements are -1, exactly, of type INT_8, INT_16, INT_32, FLOAT_16 or FLOAT_32; false for any
/// other type. Throws std::runtime_error for a null tensor and for one without elements.
bool isAllMinusOne(const StaticTensorPtr& tensor);

}  // namespace netforge::graphrefiner
