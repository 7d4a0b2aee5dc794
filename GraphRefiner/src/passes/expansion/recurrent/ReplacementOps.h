#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include "GraphRefiner/src/passes/expansion/OpExpansion.h"
#include "GraphRefiner/src/passes/expansion/recurrent/TimeSequence.h"

namespace netforge::graphrefiner {

/// The ops that take the place of a recurrent op; they and their outputs are derived from the op alone. The
/// helpers go by names, infer shapes, and return the name of the output, which is that of the op unless told
/// otherwise.
class ReplacementOps : public OpExpansion {
 public:
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
  /// for one step. With `copyProperties` they are made like x. `params` are further ones of the Split.
  Names splitOverTime(const std::string& base, const TimeSequence& sequence, bool copyProperties,
                      OpParams params = {});
  /// A Concat of the steps, given in the order in which they are computed. Makes the output unless it exists.
  std::string concatOverTime(const std::string& opName, const std::string& outputName,
                             const TimeSequence& sequence, const Names& steps, AxisFormat format);

  /// A tensor of other dims that an op will write: types, quantisation, layouts and flags of the model.
  TensorPtr addTensorLike(const TensorPtr& model, const std::string& name, const Dims& dims,
                          TensorType type = TensorType::Native);
  /// Lets `standIn` be read in the place of an output of the op, whose sources it gets too.
  void moveReaders(const TensorPtr& oldOutput, const TensorPtr& standIn);
  /// The same, also for the application, which finds the new tensor under the old name.
  void takeOver(const TensorPtr& oldOutput, const std::string& newName);

 private:
  std::optional<bool> updateable;
};

}  // namespace netforge::graphrefiner
