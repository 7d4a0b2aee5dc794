#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner {

/// Puts elementary ops in the place of one op.
///
/// New ops enter the graph in the order of the calls, from a position on. Each op and tensor is recorded as
/// derived from the op that goes and from the tensor that was named last, at first its output 0.
class OpExpansion {
 public:
  using OpPtr = std::shared_ptr<ops::IrOp>;
  using TensorPtr = std::shared_ptr<IrTensor>;

  /// Whether neither tensors nor ops bear the names: what a rule asks before it begins.
  static bool areFree(const std::shared_ptr<IrGraph>& graph, const std::vector<std::string>& names);

  /// `op` has an output. New ops go in front of it; `behind` of 1 puts them behind it instead.
  OpExpansion(const std::shared_ptr<IrGraph>& graph, const OpPtr& op, std::uint32_t behind = 0);

  void traceFrom(const TensorPtr& tensor);

  /// A tensor for a new op to write: all properties of `model` but the role, which is native, and the
  /// sparsity; not yet in the graph. Change what is to differ before `addOp`.
  static TensorPtr tensorLike(const std::string& name, const IrTensorShape& shape, const IrTensor& model);
  /// The same, with nothing known of its range.
  static TensorPtr plainTensorLike(const std::string& name, const IrTensorShape& shape,
                                   const IrTensor& model);

  /// A constant of 32-bit floats, added to the graph.
  TensorPtr addConstant(const std::string& name, const std::vector<std::uint32_t>& dims,
                        const std::vector<float>& values);
  /// Adds the op, and the output unless the graph holds it. Returns the output.
  TensorPtr addOp(const OpPtr& newOp, const std::vector<TensorPtr>& inputs, const TensorPtr& output);
  TensorPtr addOp(const std::string& type, const std::string& name, const OpParams& params,
                  const std::vector<TensorPtr>& inputs, const TensorPtr& output);

  /// Lets the result stand for output 0 and removes the op. The result takes over the readers, the place
  /// among the graph outputs and the name.
  void replaceOutput(const TensorPtr& result);
  /// The same, but only a graph output hands its name over.
  void replaceOutputKeepingName(const TensorPtr& result);
  /// Removes the op when a new op writes output 0.
  void removeOp();

 private:
  std::shared_ptr<IrGraph> graph;
  OpPtr op;
  TensorPtr output;
  std::int32_t position;
  std::vector<TraceSource> sources;
};

}  // namespace netforge::graphrefiner
