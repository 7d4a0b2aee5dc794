#pragma once

#include <cstdint>
#include <memory>
#include <vector>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Whether tensors of these dims can be joined along the axis in place: the length of each must be a multiple
/// of 32 on the last axis, of 8 on a middle one, and anything on axis 0. False for an empty list and for an
/// axis that isn't there.
bool isConcatAligned(std::uint32_t axis, const std::vector<std::vector<std::uint32_t>>& dims);

/// Moves a Concat that can't be done in place to the layout in front of the Transpose at one input, when it
/// can there.
///
///   before   Concat(axis; Transpose(p), Reshape) -> out -> Reshape -> Transpose
///   after    each input -> Transpose(inverse of p) "<input>_<digits>" -> Concat(axis') -> out
///              -> Transpose(p) "<out>_0_<digits>" -> Reshape -> Transpose
///
/// Every reader of out gets a Transpose of its own, numbered in the order of the readers' names. The inputs
/// may stand in either order and keep it.
/// Refuses: other than two inputs, a tensor of the pattern that the application reads, names that are taken.
/// Leaves for later: pairs of Transposes that undo each other.
class OptimizeNonInplaceConcatRule : public MatchAndRewriteRule {
 public:
  OptimizeNonInplaceConcatRule();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr transposePattern;
  PatternPtr reshapePattern;
  PatternPtr concatPattern;
  PatternPtr innerPattern;
  PatternPtr rootPattern;
};

}  // namespace netforge::graphrefiner
