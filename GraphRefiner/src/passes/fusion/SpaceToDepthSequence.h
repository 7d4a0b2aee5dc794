#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Puts a SpaceToDepth in the place of seven ops that move blocks of pixels into the channels.
///
///   before   x [N,C,H,W] -> Reshape [N,C,H/b,b,W/b,b] -> Transpose -> Reshape -> Transpose -> Reshape
///              -> Transpose -> Reshape -> y [N,C*b*b,H/b,W/b]
///   after    x -> Transpose(0,2,3,1) -> SpaceToDepth(b) -> Transpose(0,3,1,2) -> y
///
/// The SpaceToDepth works channel-last and its output bears the name of y. When y is a graph output the
/// application reads that output, so its layout becomes channel-last; ops that read y too get the Transpose.
/// Tests the shapes at both ends, not the orders in between: which ops may move what is the caller's choice
/// of this pass, which no pipeline runs.
/// Refuses: dynamic axes; an interior tensor that others or the application read; names that are taken.
class matchSpaceToDepth : public MatchAndRewriteRule {
 public:
  matchSpaceToDepth();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;
  /// Whether the dims around the first and the last Reshape are those of a SpaceToDepth.
  static bool isSpaceToDepthSequence(const std::shared_ptr<ops::IrOp>& firstOp,
                                     const std::shared_ptr<ops::IrOp>& lastOp);

 private:
  PatternPtr reshapeInPattern;
  PatternPtr reshapeOutPattern;
};

}  // namespace netforge::graphrefiner
