#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Removes a Pad that adds nothing.
///
///   before   x -> Pad(all amounts 0) -> y
///   after    x ------------------------> y
///
/// An x that no op writes (a graph input, a constant) stays under its name; else y stays.
/// Refuses: an x that others read too, and a y that the application reads.
class MatchPadSequence : public MatchAndRewriteRule {
 public:
  MatchPadSequence();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;
};

}  // namespace netforge::graphrefiner
