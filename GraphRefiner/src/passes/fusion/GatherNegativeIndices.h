#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Makes the constant indices of a Gather count from the front, as the target needs it.
///
///   before   (x, [-1, 0]) -> Gather(axis) -> y      x has 5 elements on the axis
///   after    (x, [4, 0]) -> Gather(axis) -> y
///
/// A constant that others or the application read stays as it is; the Gather then gets a copy,
/// "<gather>_indices".
/// Refuses: indices that aren't 32-bit integers or that can be updated; a constant that is the data too; an
/// axis of unknown length; a copy whose name is taken.
class matchGatherNegativeIndices : public MatchAndRewriteRule {
 public:
  matchGatherNegativeIndices();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;
};

}  // namespace netforge::graphrefiner
