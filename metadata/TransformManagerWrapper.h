#pragma once

#include <memory>
#include <string>
#include "GraphRefiner/src/Pass.h"

namespace netforge::graphrefiner {

/// Ties the transform metadata file of a model to the layouts that its tensors ended up with.
///
///   file before   ... -> y                       the graph's y is a permuted form of what the file says
///   file after    ... -> y_pre_transposed -> Transpose -> y
///
/// For each output of the file's transform graph whose tensor carries a permute order that is not its own
/// inverse. The graph stays as it is; the file is rewritten in place, with its transforms in dependency
/// order. A Transpose that an earlier run recorded is not recorded again. Without a metadata path nothing
/// happens.
class TransformManagerWrapper : public Pass {
 public:
  /// Always false: the graph doesn't change.
  bool run(std::shared_ptr<IrGraph>& graph) override;
  /// Throws std::invalid_argument unless the file holds exactly one transform graph, std::out_of_range for a
  /// permute order that doesn't fit its tensor, and std::runtime_error as reading and writing the file do.
  /// The file is as it was then.
  void recordLoraTensorTransforms(const std::string& path, const std::shared_ptr<IrGraph>& graph);
};

}  // namespace netforge::graphrefiner
