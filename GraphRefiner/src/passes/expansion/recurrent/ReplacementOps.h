#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>
#include "GraphRefiner/src/passes/expansion/recurrent/TimeSequence.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner {

/// The ops that take the place of a recurrent op. They stand in front of it in the order in which they are
/// added and carry its trace records; `retire` removes the op itself. The helpers return the name of the
/// output, which is that of the op unless told otherwise.
class ReplacementOps {
 public:
  using OpPtr = std::shared_ptr<ops::IrOp>;
  using TensorPtr = std::shared_ptr<IrTensor>;
  using Names = std::vector<std::string>;
  using Dims = std::vector<std::uint32_t>;

  ReplacementOps(const std::shared_ptr<IrGraph>& graph, const OpPtr& replaced);
  /// From here on outputs that `add` makes are updateable, or not.
  void setUpdateable(bool updateable);

  /// Outputs that the graph doesn't have yet are made, with inferred shapes.
  void add(const std::string& type, const std::string& name, const Names& inputs, const OpParams& params,
           const Names& outputs, AxisFormat format);
  std::string matMul(const std::string& name, const std::string& data, const std::string& weight);
  std::string binary(const std::string& name, std::uint32_t operation, const std::string& left,
                     const std::string& right);
  std::string neuron(const std::string& name, std::uint32_t operation, const std::string& input);
  std::string reshape(const std::string& name, const std::string& input, const Dims& dims, AxisFormat format);
  /// `<input>_reshape`: the one that is there, moved in front when it stands too late, or a new one. Its
  /// output is made like the input with `copyProperties`, else with inferred types and this format.
  std::string sharedReshape(const std::string& input, const Dims& dims, AxisFormat format,
                            bool copyProperties);
  /// Whether `sharedReshape` would go through: the name is free, or stands for just this Reshape.
  bool canShareReshape(const std::string& input, const Dims& dims) const;

  /// The steps of x in the order of time, `<base>0`, `<base>1`, ..., from a Split `<base>_split`; x itself
  /// for one step. With `copyProperties` they are made like x.
  Names splitOverTime(const std::string& base, const TimeSequence& sequence, bool copyProperties);
  /// A Concat of the steps, given in the order in which they are computed. Makes the output unless it exists.
  std::string concatOverTime(const std::string& opName, const std::string& outputName,
                             const TimeSequence& sequence, const Names& steps, AxisFormat format);

  /// A tensor of other dims that an op will write: types, quantisation, layouts and flags of the model.
  TensorPtr addTensorLike(const TensorPtr& model, const std::string& name, const Dims& dims,
                          TensorType type = TensorType::Native);
  /// Lets `newName` stand for an output of the op: for its readers, and for the application, which finds it
  /// under the old name. Nothing happens when there is no such tensor.
  void takeOver(const TensorPtr& oldOutput, const std::string& newName);
  /// Removes the op, its outputs and whatever computed inputs that only the op read.
  void retire();

 private:
  std::shared_ptr<IrGraph> graph;
  OpPtr replaced;
  std::uint32_t index;
  std::vector<TraceSource> sources;
  std::optional<bool> updateable;
};

}  // namespace netforge::graphrefiner
