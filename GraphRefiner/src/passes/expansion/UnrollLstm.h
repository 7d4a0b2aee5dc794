#pragma once

#include <cstdint>
#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Unrolls an Lstm of T time steps into T Lstm ops of one step each, for targets that run a single step.
///
///   before   x -> Lstm -> y, c, h
///   after    x -> Split -> x<t> -> Reshape -> Lstm <op>_step_<t> -> y<t> -> Reshape -> Concat -> y
///                                             <- h<t-1>, c<t-1>
///
/// The step ops read rank-2 inputs and run forwards; a backward Lstm reads the pieces from the last one on,
/// and the Concat puts its results in the order of time. An x of one step needs no Split and no Concat.
/// Outputs that the Lstm doesn't have are made for the steps all the same, since the states go through them.
/// Refuses: an x of rank 2, which is one step already; no time step; dynamic axes; a generated name that is
/// taken.
class UnrollLstmTimeSteps : public MatchAndRewriteRule {
 public:
  UnrollLstmTimeSteps();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr rootPattern;
  // Positions among the op's inputs and outputs.
  std::uint32_t inputIndex = 0;
  std::uint32_t hiddenSequenceOutputIndex = 0;
  std::uint32_t cellOutputIndex = 1;
  std::uint32_t hiddenOutputIndex = 2;
  std::uint32_t initialHiddenInputIndex = 10;
  std::uint32_t initialCellInputIndex = 11;
};

}  // namespace netforge::graphrefiner
