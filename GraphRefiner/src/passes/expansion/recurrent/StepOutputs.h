#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "GraphRefiner/src/passes/expansion/recurrent/ReplacementOps.h"

namespace netforge::graphrefiner {

/// What the step ops of an unrolled recurrent op write in the place of one of its outputs: `<output><t>` for
/// each step, with types, quantisation and flags of the output.
class StepOutputs {
 public:
  using TensorPtr = std::shared_ptr<IrTensor>;

  /// An output that the op doesn't have is called `standInName` and has the properties of `standInModel`,
  /// the initial state.
  StepOutputs(const std::shared_ptr<ops::IrOp>& op, std::uint32_t outputIndex, const std::string& standInName,
              const TensorPtr& standInModel, std::uint32_t steps);

  const std::string& base() const;
  const std::vector<std::string>& names() const;
  std::uint32_t width() const;  ///< the last dim
  /// The tensor type of step t: a name with a ":" comes from a source model whose steps the application
  /// addresses too, so that they are graph outputs like the whole. Not so the one that takes the place of the
  /// output, which becomes a graph output with that.
  TensorType typeOf(std::uint32_t t, bool lastTakesOver) const;
  /// Makes the tensors of all steps; `lastTakesOver` as above.
  void addTensors(ReplacementOps& ops, const std::vector<std::uint32_t>& dims, bool lastTakesOver) const;

 private:
  TensorPtr model;
  std::string baseName;
  std::vector<std::string> stepNames;
};

}  // namespace netforge::graphrefiner
