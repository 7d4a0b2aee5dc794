#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Folds two Transposes in a row into the first, or into nothing when they undo each other.
///
///   before   x -> Transpose(p) -> m -> Transpose(q) -> y
///   after    x -> Transpose(r) -> y          r[i] = p[q[i]]
///            x ------------------> y         when r is the identity
///
/// Encodings of the squashed tensors move along.
/// Refuses: an m that someone else or the application reads. Where x and y can't become one tensor (an input
/// wired to an output, an x that others read too), one identity Transpose stays.
/// Leaves for the next run: of a chain, the Transpose that the latest fold kept.
class squashMultipleTransposes : public MatchAndRewriteRule {
 public:
  squashMultipleTransposes();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr firstPattern;
  PatternPtr rootPattern;
};

}  // namespace netforge::graphrefiner
