#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Removes an op that hands its input on unchanged.
///
///   before   x -> op -> y -> ...          after    x -> ...
///
///   Eltwise_Binary  x AND true, x / 1, x * 1 and 1 * x, the constant filled with that value
///   Tile, Reshape   input and output of equal dims
///   Transpose       the identity order
///   Split           no split point
///   Gather          of all positions along an axis, in order
///   Reshape         in front of a FullyConnected that flattens anyway
///
/// Of the two tensors the one survives that `IrGraph::squash` keeps. Concat and select match and stay.
///
/// Refuses: constants of other than the expected width, or that can be updated after compilation; a product
/// whose operands differ in dims or whose result has two readers; a Reshape that gives an Lstm its initial
/// state; a Reshape that copies a constant to a graph output. An op that lies between two tensors which both
/// must stay is reported on standard output. A division by ones that broadcast its operand goes like any
/// other.
class removeIdentity : public MatchAndRewriteRule {
 public:
  removeIdentity();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

  // Each gets the matched op and returns whether it removed it.

  bool handleAndOp(const std::shared_ptr<ops::IrOp>& op, const std::shared_ptr<IrGraph>& graph);
  bool handleDivOp(const std::shared_ptr<ops::IrOp>& op, const std::shared_ptr<IrGraph>& graph);
  bool handleMulOp(const std::shared_ptr<ops::IrOp>& op, const std::shared_ptr<IrGraph>& graph);
  bool handleTileOp(const std::shared_ptr<ops::IrOp>& op, const std::shared_ptr<IrGraph>& graph);
  bool handleGatherOp(const std::shared_ptr<ops::IrOp>& op, const std::shared_ptr<IrGraph>& graph);
  bool handleTransposeOp(const std::shared_ptr<ops::IrOp>& op, const std::shared_ptr<IrGraph>& graph);
  bool handleReshapeOp(const std::shared_ptr<ops::IrOp>& op, const std::shared_ptr<IrGraph>& graph);
  bool handleSplitOp(const std::shared_ptr<ops::IrOp>& op, const std::shared_ptr<IrGraph>& graph);

 private:
  PatternPtr andPattern;
  PatternPtr divPattern;
  PatternPtr mulPattern;
  PatternPtr tilePattern;
  PatternPtr gatherPattern;
  PatternPtr transposePattern;
  PatternPtr reshapePattern;
  PatternPtr splitPattern;
  PatternPtr concatPattern;
  PatternPtr selectPattern;
  PatternPtr rootPattern;
};

}  // namespace netforge::graphrefiner
