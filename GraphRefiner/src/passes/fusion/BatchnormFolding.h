#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "GraphRefiner/src/RewriteUtilities.h"

namespace netforge::graphrefiner {

// The arithmetic of folding y = gamma * x + beta (per channel) into the constants of the op that computes x:
// weights times gamma along the output channels, and gamma * bias + beta. All in 32-bit floats.

/// Whether the tensor carries fixed-point values or a range that the user gave.
bool isQuantizedOrOverridden(const std::shared_ptr<IrTensor>& tensor);
/// Whether the constant holds 32-bit floats, as many as its dims say and at least one, and keeps them after
/// compilation.
bool isFloatConstant(const StaticTensorPtr& tensor);
/// Whether the constant has one element, or one for each of that many channels along its last axis.
bool isPerChannel(const StaticTensorPtr& tensor, std::uint64_t channels);

/// The weights of a convolution as its type and the axis order store them.
struct ConvWeights {
  StaticTensorPtr tensor;
  Permutation toIr;            ///< to (spatial..., input, output channels); empty when that is the layout
  Permutation fromIr;          ///< and back
  bool isTransposed = false;   ///< of a transposed convolution
  std::uint32_t group = 1;     ///< of a transposed convolution: the output channels are those of one group
  std::uint32_t channels = 0;  ///< the last dim in IR layout
};

/// Reads input 1 of a convolution. `tensor` is null when its rank or its groups don't suit the op.
ConvWeights readConvWeights(const std::shared_ptr<ops::IrOp>& op, bool isSpatialLast);
/// The weights times gamma, in the layout of the weights. Groups of a transposed convolution that are stored
/// channel-first all take the leading elements of gamma.
StaticTensorPtr scaleConvWeights(const ConvWeights& weights, const StaticTensorPtr& gamma);
/// The kernel for transposed convolutions: weights of dims (`spatialDims`, inChannels, outChannels), every
/// group of inChannels / group input channels times gamma[0 .. outChannels); a gamma of one element serves
/// all. With other than two or three spatial dims the result is zero.
StaticTensorPtr multiplyGroupedWeights(const StaticTensorPtr& weights, const StaticTensorPtr& gamma,
                                       const std::vector<std::uint32_t>& spatialDims,
                                       std::uint32_t inChannels, std::uint32_t outChannels,
                                       std::uint32_t group, const std::string& name);
/// The matrix times gamma along its last axis as it stands after a Transpose with `order`, in its own layout.
/// An empty order leaves it as it is.
StaticTensorPtr scaleMatrix(const StaticTensorPtr& matrix, const Permutation& order,
                            const StaticTensorPtr& gamma);
/// gamma * bias + beta, with the dims of the bias, which no operand may outgrow.
StaticTensorPtr foldBias(const StaticTensorPtr& bias, const StaticTensorPtr& gamma,
                         const StaticTensorPtr& beta);
/// Gives the constant the bytes of another one of the same size.
void overwrite(const StaticTensorPtr& target, const StaticTensorPtr& values);

}  // namespace netforge::graphrefiner
