#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include "GraphRefiner/src/Rules.h"
#include "ops/OpFactory.h"

namespace netforge {
class IrTensor;
}

namespace netforge::graphrefiner {

/// Lets elementwise ops on sparse tensors work on the specified values.
///
///   before   x -> ElementWiseNeuron n -> y                                              x sparse
///   after    x -> GetSparseValues "n_sparseValues" -> ElementWiseNeuron "n_postExpansion" -> v
///            x -> GetSparseIndices "n_sparseIndices" -> i
///            i, v -> CreateSparse "n_createSparse" -> y
///
///   before   a, b -> Eltwise_Binary add s -> y           the sum of a residual connection, see below
///   after    a -> GetSparseValues "s_a_sparseValues" -> va
///            b -> GetSparseValues "s_b_sparseValues" -> vb
///            b -> GetSparseIndices "s_b_sparseIndices" -> i
///            va, vb -> Eltwise_Binary add "s_postExpansion" -> v
///            i, v -> CreateSparse "s_createSparse" -> y
///
/// One operand of such a sum is a CreateSparse of an activation's values. The other comes from it by a
/// convolution, an activation of its values, and a second convolution. Both convolutions reuse the places of
/// their input, so the operands have their values at the same places in the same order. y bears a new name
/// unless it is a graph output. An activation counts unspecified elements as absent, whatever it makes of 0.
///
/// Refuses: dense operands, counts that differ (a sum says so on standard output); without a word operands of
/// other dims or of rank below 2, a sum whose operands don't come from one and the same CreateSparse, and a
/// name that is taken.
class MatchExpandSparseOpStructure : public MatchAndRewriteRule {
 public:
  MatchExpandSparseOpStructure();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;

  /// Whether two convolutions of one type are both told to reuse the places of their input.
  static bool convsShareSparseIndices(const std::shared_ptr<ops::IrOp>& conv1Op,
                                      const std::shared_ptr<ops::IrOp>& conv2Op);
  static bool handleAddOp(const std::shared_ptr<ops::IrOp>& addOp, const std::shared_ptr<IrGraph>& graph);
  static bool handleElementWiseNeuronOp(const std::shared_ptr<ops::IrOp>& neuronOp,
                                        const std::shared_ptr<IrGraph>& graph);
  /// A "GetSparseValues" of `k` elements and its output [k, last dim of input], a tensor of the graph that
  /// nothing is linked to yet.
  static std::shared_ptr<ops::IrOp> createGetSparseValuesOp(const std::shared_ptr<IrGraph>& graph,
                                                            const std::shared_ptr<IrTensor>& input,
                                                            const std::string& opName,
                                                            const std::string& outputName,
                                                            OpParams attributes, std::uint32_t k);

 private:
  bool isResidual(const std::shared_ptr<ops::IrOp>& addOp, const MatchedOps& matchedOps) const;

  PatternPtr neuronPattern;
  PatternPtr sparseIndices1;
  PatternPtr activation1;
  PatternPtr createSparse1;
  PatternPtr conv1;
  PatternPtr sparseValues;
  PatternPtr sparseIndices2;
  PatternPtr activation2;
  PatternPtr createSparse2;
  PatternPtr conv2;
  PatternPtr addPattern;
};

}  // namespace netforge::graphrefiner
