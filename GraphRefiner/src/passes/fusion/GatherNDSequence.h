#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Replaces the gather of rows and columns by a flat index with a GatherNd of two coordinates.
///
///   before   x -> Transpose -> d -> Reshape [H*W,...] -> flat;  row * width + column -> index [h,w]
///            (flat, index) -> Gather -> Reshape -> Transpose(1,2,0) -> Reshape -> y [N,C,h,w]
///   after    (row, column) -> Pack(axis 2);  (d [H,W,N,C], pack) -> GatherNd -> Transpose(2,3,0,1) -> y
///
/// Tests the ranks, not that the width is that of d nor the dims of the Reshapes in between: no pipeline
/// runs this pass. Where d is not of rank 4 the result has another rank than y; the callback then gives
/// false, with the Pack and the GatherNd in place.
/// Refuses: indices that broadcast against each other; a gather from the index into the data; dynamic axes;
/// an interior tensor that others or the application read; names that are taken.
class MatchGatherNDSequence : public MatchAndRewriteRule {
 public:
  MatchGatherNDSequence();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr dataReshapePattern;
  PatternPtr rowScalePattern;
  PatternPtr flatIndexPattern;
  PatternPtr gatherPattern;
  PatternPtr gatherReshapePattern;
  PatternPtr gatherTransposePattern;
  PatternPtr reshapeOutPattern;
};

}  // namespace netforge::graphrefiner
