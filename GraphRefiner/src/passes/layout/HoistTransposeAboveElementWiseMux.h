#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Moves a Transpose behind a mux in front of its inputs.
///
///   before   mux(a, b, ...) -> Transpose(p) -> y
///   after    mux(Transpose(p)(a), Transpose(p)(b), ...) -> y
///
/// The Transposes are called "<input>_transpose_for_mux", and muxes that read one tensor share one. Inputs of
/// one element stay, as they broadcast in any layout.
/// An input whose dims p doesn't change stays too, although p may move its elements: of [1,8,8,1] under
/// 0,2,1,3 the mux sees the old layout.
/// Refuses: a mux output that the application or someone else reads, an input of another rank or quantised
/// along an axis, and names that are taken.
class HoistTransposeAboveElementWiseMuxPass : public MatchAndRewriteRule {
 public:
  HoistTransposeAboveElementWiseMuxPass();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr muxPattern;
  PatternPtr rootPattern;
};

}  // namespace netforge::graphrefiner
