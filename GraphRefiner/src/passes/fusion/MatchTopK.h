#pragma once

#include <cstdint>
#include <memory>
#include <vector>
#include "GraphRefiner/src/RewriteUtilities.h"
#include "GraphRefiner/src/Rules.h"

namespace netforge::graphrefiner {

/// Takes the maximum and its index out of one op.
///
///   before   x -> Reduce (ReduceMax, axis a) -> m               x -> Arg (Argmax, axis a) -> i
///   after    x -> Transpose -> TopK (k 1) -> Transpose -> m, i
///
/// The Transposes bring axis a to the end and back, and are left out for the last axis; a Reshape takes the
/// axis off behind an op without "keep_dims". The Transpose in front of a channel-first graph's channels is
/// the usual one to channel-last, which HoistTranspose knows.
///
/// Refuses: more than one axis; axes of unknown length; an encoding of the maximum that x doesn't have; a
/// taken name. Where a maximum occurs twice the index is that of TopK, the lower one.
class MatchTopKRule : public MatchAndRewriteRule {
 public:
  using OpPtr = std::shared_ptr<ops::IrOp>;

  MatchTopKRule();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

  /// The first Arg in execution order that takes the index of the maximum of the Reduce's input along this
  /// very axis, or null. An "axis" that isn't unsigned 32-bit is another one.
  OpPtr findArgmaxSibling(const IrGraph& graph, const OpPtr& reduceOp, std::uint32_t axis) const;
  /// Whether the maximum has no encoding of its own, or the one of the input. Reports what differs on
  /// standard output.
  bool hasMatchingIOEncodings(const OpPtr& reduceOp, const OpPtr& argOp) const;
  /// The dims without that axis. Throws std::runtime_error for an axis that is not below the rank.
  static std::vector<std::uint32_t> dropDim(const std::vector<std::uint32_t>& dims, std::uint32_t axis);

 private:
  Permutation axisToLast(const IrGraph& graph, std::uint32_t rank, std::uint32_t axis);

  bool axisOrderKnown = false;  // until the first rewrite that needs to know
  bool isSpatialLast = false;
};

}  // namespace netforge::graphrefiner
