#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Removes a Transpose and a Reshape, in either order, that bring a vector back to its own dims.
///
///   before   x[1,5,1] -> Transpose(1,0,2) -> m[5,1,1] -> Reshape -> y[1,5,1]
///   after    x[1,5,1] ---------------------------------------------> y[1,5,1]
///
/// With a single axis longer than 1 neither op moves an element.
/// Refuses: dims at the two ends that differ or have a second long axis, dynamic axes, an m that someone else
/// or the application reads, and ends that can't become one tensor (an input wired to an output).
class MatchTransposeReshapeSequence : public MatchAndRewriteRule {
 public:
  MatchTransposeReshapeSequence();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr transposeFirstPattern;
  PatternPtr reshapeSecondPattern;
  PatternPtr reshapeFirstPattern;
  PatternPtr transposeSecondPattern;
  PatternPtr rootPattern;
};

}  // namespace netforge::graphrefiner
