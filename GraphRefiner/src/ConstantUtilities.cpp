// Rewrite utilities that read constants and axis attributes.
#include <algorithm>
#include <stdexcept>
#include "GraphRefiner/src/RawData.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/Failure.h"
#include "ir/IrOp.h"
#include "ir/IrTensor.h"
#include "ops/CanonicalValues.h"

namespace netforge::graphrefiner {

namespace {

void requireTensor(const StaticTensorPtr& tensor, const char* function) {
  if (!tensor) fail<std::runtime_error>(function, "Null tensor passed to ", function);
}

// The bytes, or null when there are fewer than `count` elements of `width` bytes.
const std::uint8_t* dataOfWidth(IrStaticTensor& tensor, std::uint64_t count, std::uint64_t width) {
  return tensor.getDataSize() >= count * width ? tensor.getData() : nullptr;
}

template <class T>
bool allElementsEqual(const StaticTensorPtr& tensor, T value) {
  requireTensor(tensor, "allElementsEqualToValue");
  const std::uint64_t count = tensor->elements();
  if (count == 0) fail<std::runtime_error>("allElementsEqualToValue", "Tensor has zero elements");
  const std::uint8_t* data = dataOfWidth(*tensor, count, sizeof(T));
  if (data == nullptr) return false;
  for (std::uint64_t i = 0; i < count; ++i) {
    if (!(loadElement<T>(data, i) == value)) return false;
  }
  return true;
}

std::vector<std::uint32_t> readWords(IrStaticTensor& tensor, std::uint64_t count) {
  tensor.getData();  // getElement doesn't load
  std::vector<std::uint32_t> words;
  words.reserve(std::min<std::uint64_t>(count, tensor.getDataSize() / sizeof(std::uint32_t)));
  for (std::uint64_t i = 0; i < count; ++i) words.push_back(tensor.getElement(i));
  return words;
}

std::uint32_t fromTheEnd(std::uint32_t axis, std::uint32_t rank) {
  return static_cast<std::int32_t>(axis) < 0 ? axis + rank : axis;
}

}  // namespace

float getConstValue(const StaticTensorPtr& tensor) {
  constexpr const char* kFunction = "getConstValue";
  requireTensor(tensor, kFunction);
  const std::uint64_t count = tensor->elements();
  if (count != 1) fail<std::runtime_error>(kFunction, "Expected 1 element but found ", count);
  const DataType type = tensor->getDataType();
  const bool isHalf = type == ORLO_DATATYPE_FLOAT_16;
  if (!isHalf && type != ORLO_DATATYPE_INT_32 && type != ORLO_DATATYPE_UINT_32 &&
      type != ORLO_DATATYPE_FLOAT_32) {
    fail<std::runtime_error>(kFunction, "Found Unsupported ORLO datatype in getConstValue function.");
  }
  const std::uint8_t* data = dataOfWidth(*tensor, 1, isHalf ? 2 : 4);
  if (data == nullptr) fail<std::runtime_error>(kFunction, "Tensor ", tensor->getName(), " has no data");
  switch (type) {
    case ORLO_DATATYPE_INT_32:
      return static_cast<float>(loadElement<std::int32_t>(data, 0));
    case ORLO_DATATYPE_UINT_32:
      return static_cast<float>(loadElement<std::uint32_t>(data, 0));
    case ORLO_DATATYPE_FLOAT_16:
      return halfToFloat(loadElement<std::uint16_t>(data, 0));
    default:
      return loadElement<float>(data, 0);
  }
}

std::optional<float> findConstScalar(const std::shared_ptr<IrTensor>& tensor) {
  const auto constant = std::dynamic_pointer_cast<IrStaticTensor>(tensor);
  if (!constant || constant->isUpdateable() || constant->elements() != 1) return std::nullopt;
  switch (constant->getDataType()) {
    case ORLO_DATATYPE_INT_32:
    case ORLO_DATATYPE_UINT_32:
    case ORLO_DATATYPE_FLOAT_32:
      if (constant->getDataSize() != 4) return std::nullopt;
      break;
    case ORLO_DATATYPE_FLOAT_16:
      if (constant->getDataSize() != 2) return std::nullopt;
      break;
    default:
      return std::nullopt;
  }
  return getConstValue(constant);
}

bool allElementsEqualToValue(const StaticTensorPtr& tensor, float value) {
  return allElementsEqual(tensor, value);
}

bool allElementsEqualToValue(const StaticTensorPtr& tensor, std::uint8_t value) {
  return allElementsEqual(tensor, value);
}

bool allElementsEqualToValue(const StaticTensorPtr& tensor, std::uint16_t value) {
  return allElementsEqual(tensor, value);
}

bool allElementsEqualToValue(const StaticTensorPtr& tensor, std::int32_t value) {
  return allElementsEqual(tensor, value);
}

bool anyElementNegative(const StaticTensorPtr& tensor) {
  requireTensor(tensor, "anyElementNegative");
  const std::uint64_t count = tensor->elements();
  const std::uint8_t* data = dataOfWidth(*tensor, count, sizeof(std::int32_t));
  if (data == nullptr) return false;
  for (std::uint64_t i = 0; i < count; ++i) {
    if (loadElement<std::int32_t>(data, i) < 0) return true;
  }
  return false;
}

Permutation getPermutation(const StaticTensorPtr& tensor) {
  requireTensor(tensor, "getPermutation");
  return tensor->getRank() == 0 ? Permutation{} : readWords(*tensor, tensor->getDims()[0]);
}

std::vector<std::uint32_t> getAxes(const std::shared_ptr<ops::IrOp>& op) {
  const StaticTensorPtr axes = op->getAttributes()->getStaticTensor("axes");
  return readWords(*axes, axes->elements());
}

void setAxes(const std::shared_ptr<ops::IrOp>& op, const std::vector<std::uint32_t>& axes) {
  const auto count = static_cast<std::uint32_t>(axes.size());
  const auto tensor = std::make_shared<IrStaticTensor>(
      op->getName() + "_axes", std::vector<std::uint32_t>{count},
      static_cast<std::uint32_t>(count * sizeof(std::uint32_t)), axes.data(), ORLO_DATATYPE_UINT_32,
      AxisFormat::NOT_YET_DEFINED, AxisFormat::NOT_YET_DEFINED, false, TensorType::Static,
      std::vector<std::uint32_t>{});
  op->getAttributes()->add("axes", tensor, ATTR_ORDINARY);
}

std::uint32_t readAxis(const std::shared_ptr<ops::IrOp>& op, const std::string& attribute,
                       std::uint32_t rank) {
  op->getAttributes()->assertAttrExists(attribute);
  const IrAttribute& value = op->getAttributes()->entries().at(attribute);
  if (value.attrType != ORLO_PARAMTYPE_SCALAR ||
      (value.dataType != ORLO_DATATYPE_INT_32 && value.dataType != ORLO_DATATYPE_UINT_32)) {
    fail<std::runtime_error>("readAxis", "Attribute ", attribute, " of op ", op->getName(),
                             " is no 32-bit integer");
  }
  return fromTheEnd(static_cast<std::uint32_t>(value.intValue), rank);
}

std::vector<std::uint32_t> readAxes(const std::shared_ptr<ops::IrOp>& op, std::uint32_t rank) {
  std::vector<std::uint32_t> axes = getAxes(op);
  for (std::uint32_t& axis : axes) axis = fromTheEnd(axis, rank);
  return axes;
}

void writeAxis(const std::shared_ptr<ops::IrOp>& op, std::uint32_t axis) {
  const auto entry = op->getAttributes()->entries().find("axis");
  const AttrClass attrClass =
      entry != op->getAttributes()->entries().end() ? entry->second.attrClass : ATTR_ORDINARY;
  if (op->getType() == "Gather") {
    op->getAttributes()->add("axis", static_cast<std::int32_t>(axis), attrClass);
  } else {
    op->getAttributes()->add("axis", axis, attrClass);
  }
}

Permutation getTransposePerm(const std::shared_ptr<ops::IrOp>& transpose) {
  return getPermutation(transpose->getAttributes()->getStaticTensor("perm"));
}

void replaceWordsAttribute(const std::shared_ptr<ops::IrOp>& op, const std::string& attribute,
                           const std::vector<std::uint32_t>& values) {
  ops::replaceUint32Values(op->getAttributes(), attribute, values);
}

bool hasOperation(const std::shared_ptr<ops::IrOp>& op, std::uint32_t operation) {
  const auto& attributes = op->getAttributes()->entries();
  const auto entry = attributes.find("operation");
  return entry != attributes.end() && entry->second.attrType == ORLO_PARAMTYPE_SCALAR &&
         entry->second.isIntegerType() && entry->second.intValue == operation;
}

std::shared_ptr<IrTensor> firstNonStaticInput(const std::shared_ptr<ops::IrOp>& op) {
  if (!op) return nullptr;
  const auto inputs = op->getInputs();
  const auto found =
      std::find_if(inputs.begin(), inputs.end(), [](const auto& input) { return !input->isStatic(); });
  return found != inputs.end() ? *found : nullptr;
}

}  // namespace netforge::graphrefiner
