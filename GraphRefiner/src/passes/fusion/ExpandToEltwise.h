#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "GraphRefiner/src/Rules.h"
#include "ir/IrTypes.h"

namespace netforge::graphrefiner {

/// Replaces an Expand by ops that the target has.
///
///   before   x -> Expand -> y
///   after    x -> Reshape -> y                                      where the dims are equal
///            (x, ones) -> Eltwise_Binary(operation 13) -> y         product; operation 1, "and", of bools
///
/// The ones stand in a new constant "<expand>_coef" of the type of x, long only on the axes that grow.
/// Refuses: types without an exact 1 of whole bytes (fixed point, strings, below 8 bits and 8-bit float),
/// dynamic axes, an Expand with a second input, names that are taken.
class MatchExpandExpandOpToEltwise : public MatchAndRewriteRule {
 public:
  MatchExpandExpandOpToEltwise();
  bool rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) override;
  /// Of the rank of the output: 1 where the input, with ones in front, has the output's dim, else that dim.
  static std::vector<std::uint32_t> coefficientDims(const std::vector<std::uint32_t>& inputDims,
                                                    const std::vector<std::uint32_t>& outputDims);
  /// Adds a constant of ones, true for bools. `dataType` must be one that the rule takes.
  static void addCoefficientTensor(const std::shared_ptr<IrGraph>& graph, const std::string& name,
                                   const std::vector<std::uint32_t>& dims, DataType dataType,
                                   DataType srcDataType);
};

}  // namespace netforge::graphrefiner
