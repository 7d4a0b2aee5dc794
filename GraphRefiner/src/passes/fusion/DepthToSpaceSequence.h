#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge {
class IrStaticTensor;
class IrTensor;
}  // namespace netforge

namespace netforge::graphrefiner {

/// Joins three DepthToSpaces on the channel thirds of a convolution into one on all channels.
///
///   before   Conv2d -> Split(axis 3) -> 3 x DepthToSpace(b) -> Concat(axis 3) -> y
///   after    Conv2d, output channels reordered -> DepthToSpace(b) -> y
///
/// Weights and bias are rewritten in place. The order of the channels is that of three thirds with one
/// output channel each, read in the order of the Split; the rule doesn't test this, and no pipeline runs it.
/// Refuses: channel-first graphs, grouped convolutions, other element types, encodings per channel, weights
/// or a bias that others or the application read or that can be updated, further blocks, dynamic axes,
/// interior tensors that others or the application read.
class MatchDepthToSpaceSequence : public MatchAndRewriteRule {
 public:
  MatchDepthToSpaceSequence();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;
  /// Reorders the last axis of the weights [h,w,i,C] and the bias [C], which may be null: with g = C/(bh*bw),
  /// channel (i*bw+j)*g + c becomes what channel c*bh*bw + i*bw + j was. Only C must be a multiple of the
  /// block, and the types must be those that the rule takes.
  static void reorderWeights(const std::shared_ptr<IrStaticTensor>& weights,
                             const std::shared_ptr<IrStaticTensor>& bias,
                             const std::array<std::uint32_t, 2>& blockSize);
  /// Squashes the op onto its first input that it alone reads and that isn't a graph input; the op no longer
  /// reads its other inputs. Nothing happens when there is no such input.
  static void squashDepthToSpaceOp(const std::shared_ptr<ops::IrOp>& op,
                                   const std::shared_ptr<IrGraph>& graph);

 private:
  PatternPtr convPattern;
  PatternPtr splitPattern;
  std::array<PatternPtr, 3> depthToSpacePatterns;
  PatternPtr concatPattern;
};

}  // namespace netforge::graphrefiner
