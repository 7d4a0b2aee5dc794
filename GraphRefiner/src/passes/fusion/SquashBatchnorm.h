#pragma once

#include <memory>
#include <string>
#include "GraphRefiner/src/RewriteUtilities.h"
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Folds a batch normalization (at inference y = gamma * x + beta per channel) into the weights and bias of
/// the op that computes x.
///
///   before   x, W, b -> Conv2d -> Batchnorm(gamma, beta) -> y
///   after    x, gamma * W, gamma * b + beta -> Conv2d -> y
///
/// Convolutions (2d, 3d, depthwise, grouped and transposed), MatMul and FullyConnected; the latter two also
/// with a Reshape in front of the Batchnorm that leaves the channels where they are. The constants change in
/// place, after the op got copies of its own of those that others read; those of a convolution get the suffix
/// "_fused_bn", which shows in dumps that they have changed.
///
/// Refuses: constants that are quantised, overridden, updateable, not float 32 or graph outputs; gamma and
/// beta that don't fit the output channels or the bias; a bias that is computed; a tensor in between that
/// others or the application read; a convolution without a bias unless the graph accepts that; taken names.
/// The groups of a transposed convolution with channel-first weights all take the first group's gamma.
class squashBatchnorm : public MatchAndRewriteRule {
 public:
  using GraphPtr = std::shared_ptr<IrGraph>;
  using OpPtr = std::shared_ptr<ops::IrOp>;

  squashBatchnorm();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

  // Each gets the op that computes the Batchnorm's data and returns whether it folded the Batchnorm into it;
  // false leaves the graph as it was. `reshapeOp` stands between the two, or is null.

  bool foldIntoConv(const GraphPtr& graph, const OpPtr& convOp, const OpPtr& batchnormOp);
  bool handleFullyConnectedOp(const GraphPtr& graph, const OpPtr& fcOp, const OpPtr& batchnormOp,
                              const OpPtr& reshapeOp);
  bool handleMatMulOp(const GraphPtr& graph, const OpPtr& matMulOp, const OpPtr& batchnormOp,
                      const OpPtr& reshapeOp);

 private:
  PatternPtr convPattern;
  PatternPtr matMulPattern;
  PatternPtr fullyConnectedPattern;
  PatternPtr reshapePattern;
  PatternPtr batchnormPattern;
};

}  // namespace netforge::graphrefiner
