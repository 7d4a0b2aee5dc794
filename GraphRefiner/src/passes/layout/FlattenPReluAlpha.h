#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Keeps one element of a slope that holds the same value everywhere.
///
///   before   x, alpha[64] = 0.25 ... 0.25 -> Prelu          after    x, alpha[1] = 0.25 -> Prelu
///
/// The constant keeps its name. Zeros of either sign count as equal, a NaN as equal to nothing.
/// Refuses: a slope that is computed or can be updated, or that another op, another input of the op or the
/// application reads;
/// types other than INT_8, INT_16, INT_32, FLOAT_16 and FLOAT_32.
class FlattenPReluAlphaPass : public OpTransformPass<FlattenPReluAlphaPass> {
 public:
  FlattenPReluAlphaPass();

 private:
  bool handlePreluOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
};

}  // namespace netforge::graphrefiner
