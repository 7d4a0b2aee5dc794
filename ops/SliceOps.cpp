#include "ops/SliceOps.h"

#include "ir/IrTensor.h"
#include "ops/CanonicalValues.h"
#include "ops/OpDefaults.h"
#include "ops/OpFailure.h"
#include "ops/OpInference.h"

namespace netforge::ops {

namespace {

using Dims = std::vector<std::uint32_t>;

/// Size of `dims` along the split axis.
std::uint32_t splitDim(const IrOp& op, const Dims& dims, std::uint32_t axis, const char* function) {
  if (axis >= dims.size()) {
    throwInvalidArgument(function, "SplitOp ", op.getName(), " axis ", static_cast<std::int32_t>(axis),
                         " is incorrect for rank ", dims.size(), ".");
  }
  return dims[axis];
}

}  // namespace

// ---- Concat ----

ConcatOp::ConcatOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Concat", attributes) {
  addDefault(getAttributes(), "axis", std::int32_t{-1}, ATTR_ORDINARY);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(ConcatOp)

void ConcatOp::canonicalizeOp(std::uint32_t numOutputs) {
  const auto rank = static_cast<std::int64_t>(getInput(0)->getRank());
  const std::int32_t given = readAxis(*getAttributes(), "axis");
  const std::int64_t axis = given < 0 ? given + rank : given;
  if (axis < 0) {
    throwInvalidArgument("netforge::ops::ConcatOp::canonicalizeOp", "ConcatOp ", getName(),
                         " axis provided, ", given, ", is incorrect for rank ", rank, ".");
  }
  getAttributes()->add("axis", static_cast<std::uint32_t>(axis), ATTR_ORDINARY);
  IrOp::canonicalizeOp(numOutputs);
}

std::vector<Dims> ConcatOp::inferOutputShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                              std::uint32_t numOutputs) {
  return inferDimsThroughShapes(
      *this, axisOrder, numOutputs, "netforge::ops::ConcatOp::inferOutputShapes",
      "ConcatOp " + getName() + " has dynamic inputs. Use inferOutputTensorShapes instead.",
      "No output shapes infered for " + getName() + " op.");
}

std::vector<IrTensorShape> ConcatOp::inferOutputTensorShapes(const std::shared_ptr<AxisOrder>&,
                                                             std::uint32_t) {
  const char* const function = "netforge::ops::ConcatOp::inferOutputTensorShapes";
  if (numInputs() == 0) return {};
  const auto axis = getAttributes()->getAttr<std::uint32_t>("axis");
  const TensorList tensors = getInputs();
  const IrTensorShape first = tensors.front()->getShape();
  std::uint32_t sum = 0;
  bool axisIsDynamic = false;
  for (const auto& tensor : tensors) {
    const IrTensorShape& shape = tensor->getShape();
    if (shape.rank() <= axis) {
      throwInvalidArgument(function, "Axis ", axis, " is out of bounds for tensor with shape ", shape);
    }
    sum += shape.dims[axis];
    axisIsDynamic = axisIsDynamic || shape.isDynamicDim(axis);
    if (shape.rank() != first.rank()) {
      throwInvalidArgument(function, "Cannot Concat inputs with different ranks ", first, " and ", shape);
    }
    for (std::uint32_t i = 0; i < first.rank(); ++i) {
      if (i == axis) continue;
      if (shape.dims[i] == first.dims[i] && shape.isDynamicDim(i) == first.isDynamicDim(i)) continue;
      throwInvalidArgument(function,
                           "Inconsistency in dynamic axis shapes. Cannot concat tensor with shapes: ", first,
                           " and ", shape, " on axis ", axis);
    }
  }
  Dims dims = first.dims;
  dims[axis] = sum;
  std::set<std::uint32_t> dynamicAxes = first.dynamicAxes;
  if (axisIsDynamic) dynamicAxes.insert(axis);
  return {IrTensorShape(dims, dynamicAxes)};
}

// ---- Split ----

SplitOp::SplitOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Split", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(SplitOp)

void SplitOp::canonicalizeOp(std::uint32_t numOutputs) {
  const char* const function = "netforge::ops::SplitOp::canonicalizeOp";
  IrOp::canonicalizeOp(numOutputs);
  const Dims dims = getInput(0)->getDims();
  auto axis = static_cast<std::uint32_t>(readAxis(*getAttributes(), "axis"));
  if (static_cast<std::int32_t>(axis) < 0) axis += static_cast<std::uint32_t>(dims.size());
  getAttributes()->add("axis", axis, ATTR_ORDINARY);
  if (getAttributes()->getStaticTensor("split_index")->elements() != 0) return;

  const std::uint32_t dim = splitDim(*this, dims, axis, function);
  if (numOutputs == 0 || dim % numOutputs != 0) {
    throwInvalidArgument(function, "SplitOp ", getName(), " cannot split axis ", axis, " equally amongst ",
                         numOutputs, " outputs.");
  }
  Dims cuts;
  for (std::uint32_t part = 1; part < numOutputs; ++part) cuts.push_back(part * (dim / numOutputs));
  replaceUint32Values(getAttributes(), "split_index", cuts);
}

std::vector<Dims> SplitOp::inferOutputShapes(const std::shared_ptr<AxisOrder>&, std::uint32_t) {
  const char* const function = "netforge::ops::SplitOp::inferOutputShapes";
  refuseDynamicInputs(*this, function);
  const auto axis = getAttributes()->getAttr<std::uint32_t>("axis");
  Dims dims = getInput(0)->getDims();
  Dims cuts;
  for (const std::int32_t cut : readInt32Values(*getAttributes()->getStaticTensor("split_index"))) {
    cuts.push_back(static_cast<std::uint32_t>(cut));
  }
  cuts.push_back(splitDim(*this, dims, axis, function));
  std::vector<Dims> shapes;
  std::uint32_t begin = 0;
  for (const std::uint32_t end : cuts) {
    if (end < begin) {
      throwInvalidArgument(function, "SplitOp ", getName(), " split_index must ascend up to the size ",
                           cuts.back(), " of axis ", axis, ", but ", end, " follows ", begin, ".");
    }
    dims[axis] = end - begin;
    shapes.push_back(dims);
    begin = end;
  }
  return shapes;
}

void SplitOp::resizeOp(const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t numOutputs) {
  const char* const function = "netforge::ops::SplitOp::resizeOp";
  const auto axis = getAttributes()->getAttr<std::uint32_t>("axis");
  const std::uint32_t dim = splitDim(*this, getInput(0)->getDims(), axis, function);
  std::uint32_t sum = 0;
  for (const Dims& dims : getOutputDims()) sum += splitDim(*this, dims, axis, function);
  if (sum != dim) {
    throwInvalidArgument(function, "Unable to resize op ", getName(), " of type ", getType(),
                         " due to mismatch between input dimension (", dim,
                         ") and sum of output dimensions (", sum, ") along split axis ", axis, ".");
  }
  IrOp::resizeOp(axisOrder, numOutputs);
}

// ---- Pack ----

PackOp::PackOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Pack", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(PackOp)

void PackOp::canonicalizeOp(std::uint32_t numOutputs) {
  const auto rank = static_cast<std::int64_t>(getInput(0)->getRank());
  const std::int32_t given = readAxis(*getAttributes(), "axis");
  const std::int64_t axis = given < 0 ? given + rank : given;
  if (axis < 0 || axis > rank) {
    throwInvalidArgument("netforge::ops::PackOp::canonicalizeOp", "PackOp ", getName(), " axis = ", axis,
                         ", is incorrect for rank ", rank, ".");
  }
  // A negative axis counts the axes of the output, which has one more.
  getAttributes()->add("axis", static_cast<std::uint32_t>(given < 0 ? axis + 1 : axis), ATTR_ORDINARY);
  IrOp::canonicalizeOp(numOutputs);
}

std::vector<Dims> PackOp::inferOutputShapes(const std::shared_ptr<AxisOrder>&, std::uint32_t) {
  const char* const function = "netforge::ops::PackOp::inferOutputShapes";
  refuseDynamicInputs(*this, function);
  const auto axis = getAttributes()->getAttr<std::uint32_t>("axis");
  Dims dims = getInput(0)->getDims();
  if (axis > dims.size()) {
    throwInvalidArgument(function, "PackOp ", getName(), " axis = ", axis, ", is incorrect for rank ",
                         dims.size(), ".");
  }
  dims.insert(dims.begin() + axis, numInputs());
  return {dims};
}

// ---- Pad ----

PadOp::PadOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Pad", attributes) {
  addDefault(getAttributes(), "pad_constant_value", 0.0f, ATTR_ORDINARY);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(PadOp)

std::vector<Dims> PadOp::inferOutputShapes(const std::shared_ptr<AxisOrder>&, std::uint32_t) {
  const char* const function = "netforge::ops::PadOp::inferOutputShapes";
  refuseDynamicInputs(*this, function);
  Dims dims = getInput(0)->getDims();
  const auto amount = getAttributes()->getStaticTensor("pad_amount");
  const Dims amountDims = amount->getDims();
  const std::uint32_t columns = amountDims.size() < 2 ? 0 : amountDims[1];
  if (columns != 2) {
    throwInvalidArgument(function, "Input Pad shape for op ", getName(),
                         " dims()[1] must be equal with 2, but get:", columns);
  }
  if (amountDims[0] != dims.size()) {
    throwInvalidArgument(function, "Input Pad shape (", amountDims[0], ") for op ", getName(),
                         " must be equal to Input[0] rank (", dims.size(), ").");
  }
  amount->getData();
  for (std::size_t i = 0; i < dims.size(); ++i) {
    dims[i] += amount->getElement(2 * i) + amount->getElement(2 * i + 1);
  }
  return {dims};
}

void PadOp::overrideDataAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder) {
  setFirstInputDataFormat(*this, *axisOrder);
}

}  // namespace netforge::ops
