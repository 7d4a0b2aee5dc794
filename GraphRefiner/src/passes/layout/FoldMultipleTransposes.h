#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Pushes a Transpose into the Transposes that read it.
///
///   before   x -> Transpose(p) -> m -> Transpose(q) -> y
///                                 m -> Conv2d
///   after    x -> Transpose(r) -> y              r[i] = p[q[i]]
///            x -> Transpose(p) -> m -> Conv2d    only while somebody else reads m
///            x ----------------------> y         when r is the identity
///
/// The walk goes from the last op to the first, so one run folds a chain of any length.
/// Refuses: an m that the application reads. An identity stays as a Transpose where y is a graph output and x
/// can't become one: a graph input, a constant, a graph output already.
/// Leaves for later: a Transpose of a constant, which SquashConstantTranspose folds.
class foldMultipleTransposes : public MatchAndRewriteRule {
 public:
  foldMultipleTransposes();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr transposePattern;
};

}  // namespace netforge::graphrefiner
