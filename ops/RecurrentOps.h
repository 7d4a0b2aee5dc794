#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "ir/IrOp.h"

namespace netforge::ops {

/// LSTM layer. Input 0 is x: rank 2 for one time step ([batch, features]), rank 3 for several ([batch, time,
/// features], or [time, batch, features] with "time_major"). Here input 1 counts for its dim 0, the cell
/// size C, and input 4 for its dim 1, the output size H. Outputs: the hidden states, the cell state
/// [batch, C], the final hidden state [batch, H].
///
/// Where the rank of x matters, one other than 2 and 3 throws std::runtime_error. Inputs with dynamic axes
/// are refused with std::invalid_argument.
class LstmOp : public IrOp {
 public:
  LstmOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  LstmOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& inputs,
         const TensorList& outputs);
  /// ((features + H) * 4 + 3) * H per step. Dim 1 of x counts as the steps whatever "time_major" says.
  std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder) override;
  /// (features + 1 + H) * cell size * 4; wraps at 2^32.
  std::uint32_t paramsCount(const std::shared_ptr<AxisOrder>& axisOrder) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  std::vector<DataType> inferOutputDataTypes(std::uint32_t numOutputs) override;
  std::vector<DataType> inferOutputSrcDataTypes(std::uint32_t numOutputs) override;
  /// Gives x its time-series layout and every other input NONTRIVIAL. The formats that the op recorded when
  /// the inputs were attached stay.
  void overrideDataAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder) override;
};

/// GRU layer. Input 0 is x, of rank 3: [batch, time, features], or [time, batch, features] with "time_major".
/// Outputs: the hidden states, with "hidden_size" in place of the features, and the final hidden state
/// [1, batch, hidden size].
///
/// An x of another rank throws std::runtime_error. Inputs with dynamic axes are refused with
/// std::invalid_argument.
class GruOp : public IrOp {
 public:
  GruOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  GruOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& inputs,
        const TensorList& outputs);
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  std::vector<DataType> inferOutputDataTypes(std::uint32_t numOutputs) override;
  std::vector<DataType> inferOutputSrcDataTypes(std::uint32_t numOutputs) override;
  /// As in LstmOp; a time-major x is TNF under either axis order.
  void overrideDataAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder) override;
};

}  // namespace netforge::ops
