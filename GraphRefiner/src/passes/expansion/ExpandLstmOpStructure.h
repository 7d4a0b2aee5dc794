#pragma once

#include <memory>
#include <string>
#include <vector>
#include "GraphRefiner/src/Rules.h"
#include "GraphRefiner/src/passes/expansion/recurrent/ReplacementOps.h"

namespace netforge {
class IrStaticTensor;
}

namespace netforge::graphrefiner {

/// Takes an Lstm of any number of time steps apart.
///
///   before   x, weights, h, c -> Lstm -> y, cT, hT
///   after    x -> Split -> per step t, all gates at once on concatenated weights W, R and B:
///              i|f|o|g = x<t>*W + h*R + B       sigmoid of i, f, o; tanh of g
///              c = i.g + f.c                    h = o.tanh(c) -> Reshape
///            -> Concat -> y                     the last c and h stand for cT and hT
///
/// Ops are called `<op>_step_<t>_<what they compute>`, without "_multi_time_step" at the end of the op's
/// name. Ops that share weights, initial states or x share what is made of them, which is found again by
/// name. Clipping, projection, peepholes and a reset of the state are not expanded: those inputs and
/// attributes go. Refuses: other than 15 to 25 inputs; a missing input; weights that aren't constant or don't
/// go together; states of different dims; no time step; dynamic axes; a generated name that stands for
/// something else.
class ExpandLstmOpStructurePass : public MatchAndRewriteRule {
 public:
  ExpandLstmOpStructurePass();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

  /// The constants joined along axis 0, under that name in the graph: the one that is there when it holds
  /// just this, else a new one. Null, after a line on standard output, when they don't go together.
  static std::shared_ptr<IrStaticTensor> concatenateStaticTensors(
      const std::shared_ptr<IrGraph>& graph, const std::vector<std::shared_ptr<IrTensor>>& tensors,
      const std::string& outputName);
  /// Keeps "_forward" or "_backward" at the end of the name.
  static std::string insertBeforeDirectionSuffix(const std::string& tensorName, const std::string& suffix);

 private:
  PatternPtr rootPattern;
};

}  // namespace netforge::graphrefiner
