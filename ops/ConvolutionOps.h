#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>
#include "ir/IrOp.h"
#include "ops/Padding.h"

/// Convolutions. Inputs: data, weight, optional bias [output channels]; one output. Data and weight stand in
/// the layout of the graph's axis order: data NHWC or NCHW (NDHWC or NCDHW in 3d), weight HWIO or OIHW (DHWIO
/// or OIDHW in 3d), for transpose convolutions HWIO or IOHW (DHWIO or IODHW).
///
/// Attributes, n being the number of spatial axes; all tensors hold unsigned 32-bit values:
///
///   "stride"                 n values, mandatory
///   "pad_amount"             [n,2], before and after per axis, mandatory
///   "dilation"               n values, default ones; TransposeConv2dOp has none
///   "group"                  unsigned 32-bit, default 1; DepthwiseConv2dOp has none
///   "padding_size_strategy"  unsigned 8-bit, PaddingSizeStrategy, default 5
///   "output_padding"         n values, default zeros; transpose convolutions only
///   "output_size"            n values, default zeros (no wish); transpose convolutions only
///   "bias_op_name"           string, default empty
///
/// Asking a convolution for its output shape writes back: an implicit padding strategy becomes explicit
/// numbers in "pad_amount" (and "output_padding"), so that the target runtime sees plain pads. What was
/// written stays written when a later step fails. A tensor attribute that is too short throws
/// std::out_of_range, an input or weight of the wrong rank std::invalid_argument.

namespace netforge::ops {

class ConvOp : public IrOp {
 public:
  using IrOp::IrOp;
  std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder) override = 0;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override = 0;
  /// Elements of the weight, plus those of the bias when there are three inputs; wraps at 2^32.
  std::uint32_t paramsCount(const std::shared_ptr<AxisOrder>& axisOrder) override;
  /// Gives data and weight the layouts that the axis order has for their ranks.
  void overrideDataAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder) override;

  /// The pads (before, after) that make `outputSize` out of `inputSize` along one axis. The given pads come
  /// back for a strategy other than the two implicit ones, and when no padding is needed.
  static std::pair<std::uint32_t, std::uint32_t> calcExplicitPaddingSize(
      std::uint32_t inputSize, std::uint32_t kernel, std::uint32_t outputSize, std::uint32_t stride,
      std::uint32_t dilation, std::uint8_t strategy, std::uint32_t padBefore, std::uint32_t padAfter);
};

class BaseConv2dOp : public ConvOp {
 public:
  using ConvOp::ConvOp;
  /// Output elements per image times the elements of one filter.
  std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder) override;
  /// Throws std::invalid_argument when an input has dynamic axes.
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
  /// Batch is dynamic as in the data, a spatial axis when that of the data or of the kernel is, channels when
  /// the weight's output channels are (and the bias, where there is one).
  std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                     std::uint32_t numOutputs) override;
};

class BaseConv3dOp : public ConvOp {
 public:
  using ConvOp::ConvOp;
  /// Product of the last three dims of the output times the elements of one filter.
  std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
};

class TransposeConvOp : public IrOp {
 public:
  using IrOp::IrOp;
  std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder) override = 0;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override = 0;
  /// Gives data and weight the layouts that the axis order has for their ranks.
  void overrideDataAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder) override;

  /// Pads before and after, and the output padding, that make `outputSize` out of `inputSize` along one axis.
  /// Mind that the sizes stand in another order than in ConvOp. The given values come back for a strategy
  /// other than the two implicit ones. When even no padding gives too small an output, the output padding
  /// makes up for it; std::invalid_argument when it would reach the stride.
  static std::array<std::uint32_t, 3> calcExplicitPaddingSize(std::uint32_t inputSize,
                                                              std::uint32_t outputSize, std::uint32_t kernel,
                                                              std::uint32_t stride, std::uint8_t strategy,
                                                              std::uint32_t padBefore, std::uint32_t padAfter,
                                                              std::uint32_t outputPadding,
                                                              std::uint32_t dilation);
};

/// Output size along one axis, unless "output_size" asks for another:
///
///   PaddingValid                      (in - 1) * stride + kernel
///   PaddingSameBegin, PaddingSameEnd  in * stride
///   any other                         (in - 1) * stride - padBefore - padAfter + kernel + output padding
///
/// Where the wish exceeds that size, "output_padding" becomes the difference. Inputs with dynamic axes are
/// refused with std::invalid_argument.
class BaseTransposeConv2dOp : public TransposeConvOp {
 public:
  using TransposeConvOp::TransposeConvOp;
  /// Output elements per image times the elements of one filter, over the groups.
  std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
};

/// As in 2d, with (kernel - 1) * dilation + 1 in place of the kernel.
class BaseTransposeConv3dOp : public TransposeConvOp {
 public:
  using TransposeConvOp::TransposeConvOp;
  std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder) override;
  std::vector<std::vector<std::uint32_t>> inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                            std::uint32_t numOutputs) override;
};

class Conv2dOp : public BaseConv2dOp {
 public:
  Conv2dOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  Conv2dOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& inputs,
           const TensorList& outputs);
};

/// One filter per input channel; weight [kernel height, kernel width, 1, channels] spatial first.
class DepthwiseConv2dOp : public BaseConv2dOp {
 public:
  DepthwiseConv2dOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  DepthwiseConv2dOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                    const TensorList& inputs, const TensorList& outputs);
};

class Conv3dOp : public BaseConv3dOp {
 public:
  Conv3dOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  Conv3dOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes, const TensorList& inputs,
           const TensorList& outputs);
};

class TransposeConv2dOp : public BaseTransposeConv2dOp {
 public:
  TransposeConv2dOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  TransposeConv2dOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                    const TensorList& inputs, const TensorList& outputs);
};

class TransposeConv3dOp : public BaseTransposeConv3dOp {
 public:
  TransposeConv3dOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes);
  TransposeConv3dOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes,
                    const TensorList& inputs, const TensorList& outputs);
};

}  // namespace netforge::ops
