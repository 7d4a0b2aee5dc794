#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge {
class IrStaticTensor;
}

namespace netforge::graphrefiner {

/// Turns a product with a constant Sylvester-Hadamard matrix into the op for it.
///
///   before   (x, H) -> FullyConnected -> y
///   after    x -> HadamardTransform(scale 1) -> y
///
/// Refuses: a bias, a transposed or flattened input, dynamic axes, weights that aren't 32-bit or 16-bit
/// float or that can be updated, and every multiple of the matrix: a product behind the transform is what
/// carries a scale (see FoldHadamardWithMul).
class FullyConnectedToHadamardPass : public OpTransformPass<FullyConnectedToHadamardPass> {
 public:
  FullyConnectedToHadamardPass();
  bool handleFullyConnected(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
};

/// Whether a float constant is the Sylvester-Hadamard matrix of its size, exactly: square, a power of two in
/// size, of the form [[H, H], [H, -H]] down to [[1]]. False for other types and ranks.
bool isHadamardMatrix(const std::shared_ptr<IrStaticTensor>& tensor);

}  // namespace netforge::graphrefiner
