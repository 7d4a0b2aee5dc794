#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Folds two Reshapes in a row into the first.
///
///   before   x -> Reshape -> m -> Reshape -> y
///   after    x -> Reshape -> y
///
/// The remaining Reshape keeps its attribute "shape": the dims of its output say what it does. Where both
/// take their shape as a tensor it takes over the last one's.
/// Refuses: an m that someone else or the application reads, and a shape tensor that is computed behind the
/// first Reshape.
/// Leaves for the next run: of a chain, the Reshape that the latest fold kept.
class foldMultipleReshapes : public MatchAndRewriteRule {
 public:
  foldMultipleReshapes();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr innerPattern;
  PatternPtr rootPattern;
};

}  // namespace netforge::graphrefiner
