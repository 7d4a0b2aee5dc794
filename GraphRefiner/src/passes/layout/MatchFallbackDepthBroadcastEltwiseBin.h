#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Runs a product of rank-3 tensors that agree in the middle axis and differ in the last one with these two
/// axes exchanged.
///
///   before   Product(inner product, Transpose(z)) -> out -> Reshape
///   after    Product(Transpose(0,2,1), Transpose(0,2,1)) -> out -> Transpose(0,2,1) "<out>_021" -> Reshape
///
/// Operands share a Transpose of that order which they feed already.
/// Refuses: an out that anything but a Reshape reads, products that are graph outputs, names that are taken.
class MatchFallbackDepthBroadcastEltwiseBin : public MatchAndRewriteRule {
 public:
  MatchFallbackDepthBroadcastEltwiseBin();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr outerPattern;
  PatternPtr innerPattern;
  PatternPtr rootPattern;
};

}  // namespace netforge::graphrefiner
