#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Forms one Expand from a Tile and an op that puts axes of length 1 in front.
///
///   before   x -> Reshape | ExpandDims -> Tile -> y        or        x -> Tile -> Reshape | ExpandDims -> y
///   after    x -> Expand(dims of y) -> y
///
/// Both ops must broadcast: aligned at the right end, each dim in front of an op is that behind it, or 1.
/// Refuses: dynamic axes and axes of length 0; a tensor between that others or the application read; a name
/// that is taken. Leaves for later: ExpandExpandOpToEltwise replaces the Expand.
class MatchSquashTileUnsqueezeToExpand : public MatchAndRewriteRule {
 public:
  MatchSquashTileUnsqueezeToExpand();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;
  static bool isBroadcastSequence(const std::shared_ptr<ops::IrOp>& innerOp,
                                  const std::shared_ptr<ops::IrOp>& outerOp);

 private:
  PatternPtr expandDims;
  PatternPtr tile;
  PatternPtr reshape;
  PatternPtr tileOfReshape;
  PatternPtr tileOfExpandDims;
  PatternPtr reshapeOfTile;
  PatternPtr expandDimsOfTile;
};

}  // namespace netforge::graphrefiner
