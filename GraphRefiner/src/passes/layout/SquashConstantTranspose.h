#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Folds a Transpose of a constant into the constant's bytes.
///
///   before   w[2,3] -> Transpose(1,0) -> t -> Conv2d
///   after    w'[3,2] -> Conv2d
///
/// The new constant bears the name w where an op with weights reads it, since users look for their weights by
/// name, and the name t everywhere else. An encoding per channel follows its axis.
/// Refuses: a constant that someone else reads too, one of a type without whole bytes of 1, 2 or 4, one that
/// is encoded in blocks, and a taken name. The utility that folds refuses, with a line on standard output, a
/// graph output whose name would go; that counts as a change all the same.
class SquashConstantTransposePass : public OpTransformPass<SquashConstantTransposePass> {
 public:
  SquashConstantTransposePass();

 private:
  bool handleTransposeOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
};

}  // namespace netforge::graphrefiner
