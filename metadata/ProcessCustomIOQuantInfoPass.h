#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include "GraphRefiner/src/Pass.h"
#include "ir/IrTypes.h"

namespace netforge::graphrefiner {

/// One fixed-point type that the application may use for its buffers, with its range of integers.
struct DTypeQuantInfo {
  DataType dataType;
  std::uint32_t bitWidth;
  bool isSigned;
  double minimum;
  double maximum;
};

/// Gives the application's buffers the fixed-point form that the graph's custom IO entries ask for, while the
/// inside of the model stays as it is.
///
///   before   x -> model -> y
///   after    x (uint8) -> Dequantize x_dequant -> x_custom_dequant -> model -> y_custom_convert
///              -> Convert y_custom_convert -> y (uint8)
///
/// An integer input that is not quantizable gets a Cast back to its type in front of the model, behind a
/// Reshape where one stands right behind the Dequantize. Ops of the model that read an output go on reading
/// the tensor in front of its Convert. An entry that says "optional" makes the tensor one of the optional
/// kinds; a tensor that is neither input nor output is left alone unless it says so.
///
/// Real value = scale * (integer + offset), with scale and offset of the entry.
/// Leaves for later: the Dequantize ops stand at the head of the order, in the order of the entries.
class ProcessCustomIOQuantInfoPass : public Pass {
 public:
  /// Always false, also when the graph has changed. Throws std::runtime_error for an entry whose tensor is
  /// not in the graph, for an optional one that the application neither writes nor reads, and for an unknown
  /// type; the entries in front stay applied.
  bool run(std::shared_ptr<IrGraph>& graph) override;
  /// The row of "uint8", "int8", "uint16" or "int16"; throws std::runtime_error for another name.
  static DTypeQuantInfo getDTypeQuantInfo(const std::string& name);
  /// Puts a Dequantize behind a graph input and at position `insertIndex` of the order, which then rises by
  /// one. A tensor that nobody reads stays as it is.
  void populateInputQuantInfo(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<IrTensor>& tensor,
                              std::uint32_t& insertIndex, const QuantInfo& quantInfo);
  /// Puts a Convert behind a graph output; its result takes over name, kind and place of the output.
  void populateOutputQuantInfo(const std::shared_ptr<IrGraph>& graph, const std::shared_ptr<IrTensor>& tensor,
                               DataType dataType, const QuantInfo& quantInfo);
};

}  // namespace netforge::graphrefiner
