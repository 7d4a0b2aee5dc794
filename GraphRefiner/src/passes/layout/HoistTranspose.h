#pragma once

#include <memory>
#include "GraphRefiner/src/Pass.h"

namespace netforge::graphrefiner {

/// Moves channel-last Transposes up to the graph inputs, so that the network runs channel-last from its first
/// op.
///
///   before   x[N,C,H,W] -> ops that are indifferent to layout -> Transpose(0,2,3,1) -> y
///   after    x -> Transpose(0,2,3,1) -> the same ops on [N,H,W,C] -> y
///
/// Takes whole regions (see HoistRegions) whose graph inputs have fewer channels than height and width. The
/// axes in the ops' attributes, the dims and the layouts of the tensors inside follow. Constants inside get a
/// Transpose "<constant>_hoist_0231" of their own, behind a Reshape "<constant>_hoist_broadcast" where their
/// rank is below four; one of a single element stays as it is. A graph input's Transpose "<input>_hoist_0231"
/// stands at the head of the graph.
/// Refuses silently; HoistRegions::withdrawals says why.
/// Leaves for later: the Reshapes and Transposes of constants, which SquashReshape and
/// SquashConstantTranspose fold.
class HoistTransposePass : public Pass {
 public:
  /// Always returns false, also when it moved something: it never counts as an executed pass.
  bool run(std::shared_ptr<IrGraph>& graph) override;
  ~HoistTransposePass() override;
};

}  // namespace netforge::graphrefiner
