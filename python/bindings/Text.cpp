#include "python/bindings/Text.h"

#include <array>
#include <charconv>
#include <cstring>

#include "ir/Failure.h"

namespace netforge::bindings {

namespace {

constexpr std::uint64_t kShownElements = 8;

template <class Number>
std::string numberText(Number value) {
  std::array<char, 64> buffer{};
  const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value).ptr;
  return std::string(buffer.data(), end);
}

std::string typeText(DataType type) {
  const std::string shortName = getDataTypeShortName(type);
  if (shortName != "undefined") return shortName;
  std::string name = getDataTypeName(type);
  const std::string prefix = "ORLO_DATATYPE_";
  if (name.rfind(prefix, 0) == 0) name.erase(0, prefix.size());
  return name;
}

/// "[1,?,3]", the question mark for a dim that is not known.
std::string dimsWithUnknowns(const IrTensorShape& shape) {
  std::string text = "[";
  for (std::uint32_t axis = 0; axis < shape.rank(); ++axis) {
    if (axis > 0) text += ",";
    text += shape.dynamicAxes.count(axis) > 0 ? "?" : std::to_string(shape.dims[axis]);
  }
  return text + "]";
}

/// "[2,3] float32 NHWC"; the layout only when it is known.
std::string kindText(const IrTensor& tensor) {
  std::string text = dimsWithUnknowns(tensor.getShape()) + " " + typeText(tensor.getDataType());
  if (tensor.getAxisFormat() != AxisFormat::NOT_YET_DEFINED) {
    text += " " + axisFormatToString(tensor.getAxisFormat());
  }
  return text;
}

template <class Element>
std::string elementsText(const std::uint8_t* data, std::uint64_t count) {
  std::string text = "[";
  for (std::uint64_t i = 0; i < count; ++i) {
    Element element;
    std::memcpy(&element, data + i * sizeof element, sizeof element);
    if (i > 0) text += ",";
    text += numberText(element);
  }
  return text + "]";
}

/// The elements of a small tensor in memory, else its dims and type.
std::string constantText(IrStaticTensor& tensor) {
  const std::uint64_t count = tensor.getDataSize() / 4;
  if (tensor.isDataLoaded() && tensor.getDataSize() % 4 == 0 && count <= kShownElements) {
    const std::uint8_t* data = tensor.getData();
    if (data != nullptr || count == 0) {
      if (tensor.getDataType() == ORLO_DATATYPE_UINT_32) return elementsText<std::uint32_t>(data, count);
      if (tensor.getDataType() == ORLO_DATATYPE_INT_32) return elementsText<std::int32_t>(data, count);
      if (tensor.getDataType() == ORLO_DATATYPE_FLOAT_32) return elementsText<float>(data, count);
    }
  }
  return "<" + kindText(tensor) + ">";
}

std::string attributeText(const IrAttribute& attribute) {
  if (attribute.attrType == ORLO_PARAMTYPE_TENSOR) return constantText(*attribute.tensorValue);
  switch (attribute.dataType) {
    case ORLO_DATATYPE_FLOAT_32:
      return numberText(attribute.floatValue);
    case ORLO_DATATYPE_STRING:
      return "\"" + attribute.stringValue + "\"";
    case ORLO_DATATYPE_BOOL_8:
      return attribute.intValue != 0 ? "true" : "false";
    default:
      return numberText(attribute.intValue);
  }
}

std::string tensorTypeText(TensorType type) {
  switch (type) {
    case TensorType::GraphInput:
      return "graph input";
    case TensorType::GraphOutput:
      return "graph output";
    case TensorType::GraphInputOutput:
      return "graph input and output";
    case TensorType::Native:
      return "native";
    case TensorType::Static:
    case TensorType::StaticOwnNumbering:
      return "static";
    default:
      return "tensor type " + std::to_string(static_cast<std::uint32_t>(type));
  }
}

std::string joined(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : ", ") + part;
  return text;
}

std::string countText(std::size_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

/// "y [2,3] float32 = Concat(a, b) {axis=1}"; the op's name when no output bears it.
std::string opLine(const ops::IrOp& op) {
  std::vector<std::string> outputs;
  std::vector<std::string> inputs;
  bool isNamed = false;
  try {
    for (const auto& tensor : op.getOutputs()) {
      outputs.push_back(tensor->getName() + " " + kindText(*tensor));
      isNamed = isNamed || tensor->getName() == op.getName();
    }
    for (const auto& tensor : op.getInputs()) inputs.push_back(tensor->getName());
  } catch (const std::exception& broken) {
    return op.displayName() + ": " + broken.what();
  }
  std::string text =
      joined(outputs) + (outputs.empty() ? "" : " = ") + op.getType() + "(" + joined(inputs) + ")";
  const std::string attributes = attributesText(*op.getAttributes());
  if (attributes != "{}") text += " " + attributes;
  return isNamed ? text : text + "  # " + op.getName();
}

}  // namespace

std::string encodingText(const EncodingInfo& encoding) {
  return "EncodingInfo(bitwidth=" + std::to_string(encoding.bitwidth) +
         ", minimum=" + numberText(encoding.minimum) + ", maximum=" + numberText(encoding.maximum) +
         ", scale=" + numberText(encoding.scale) + ", offset=" + numberText(encoding.offset) + ")";
}

std::string quantInfoText(const QuantInfo& info) {
  std::string text = "<QuantInfo encoding " + std::to_string(static_cast<std::uint32_t>(info.encoding));
  if (info.encoding == QuantEncodingKind::Undefined) text = "<QuantInfo undefined";
  if (info.isOverridden) text += " overridden";
  const std::size_t entries = info.axisEncodings.size() + info.blockEncodings.size() +
                              info.sbqEncodings.size() + info.laneEncodings.size();
  if (entries > 0) return text + ", " + std::to_string(entries) + " entries>";
  return text + ", " + encodingText(info.scaleOffset) + ">";
}

std::string shapeText(const IrTensorShape& shape) {
  return concatText(shape);
}

std::string attributesText(const IrAttributes& attributes) {
  std::vector<std::string> parts;
  for (const auto& [name, attribute] : attributes.entries()) {
    const std::string text = attributeText(attribute);
    // The package that every op belongs to unless it says otherwise.
    if (name == "packageName" && text == "\"orlo.base\"") continue;
    parts.push_back(name + "=" + text);
  }
  return "{" + joined(parts) + "}";
}

std::string tensorText(const IrTensor& tensor) {
  std::string text = tensor.isStatic() ? "<IrStaticTensor '" : "<IrTensor '";
  text += tensor.getName() + "' " + kindText(tensor) + ", " + tensorTypeText(tensor.getTensorType());
  if (tensor.isStatic()) {
    const auto& constant = static_cast<const IrStaticTensor&>(tensor);
    text += ", " + std::to_string(constant.getDataSize()) + " bytes";
    if (!constant.isDataLoaded()) text += " in " + constant.getExternalData().path;
  }
  return text + ">";
}

std::string opText(const ops::IrOp& op) {
  return "<IrOp '" + op.getName() + "': " + opLine(op) + ">";
}

std::string graphSummary(const IrGraph& graph) {
  return "<IrGraph '" + graph.name + "': " + countText(graph.numOps(), "op") + ", " +
         countText(graph.numTensors(), "tensor") + ">";
}

std::string graphText(const IrGraph& graph) {
  std::string text = "IrGraph '" + graph.name + "': " + countText(graph.numOps(), "op") + ", " +
                     countText(graph.numTensors(), "tensor");
  for (const auto& tensor : graph.getGraphInputs()) {
    text += "\n  in  " + tensor->getName() + " " + kindText(*tensor);
  }
  for (const auto& op : graph.getOps()) text += "\n  " + opLine(*op);
  for (const auto& tensor : graph.getGraphOutputs()) text += "\n  out " + tensor->getName();
  return text;
}

}  // namespace netforge::bindings
