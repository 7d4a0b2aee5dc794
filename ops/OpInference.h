#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "ir/IrOp.h"

/// What the inference of several op classes shares.

namespace netforge::ops {

/// The type of an output that follows an input of `type`: 64-bit integers become 32-bit ones.
DataType mapOutputDataType(DataType type);

bool hasDynamicInput(const IrOp& op);

/// For the dims form of ops that have no dynamic form: throws std::invalid_argument
/// "<function>: IrOp <name> of type <type> has dynamic inputs. Use inferOutputTensorShapes instead."
/// when an input has dynamic axes.
void refuseDynamicInputs(const IrOp& op, const char* function);

/// The dims form of an op that implements the shape form: the dims of the first shape, once. Throws
/// std::invalid_argument "<function>: <refusal>" when an input has dynamic axes, and std::runtime_error
/// "<function>: <emptyText>" when there is no shape.
std::vector<std::vector<std::uint32_t>> inferDimsThroughShapes(IrOp& op,
                                                               const std::shared_ptr<AxisOrder>& axisOrder,
                                                               std::uint32_t numOutputs, const char* function,
                                                               const std::string& refusal,
                                                               const std::string& emptyText);

/// The shape form of ops that keep the shape of input 0: that shape with its dynamic axes, once.
std::vector<IrTensorShape> inferFirstInputShape(const IrOp& op);

/// One entry: the mapped data type of input 0.
std::vector<DataType> inferFirstInputDataType(const IrOp& op);

/// Product of the last three dims of output 0, the cost of ops that do one step per output element. 1 for an
/// output of a lower rank.
std::uint64_t outputElements(const IrOp& op);

/// Gives input 0 the layout that the axis order has for its rank.
void setFirstInputDataFormat(IrOp& op, const AxisOrder& axisOrder);

/// Axis formats of two operands that broadcast: when the operand of the higher rank (either one at equal
/// ranks) is NONTRIVIAL, every input becomes NONTRIVIAL.
void spreadNontrivialFormat(IrOp& op);

/// A scalar attribute that stands for an axis, as a signed value. It may be stored signed, or unsigned as
/// some factories and an earlier canonicalisation leave it; the bits are taken as they are. Another type
/// throws as IrAttributes::getAttr does.
std::int32_t readAxis(const IrAttributes& attributes, const std::string& name);

/// The elements of a static tensor of 32-bit values, read as signed; loads external data first. Throws
/// std::out_of_range when the data is shorter than the dims say.
std::vector<std::int32_t> readInt32Values(IrStaticTensor& tensor);

}  // namespace netforge::ops
