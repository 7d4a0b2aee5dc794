#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Lets ops with inputs of rank 6 and more work at rank 5 or lower, where the target's ops work.
///
///   before   x[2,3,4,5,6,7] -> Softmax(axis 2) -> y[2,3,4,5,6,7]
///   after    x -> Reshape[6,4,210] -> Softmax(axis 1) -> Reshape[2,3,4,5,6,7] -> y
///
/// Neighbouring axes that an op treats alike become one axis. What an op of each type treats alike is its
/// handler's knowledge; the Reshapes around it come from RankReduction.h. Where nothing of rank 5 exists the
/// handler throws std::runtime_error with the op's name, before it edits the op; ops of other types, and ops
/// with dynamic axes, stay as they are.
///
/// Leaves for later: Reshape pairs between neighbours and Reshapes of constants, which the follow-up of the
/// pass manager folds. Some handlers leave an op of high rank for the next run of the pass.
class Replace6dOpPass : public OpTransformPass<Replace6dOpPass> {
 public:
  Replace6dOpPass();

  // Each gets an op of its type and returns whether it changed the graph.

  /// One axis of all elements.
  bool handleElementWiseUnaryOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
  /// Neighbouring axes that broadcast alike merge.
  bool handleElementWiseBinaryOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
  /// Reduced axes stay, what lies between them merges.
  bool handleReduceOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
  bool handleConcatOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
  /// Also where the result alone has a high rank.
  bool handleGatherOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
  /// Gives each reader of a Reshape to a high rank a Reshape of its own, which its handler can undo.
  bool handleReshapeOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
  /// Changes nothing: only refuses what the target can't do.
  bool handleScatterNDOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
  bool handleSoftmaxOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
  /// Axes that are not repeated merge into the one in front.
  bool handleTileOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
  /// The three strategies below in turn.
  bool handleTransposeOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
  /// The leading axes merge.
  bool handleCastOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
  /// Refuses data and indices that differ on another axis than the one that is gathered along.
  bool handleGatherElementsOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
  /// The last five axes stay; the leading ones must be free of padding, and merge.
  bool handlePadOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
  /// The leading axes must not be sliced: those of size 1 go, others are split into an op per index.
  bool handleStridedSliceOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);
  /// Only the clipping activation; all others stay at their rank.
  bool handleElementWiseNeuronOp(std::shared_ptr<ops::IrOp>& op, std::shared_ptr<IrGraph>& graph);

  // Strategies for a Transpose. Each returns whether it did the job.

  /// Axes that stay neighbours in the same order become one.
  bool mergeAdjacentTransposeAxes(const std::shared_ptr<ops::IrOp>& op,
                                  const std::shared_ptr<IrGraph>& graph);
  /// Axes of size 1 go; a Transpose of a single element goes altogether.
  bool dropUnitTransposeAxes(const std::shared_ptr<ops::IrOp>& op, const std::shared_ptr<IrGraph>& graph);
  /// Makes two Transposes of rank 6 of one, in each of which some axes merge.
  bool splitTranspose(const std::shared_ptr<ops::IrOp>& op, const std::shared_ptr<IrGraph>& graph);

  /// Replaces each slice by one for each index of its first axis, between a Split and a Concat. `restRanges`
  /// holds the rows of the other axes. Returns the new slices.
  std::vector<std::shared_ptr<ops::IrOp>> splitAlongBatch(const std::shared_ptr<IrGraph>& graph,
                                                          const std::vector<std::shared_ptr<ops::IrOp>>& ops,
                                                          const std::vector<std::int32_t>& restRanges);

  /// Enters an op between tensors of the graph without asking it for shapes. Throws std::runtime_error for a
  /// name that is no tensor.
  static void addOpNoCanonical(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<ops::IrOp>& op,
                               const std::vector<std::string>& inputNames,
                               const std::vector<std::string>& outputNames, std::uint32_t index);
};

}  // namespace netforge::graphrefiner
