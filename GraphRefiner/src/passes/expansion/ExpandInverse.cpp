#include "GraphRefiner/src/passes/expansion/ExpandInverse.h"

#include <iostream>
#include <numeric>
#include "GraphRefiner/src/OperationCodes.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "GraphRefiner/src/passes/expansion/OpExpansion.h"

namespace netforge::graphrefiner {

namespace {

bool hasDynamicMatrices(const IrTensorShape& shape) {
  return shape.isDynamicDim(shape.rank() - 1) || shape.isDynamicDim(shape.rank() - 2);
}

// The dims with ones on the last `count` axes.
IrTensorShape withLastAxesReduced(IrTensorShape shape, std::uint32_t count) {
  for (std::uint32_t i = 1; i <= count; ++i) shape.dims[shape.rank() - i] = 1;
  return shape;
}

}  // namespace

ExpandInverseRule::ExpandInverseRule() {
  inversePattern = makeOpType("Inverse");
  pattern = inversePattern;
}

bool ExpandInverseRule::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const auto op = matchedOps.at(inversePattern);
  if (op->numInputs() == 0 || op->numOutputs() == 0) return false;
  const std::string& name = op->getName();
  const auto input = op->getInput(0);
  const auto output = op->getOutput(0);
  const IrTensorShape shape = input->getShape();
  const std::uint32_t rank = shape.rank();
  const std::uint32_t rows = rank >= 2 ? shape.dims[rank - 2] : 0;
  const std::uint32_t columns = rank >= 1 ? shape.dims[rank - 1] : 0;
  if (rows != 2 || columns != 2) {
    std::cout << "netforge::graphrefiner::ExpandInverseRule::rewriteCallback: ExpandInverse: skipping op '"
              << name << "' \u2013 input last two dims are not 2x2 (got " << rows << "x" << columns << ")\n\n"
              << std::flush;
    return false;
  }
  if (hasDynamicMatrices(shape)) return false;
  std::vector<std::string> names;
  for (const char* suffix :
       {"_flipped_identity", "_adj_matmul_1", "_adj_transpose", "_adj_matmul_2", "_sign_change_matrix",
        "_adj_sign_change", "_inv_matmul", "_inv_reduce_sum", "_inv_reduce_mean", "_inv_div"}) {
    names.push_back(name + suffix);
  }
  if (!OpExpansion::areFree(graph, names)) return false;

  // ---- edits ----
  using TensorPtr = OpExpansion::TensorPtr;
  OpExpansion expansion(graph, op);
  const auto add = [&](const char* type, const char* suffix, const OpParams& params,
                       const std::vector<TensorPtr>& inputs, const IrTensorShape& resultShape) {
    return expansion.addOp(type, name + suffix, params, inputs,
                           OpExpansion::plainTensorLike(name + suffix, resultShape, *output));
  };
  const auto matMul = [&](const char* suffix, const TensorPtr& a, const TensorPtr& b) {
    return add("MatMul", suffix, {{"transpose_in0", false}, {"transpose_in1", false}}, {a, b}, shape);
  };
  Permutation perm(rank);
  std::iota(perm.begin(), perm.end(), 0u);
  std::swap(perm[rank - 2], perm[rank - 1]);

  const auto flip = expansion.addConstant(name + "_flipped_identity", {2, 2}, {0, 1, 1, 0});
  const auto flipped = matMul("_adj_matmul_1", input, flip);
  const auto transposed = add("Transpose", "_adj_transpose", {{"perm", perm}}, {flipped}, shape);
  const auto swapped = matMul("_adj_matmul_2", transposed, flip);
  const auto signs = expansion.addConstant(name + "_sign_change_matrix", {2, 2}, {1, -1, -1, 1});
  const auto adjugate =
      add("Eltwise_Binary", "_adj_sign_change", {{"operation", kMultiply}}, {swapped, signs}, shape);
  const auto diagonal = matMul("_inv_matmul", input, adjugate);
  const auto reduce = [&](const char* type, const char* suffix, std::uint32_t axis, const TensorPtr& from,
                          std::uint32_t reducedAxes) {
    return add("Reduce", suffix,
               {{"reduce_type", type}, {"keep_dims", true}, {"axes", std::vector<std::uint32_t>{axis}}},
               {from}, withLastAxesReduced(shape, reducedAxes));
  };
  const auto rowSums = reduce("ReduceSum", "_inv_reduce_sum", rank - 1, diagonal, 1);
  const auto determinant = reduce("ReduceMean", "_inv_reduce_mean", rank - 2, rowSums, 2);
  const auto result = OpExpansion::tensorLike(name + "_inv_div", output->getShape(), *output);
  expansion.addOp("Eltwise_Binary", name + "_inv_div", {{"operation", kDivide}}, {adjugate, determinant},
                  result);
  expansion.replaceOutput(result);
  return true;
}

std::shared_ptr<Pass> buildExpandInverse() {
  return makeSequencePass<ExpandInverseRule>();
}
[[maybe_unused]] static const bool registeredExpandInverse = PassManager::registerPass(PassId::ExpandInverse);

}  // namespace netforge::graphrefiner
