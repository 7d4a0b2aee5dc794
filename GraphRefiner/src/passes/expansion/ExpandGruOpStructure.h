#pragma once

#include <memory>
#include <string>
#include <vector>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Takes a Gru of one time step apart.
///
///   before   x, weights, h0 -> Gru -> y, h
///   after    z = f(x*Wz + h0*Rz + bz)      r = f(x*Wr + h0*Rr + br)
///            n = g(x*Wh + bWh + (r.h0)*Rh + bRh), or with "linear_before_reset"
///            n = g(x*Wh + bWh + r.(h0*Rh + bRh))
///            (1 - z).n + z.h0 -> Reshape -> y, -> Reshape -> h
///
/// f is "gate_activation" and g "rec_gate_activation": Sigmoid, Tanh or Relu; any other counts as Sigmoid and
/// Tanh. Each gate keeps its own MatMuls. Ops are called `<op>_<what they compute>`.
/// Refuses: more than one time step, which UnrollGruTimeSteps deals with first; fewer than 14 inputs; dynamic
/// axes; a generated name that is taken.
class ExpandGruOpStructureRule : public MatchAndRewriteRule {
 public:
  ExpandGruOpStructureRule();
  /// Throws std::runtime_error for an op with neither one nor two outputs.
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

  /// Gives each new tensor the name of the tensor whose place it takes, and its place among the graph outputs
  /// when it has one there. With `onlyGraphOutputs` the other pairs are left alone. Throws std::runtime_error
  /// when a new tensor doesn't exist or a source name is still in use.
  static void alignToSourceOutputNames(const std::shared_ptr<IrGraph>& graph,
                                       const std::vector<std::string>& newNames,
                                       const std::vector<std::string>& sourceNames, bool onlyGraphOutputs);

 private:
  PatternPtr rootPattern;
};

}  // namespace netforge::graphrefiner
