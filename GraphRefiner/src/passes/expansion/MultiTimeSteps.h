#pragma once

#include <memory>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Keep the pass names "MultiTimeStepsGRU" and "MultiTimeStepsLSTM" valid for configurations: recurrent ops
/// of many time steps are dealt with when ops are translated for the target. The patterns ask for a type that
/// no op has, and neither pass stands in a pipeline.
class CreateMultiTimeStepsGRU : public MatchAndRewriteRule {
 public:
  CreateMultiTimeStepsGRU();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;
};

class CreateMultiTimeStepsLSTM : public MatchAndRewriteRule {
 public:
  CreateMultiTimeStepsLSTM();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;
};

}  // namespace netforge::graphrefiner
