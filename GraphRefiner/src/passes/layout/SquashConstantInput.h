#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Computes an op on a constant once and for all.
///
///   before   c -> ElementWiseNeuron (GELU) -> y -> ...        after    y = gelu(c), float 32 -> ...
///   before   c -> Transpose -> y -> ...                        after    y = c permuted -> ...
///
/// The exact GELU, x / 2 * (1 + erf(x / sqrt(2))), in 32-bit floats whatever the type of c, so the result of
/// an integer constant isn't rounded.
/// Refuses: other neurons; a constant that is quantised or can be updated, and types that aren't plain
/// numbers of at most 32 bits; a Transpose of a constant that others read too; a taken name.
class SquashConstantInputPass : public OpTransformPass<SquashConstantInputPass> {
 public:
  SquashConstantInputPass();

 private:
  bool handleNeuronOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
  /// True also where the utility that folds refuses, with a line on standard output, because the application
  /// reads the constant.
  bool handleTransposeOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
};

}  // namespace netforge::graphrefiner
