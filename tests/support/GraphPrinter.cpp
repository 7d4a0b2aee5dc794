#include <set>
#include <typeinfo>
#include "ir/Failure.h"
#include "ops/TranslationRegistry.h"
#include "tests/support/GraphText.h"
#include "tests/support/TextValues.h"

namespace netforge::testing {

namespace {

using TensorPtr = std::shared_ptr<IrTensor>;

std::string shapeText(const IrTensorShape& shape) {
  std::string text = "[";
  for (std::uint32_t i = 0; i < shape.rank(); ++i) {
    if (i > 0) text += ",";
    if (shape.dynamicAxes.count(i) > 0) text += "?";
    text += std::to_string(shape.dims[i]);
  }
  return text + "]";
}

std::string quantText(const IrTensor& tensor) {
  const QuantInfo& info = tensor.getQuantInfo();
  if (info.encoding == QuantEncodingKind::ScaleOffset) {
    return concatText(" scale=", numberText(info.scaleOffset.scale, ORLO_DATATYPE_FLOAT_32),
                      " offset=", numberText(info.scaleOffset.offset, ORLO_DATATYPE_FLOAT_64));
  }
  if (info.encoding != QuantEncodingKind::Undefined) return concatText(" encoding=", info.encoding);
  if (info.isOverridden) {
    return concatText(" range=", numberText(info.scaleOffset.minimum, ORLO_DATATYPE_FLOAT_32), "/",
                      numberText(info.scaleOffset.maximum, ORLO_DATATYPE_FLOAT_32));
  }
  return isFloatDataType(tensor.getDataType()) && !tensor.isQuantizable() ? " noquant" : "";
}

std::string tensorText(const IrTensor& tensor) {
  std::string text = tensor.getName() + shapeText(tensor.getShape()) + " " + typeWord(tensor.getDataType());
  if (tensor.getAxisFormat() != AxisFormat::NOT_YET_DEFINED)
    text += " " + axisFormatToString(tensor.getAxisFormat());
  if (tensor.getSrcAxisFormat() != AxisFormat::NOT_YET_DEFINED)
    text += " src=" + axisFormatToString(tensor.getSrcAxisFormat());
  if (tensor.getSrcDataType() != tensor.getDataType())
    text += " srctype=" + typeWord(tensor.getSrcDataType());
  if (!tensor.getExplicitPermuteOrder().empty())
    text += " order=" + dimsText(tensor.getExplicitPermuteOrder());
  if (tensor.isUpdateable()) text += " updateable";
  text += sparseText(tensor.getSparseParams());
  return text + quantText(tensor);
}

std::string valuesText(IrStaticTensor& tensor) {
  const DataType type = tensor.getDataType();
  const auto values = decodeElements(tensor.getData(), tensor.getDataSize(), type);
  const auto wordOf = [&](double value) {
    std::string word = numberText(value, type);
    return word.ends_with(".0") ? word.substr(0, word.size() - 2) : word;
  };
  bool isFilled = values.size() > 2;
  for (const double value : values) isFilled = isFilled && value == values.front();
  if (isFilled) return " fill " + wordOf(values.front());
  std::string text;
  for (const double value : values) text += " " + wordOf(value);
  return text;
}

std::string nestedText(const Dims& dims, const std::vector<std::string>& words, std::size_t depth,
                       std::size_t& next) {
  if (depth == dims.size()) return next < words.size() ? words[next++] : "";
  std::string text = "[";
  for (std::uint32_t i = 0; i < dims[depth]; ++i) {
    if (i > 0) text += ",";
    text += nestedText(dims, words, depth + 1, next);
  }
  return text + "]";
}

std::string scalarText(const IrAttribute& attribute) {
  switch (attribute.dataType) {
    case ORLO_DATATYPE_STRING: {
      const bool isWord = !attribute.stringValue.empty() &&
                          attribute.stringValue.find_first_of(" \t[]()=:,\"") == std::string::npos;
      return isWord ? attribute.stringValue : "\"" + attribute.stringValue + "\"";
    }
    case ORLO_DATATYPE_BOOL_8:
      return attribute.intValue != 0 ? "true" : "false";
    case ORLO_DATATYPE_FLOAT_32:
      return numberText(attribute.floatValue, attribute.dataType);
    default:
      return std::to_string(attribute.intValue);
  }
}

// What the class fills in when nothing is given; empty for a class that demands something.
std::map<std::string, std::string> defaultAttributes(const std::string& opType) {
  std::map<std::string, std::string> defaults;
  if (!TranslationRegistry::instance().hasMethod(opType)) return defaults;
  try {
    const auto op = TranslationRegistry::instance().applyMethod(opType, "default",
                                                                std::make_shared<IrAttributes>(), {}, {});
    for (const auto& [name, attribute] : op->getAttributes()->entries()) {
      defaults[name] = attributeText(opType, name, attribute);
    }
  } catch (const std::exception&) {
    defaults.clear();
  }
  return defaults;
}

std::string opText(const ops::IrOp& op) {
  const auto outputs = op.getOutputs();
  std::string text = !outputs.empty() && outputs[0]->getName() == op.getName() ? "" : op.getName() + ": ";
  const char* separator = "";
  for (const TensorPtr& output : outputs) {
    text += separator + tensorText(*output);
    separator = ", ";
  }
  const bool plain = isPlainOp(op);
  text += " = " + std::string(plain ? "plain " : "") + op.getType() + "(";
  separator = "";
  for (const TensorPtr& input : op.getInputs()) {
    text += separator + input->getName();
    separator = ", ";
  }
  text += ")";
  const auto defaults = plain ? std::map<std::string, std::string>() : defaultAttributes(op.getType());
  for (const auto& [name, attribute] : op.getAttributes()->entries()) {
    const std::string value = attributeText(op.getType(), name, attribute);
    if (name == "packageName" && value == "orlo.base") continue;
    const auto standard = defaults.find(name);
    if (standard == defaults.end() || standard->second != value) text += " " + name + "=" + value;
  }
  return text;
}

std::string outputRole(const IrTensor& tensor) {
  return tensor.getTensorType() == TensorType::OptionalOutput ? " optional" : "";
}

}  // namespace

bool isPlainOp(const ops::IrOp& op) {
  return typeid(op) == typeid(ops::IrOp) && TranslationRegistry::instance().hasMethod(op.getType());
}

std::string attributeText(const std::string& opType, const std::string& name, const IrAttribute& attribute) {
  std::string text;
  Dims dims;
  if (attribute.attrType == ORLO_PARAMTYPE_TENSOR) {
    IrStaticTensor& tensor = *attribute.tensorValue;
    std::vector<std::string> words;
    for (const double value : decodeElements(tensor.getData(), tensor.getDataSize(), tensor.getDataType())) {
      words.push_back(numberText(value, tensor.getDataType()));
    }
    std::size_t next = 0;
    text = nestedText(tensor.getDims(), words, 0, next);
  } else {
    text = scalarText(attribute);
  }
  const DataType type =
      attribute.attrType == ORLO_PARAMTYPE_TENSOR ? attribute.tensorValue->getDataType() : attribute.dataType;
  return defaultAttributeType(opType, name, parseLiteral(text)) == type ? text : text + ":" + typeWord(type);
}

std::string printGraph(const IrGraph& graph) {
  std::string text;
  const AxisOrder& order = *graph.getAxisOrder();
  if (dynamic_cast<const OnnxAxisOrder*>(&order) != nullptr) {
    text += "order onnx\n";
  } else if (dynamic_cast<const SpatialLastAxisOrder*>(&order) != nullptr) {
    text += "order spatial_last\n";
  }
  std::set<const IrTensor*> shown;
  for (const TensorPtr& tensor : graph.getGraphInputs()) {
    const TensorType type = tensor->getTensorType();
    const bool optional = type == TensorType::OptionalInput || type == TensorType::OptionalInputOutput;
    text += "in " + tensorText(*tensor) + (optional ? " optional" : "") + "\n";
    shown.insert(tensor.get());
  }
  for (const auto& [name, tensor] : graph.getTensors()) {
    if (const auto constant = std::dynamic_pointer_cast<IrStaticTensor>(tensor)) {
      text += "const " + tensorText(*tensor) + " =" + valuesText(*constant) + "\n";
    } else if (tensor->getTensorType() == TensorType::Null) {
      text += "null " + tensorText(*tensor) + "\n";
    } else {
      continue;
    }
    shown.insert(tensor.get());
  }
  for (const auto& op : graph.getOps()) {
    text += opText(*op) + "\n";
    for (const TensorPtr& output : op->getOutputs()) shown.insert(output.get());
  }
  for (const TensorPtr& tensor : graph.getGraphOutputs()) {
    text += "out " + tensor->getName() + outputRole(*tensor) + "\n";
  }
  for (const auto& [name, tensor] : graph.getTensors()) {
    if (shown.count(tensor.get()) == 0) text += "# without a producer: " + tensorText(*tensor) + "\n";
  }
  return text;
}

}  // namespace netforge::testing
