#pragma once

#include <cstdint>
#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Unrolls a Gru of T time steps into T Gru ops of one step each, which ExpandGruOpStructure can take apart.
///
///   before   x -> Gru -> y, h
///   after    x -> Split -> x<t> -> Gru <op>_<t> -> y<t> -> Concat -> y
///                                  <- h<t-1>
///
/// The steps keep rank 3. A backward Gru reads the pieces from the last one on, and the Concat puts its
/// results in the order of time. An x of one step needs no Split and no Concat. A Gru with one output gets
/// `<op>_hidden_output_dummy<t>` for the states between the steps.
/// Refuses: fewer than 14 inputs; an x of rank 2; no time step; dynamic axes; a generated name that is taken.
class UnrollGruTimeSteps : public MatchAndRewriteRule {
 public:
  UnrollGruTimeSteps();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

 private:
  PatternPtr rootPattern;
  // Positions among the op's inputs and outputs.
  std::uint32_t inputIndex = 0;
  std::uint32_t hiddenOutputIndex = 1;
  std::uint32_t lastWeightInputIndex = 12;  // the first is 1
  std::uint32_t initialHiddenInputIndex = 13;
};

}  // namespace netforge::graphrefiner
