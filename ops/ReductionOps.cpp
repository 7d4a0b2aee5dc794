#include "ops/ReductionOps.h"

#include <algorithm>
#include <set>

#include "ops/OpDefaults.h"
#include "ops/OpFailure.h"
#include "ops/OpInference.h"

namespace netforge::ops {

namespace {

using Values = std::vector<std::uint32_t>;

std::vector<std::int32_t> readAxes(const IrOp& op) {
  return readInt32Values(*op.getAttributes()->getStaticTensor("axes"));
}

/// Gives the first axis of 0 or more that stands twice, -1 without one. A negative axis can't be compared
/// before the rank is known.
std::int32_t findRepeatedAxis(const IrOp& op) {
  std::set<std::int32_t> seen;
  for (const std::int32_t axis : readAxes(op)) {
    if (axis >= 0 && !seen.insert(axis).second) return axis;
  }
  return -1;
}

/// "axes" with the rank of input 0 added to negative values. The result may still be out of range.
std::vector<std::int64_t> resolveAxes(const IrOp& op) {
  const std::int64_t rank = op.getInput(0)->getRank();
  std::vector<std::int64_t> axes;
  for (const std::int32_t axis : readAxes(op)) axes.push_back(axis < 0 ? axis + rank : axis);
  return axes;
}

void rewriteAxes(const IrOp& op, const std::vector<std::int64_t>& axes) {
  Values values;
  for (const std::int64_t axis : axes) values.push_back(static_cast<std::uint32_t>(axis));
  const auto& attributes = op.getAttributes();
  const std::string name = attributes->getStaticTensorName("axes");
  attributes->add("axes", makeUint32Tensor(name, {static_cast<std::uint32_t>(values.size())}, values),
                  ATTR_ORDINARY);
}

IrTensorShape inferReducedShape(const IrOp& op) {
  const IrTensorShape input = op.getInput(0)->getShape();
  const bool keepDims = op.getAttributes()->getAttr<bool>("keep_dims");
  const std::vector<std::int32_t> axes = readAxes(op);
  Values dims;
  std::set<std::uint32_t> dynamicAxes;
  for (std::uint32_t i = 0; i < input.rank(); ++i) {
    if (std::find(axes.begin(), axes.end(), static_cast<std::int32_t>(i)) != axes.end()) {
      if (keepDims) dims.push_back(1);
      continue;
    }
    if (input.isDynamicDim(i)) dynamicAxes.insert(static_cast<std::uint32_t>(dims.size()));
    dims.push_back(input.dims[i]);
  }
  if (dims.empty()) return IrTensorShape(Values{1});
  return {dims, dynamicAxes};
}

/// The axes that a reduction of this layout has to begin with to leave batch and channels; empty for
/// layouts without such a rule.
std::vector<std::int32_t> spatialAxesOf(AxisFormat format) {
  switch (format) {
    case AxisFormat::NDHWC:
      return {1, 2, 3};
    case AxisFormat::NCDHW:
      return {2, 3, 4};
    case AxisFormat::NHWC:
      return {1, 2};
    case AxisFormat::NCHW:
      return {2, 3};
    case AxisFormat::NFC:
      return {1};
    case AxisFormat::NCF:
      return {2};
    default:
      return {};
  }
}

/// The layout of an output whose reduced axes are dropped. Compares the axes in their stored order.
AxisFormat reducedFormat(const IrOp& op) {
  const auto& formats = op.getStoredInputAxisFormats();
  if (formats.empty()) return AxisFormat::NONTRIVIAL;
  const auto spatial = spatialAxesOf(formats.front());
  const auto axes = readAxes(op);
  const bool begins = !spatial.empty() && axes.size() >= spatial.size() &&
                      std::equal(spatial.begin(), spatial.end(), axes.begin());
  return begins ? AxisFormat::NC : AxisFormat::NONTRIVIAL;
}

bool dropsAxesOfOutput(const IrOp& op) {
  return op.numOutputs() > 0 && !op.getAttributes()->getAttr<bool>("keep_dims");
}

}  // namespace

ReduceOp::ReduceOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Reduce", attributes) {
  constexpr const char* kFunction = "netforge::ops::ReduceOp::ReduceOp";
  getAttributes()->assertAttrExists("axes");
  requireSupplemental(getAttributes(), kFunction, "reduce_type", "attribute", name);
  addDefault(getAttributes(), "keep_dims", false, ATTR_ORDINARY);
  const std::int32_t repeated = findRepeatedAxis(*this);
  if (repeated >= 0)
    throwInvalidArgument(kFunction, "ReduceOp (", name, ") axes ", repeated, " can't be repeated");
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(ReduceOp)

void ReduceOp::canonicalizeOp(std::uint32_t numOutputs) {
  IrOp::canonicalizeOp(numOutputs);
  const std::int64_t rank = getInput(0)->getRank();
  const auto axes = resolveAxes(*this);
  for (const std::int64_t axis : axes) {
    if (axis >= 0 && axis <= rank) continue;
    throwInvalidArgument("netforge::ops::ReduceOp::canonicalizeOp", "ReduceOp ", getName(),
                         " axis must be in range [0, ", rank, "], but got ", axis);
  }
  rewriteAxes(*this, axes);
}

std::vector<std::vector<std::uint32_t>> ReduceOp::inferOutputShapes(
    const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t numOutputs) {
  return inferDimsThroughShapes(
      *this, axisOrder, numOutputs, "netforge::ops::ReduceOp::inferOutputShapes",
      "ReduceOp " + getName() + " has dynamic inputs. Use inferOutputTensorShapes instead.",
      "No output shapes infered for " + getName() + " op.");
}

std::vector<IrTensorShape> ReduceOp::inferOutputTensorShapes(const std::shared_ptr<AxisOrder>&,
                                                             std::uint32_t) {
  return {inferReducedShape(*this)};
}

void ReduceOp::populateOutputAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder,
                                         const std::map<std::string, std::uint8_t>& inputLayoutCodes,
                                         bool isTimeSeries) {
  if (dropsAxesOfOutput(*this)) {
    getOutput(0)->setAxisFormat(reducedFormat(*this));
  } else {
    IrOp::populateOutputAxisFormats(axisOrder, inputLayoutCodes, isTimeSeries);
  }
}

ReduceL2Op::ReduceL2Op(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "ReduceL2", attributes) {
  getAttributes()->assertAttrExists("axes");
  addDefault(getAttributes(), "keep_dims", false, ATTR_ORDINARY);
  const std::int32_t repeated = findRepeatedAxis(*this);
  if (repeated >= 0) {
    throwInvalidArgument("netforge::ops::ReduceL2Op::ReduceL2Op", "ReduceL2Op (", name, ") axis ", repeated,
                         " can't be repeated");
  }
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(ReduceL2Op)

std::uint64_t ReduceL2Op::macs(const std::shared_ptr<AxisOrder>&) {
  const Values dims = getOutput(0)->getDims();
  return lastDimsProduct(dims, static_cast<std::uint32_t>(dims.size()));
}

void ReduceL2Op::canonicalizeOp(std::uint32_t numOutputs) {
  IrOp::canonicalizeOp(numOutputs);
  const std::int64_t rank = getInput(0)->getRank();
  const auto axes = resolveAxes(*this);
  for (const std::int64_t axis : axes) {
    if (axis >= 0 && axis < rank) continue;
    throwInvalidArgument("netforge::ops::ReduceL2Op::canonicalizeOp",
                         "ReduceL2Op axis must be in [0, rank) = [0, ", rank, "), but got: ", axis);
  }
  rewriteAxes(*this, axes);
}

std::vector<std::vector<std::uint32_t>> ReduceL2Op::inferOutputShapes(
    const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t numOutputs) {
  return inferDimsThroughShapes(
      *this, axisOrder, numOutputs, "netforge::ops::ReduceL2Op::inferOutputShapes",
      "ReduceL2Op " + getName() + " has dynamic inputs. Use inferOutputTensorShapes instead.",
      "No output shapes inferred for " + getName() + " op.");
}

std::vector<IrTensorShape> ReduceL2Op::inferOutputTensorShapes(const std::shared_ptr<AxisOrder>&,
                                                               std::uint32_t) {
  return {inferReducedShape(*this)};
}

std::vector<DataType> ReduceL2Op::inferOutputDataTypes(std::uint32_t) {
  return inferFirstInputDataType(*this);
}

void ReduceL2Op::populateOutputAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder,
                                           const std::map<std::string, std::uint8_t>& inputLayoutCodes,
                                           bool isTimeSeries) {
  if (dropsAxesOfOutput(*this)) {
    getOutput(0)->setAxisFormat(reducedFormat(*this));
  } else {
    IrOp::populateOutputAxisFormats(axisOrder, inputLayoutCodes, isTimeSeries);
  }
}

}  // namespace netforge::ops
