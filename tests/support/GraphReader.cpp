#include <algorithm>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <typeinfo>
#include <utility>
#include "ops/TranslationRegistry.h"
#include "tests/support/GraphText.h"
#include "tests/support/TextValues.h"

namespace netforge::testing {

namespace {

struct TensorText {
  std::string name;
  std::optional<IrTensorShape> shape;
  std::optional<DataType> type;
  std::optional<DataType> srcType;
  AxisFormat format = AxisFormat::NOT_YET_DEFINED;
  AxisFormat srcFormat = AxisFormat::NOT_YET_DEFINED;
  Dims order;
  std::optional<float> scale;
  double offset = 0.0;
  std::optional<std::pair<float, float>> range;
  SparseParams sparse;
  bool updateable = false;
  bool noquant = false;
  bool optional = false;
  bool both = false;
};

IrTensorShape parseShape(std::string_view text) {
  Dims dims;
  std::set<std::uint32_t> dynamicAxes;
  for (std::string word : parseLiteral(text).words) {
    if (word.front() == '?') {
      dynamicAxes.insert(static_cast<std::uint32_t>(dims.size()));
      word = word.size() == 1 ? "1" : word.substr(1);
    }
    dims.push_back(static_cast<std::uint32_t>(parseNumber(word)));
  }
  return {dims, dynamicAxes};
}

std::pair<std::string, std::string> parseAssignment(const std::string& word) {
  const std::size_t equals = word.find('=');
  return {word.substr(0, equals), word.substr(equals + 1)};
}

AxisFormat parseFormat(const std::string& word) {
  const auto format = findFormat(word);
  if (!format) throw std::invalid_argument("no layout: " + word);
  return *format;
}

void parseSetting(TensorText& tensor, const std::string& word) {
  const auto [key, value] = parseAssignment(word);
  if (key == "src") {
    tensor.srcFormat = parseFormat(value);
  } else if (key == "srctype") {
    tensor.srcType = findType(value);
    if (!tensor.srcType) throw std::invalid_argument("no type: " + value);
  } else if (key == "order") {
    tensor.order = parseDims(value);
  } else if (key == "scale") {
    tensor.scale = static_cast<float>(parseNumber(value));
  } else if (key == "offset") {
    tensor.offset = parseNumber(value);
  } else if (key == "range") {
    const std::size_t slash = value.find('/');
    tensor.range = {static_cast<float>(parseNumber(value.substr(0, slash))),
                    static_cast<float>(parseNumber(value.substr(slash + 1)))};
  } else if (key == "sparse") {
    const std::size_t slash = value.find('/');
    tensor.sparse = {0, static_cast<std::uint32_t>(parseNumber(value.substr(0, slash))),
                     static_cast<std::uint32_t>(parseNumber(value.substr(slash + 1)))};
  } else {
    throw std::invalid_argument("unknown word: " + word);
  }
}

TensorText parseTensor(std::string_view text) {
  std::vector<std::string> words = splitText(text, ' ');
  if (words.empty()) throw std::invalid_argument("a tensor is missing");
  TensorText tensor;
  const std::size_t bracket = words[0].find('[');
  tensor.name = words[0].substr(0, bracket);
  if (bracket != std::string::npos) tensor.shape = parseShape(std::string_view(words[0]).substr(bracket));
  for (std::size_t i = 1; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (const auto type = findType(word)) {
      tensor.type = type;
    } else if (const auto format = findFormat(word)) {
      tensor.format = *format;
    } else if (word == "updateable") {
      tensor.updateable = true;
    } else if (word == "noquant") {
      tensor.noquant = true;
    } else if (word == "optional") {
      tensor.optional = true;
    } else if (word == "both") {
      tensor.both = true;
    } else {
      parseSetting(tensor, word);
    }
  }
  return tensor;
}

class GraphReader {
 public:
  explicit GraphReader(std::shared_ptr<IrGraph> extended) : graph(std::move(extended)) {}

  std::shared_ptr<IrGraph> read(std::string_view text) {
    for (const auto& [number, line] : statements(text)) {
      try {
        readStatement(line);
      } catch (const std::exception& failure) {
        throw std::invalid_argument("line " + std::to_string(number) + " '" + line + "': " + failure.what());
      }
    }
    return graph;
  }

 private:
  static std::vector<std::pair<int, std::string>> statements(std::string_view text) {
    std::vector<std::pair<int, std::string>> result;
    std::istringstream stream{std::string(text)};
    std::string line;
    bool continues = false;
    for (int number = 1; std::getline(stream, line); ++number) {
      line = trim(line.substr(0, line.find('#')));
      if (line.empty()) continue;
      if (continues) {
        result.back().second += " " + line;
      } else {
        result.emplace_back(number, line);
      }
      std::string& statement = result.back().second;
      continues = statement.back() == ',' || statement.back() == '\\';
      if (statement.back() == '\\') statement.pop_back();
    }
    return result;
  }

  void readStatement(const std::string& line) {
    const std::size_t blank = line.find(' ');
    const std::string keyword = line.substr(0, blank);
    const std::string rest = blank == std::string::npos ? "" : trim(line.substr(blank));
    if (keyword == "order") {
      readOrder(rest);
    } else if (keyword == "in") {
      const TensorText text = parseTensor(rest);
      addTensor(text, TensorType::GraphInput);
      if (text.optional) graph->getTensor(text.name)->setTensorType(TensorType::OptionalInput);
    } else if (keyword == "null") {
      addTensor(parseTensor(rest), TensorType::Null);
    } else if (keyword == "const") {
      readConstant(rest);
    } else if (keyword == "out") {
      readOutput(parseTensor(rest));
    } else {
      readOp(line);
    }
  }

  void readOrder(const std::string& word) {
    if (graph->numTensors() != 0) throw std::invalid_argument("'order' comes first");
    std::shared_ptr<AxisOrder> order;
    if (word == "spatial_last") {
      order = std::make_shared<SpatialLastAxisOrder>();
    } else if (word == "onnx") {
      order = std::make_shared<OnnxAxisOrder>();
    } else if (word != "spatial_first") {
      throw std::invalid_argument("no axis order");
    }
    graph = std::make_shared<IrGraph>("test", order);
  }

  void addTensor(const TensorText& text, TensorType role) {
    if (!text.shape) throw std::invalid_argument("the shape is missing");
    const DataType type = text.type.value_or(ORLO_DATATYPE_FLOAT_32);
    const auto tensor = std::make_shared<IrTensor>(text.name, text.shape->dims, type, text.format,
                                                   text.srcFormat, role, text.order);
    tensor->setShape(*text.shape);
    applySettings(*tensor, text);
    graph->addTensor(tensor);
  }

  // What is the same for every kind of tensor.
  static void applySettings(IrTensor& tensor, const TensorText& text) {
    if (text.type) {
      tensor.setDataType(*text.type);
      tensor.setSrcDataType(*text.type);
      tensor.setQuantizable(isFloatDataType(*text.type) && !text.noquant);
    } else if (text.noquant) {
      tensor.setQuantizable(false);
    }
    if (text.srcType) tensor.setSrcDataType(*text.srcType);
    if (text.srcFormat != AxisFormat::NOT_YET_DEFINED) tensor.setSrcAxisFormat(text.srcFormat);
    if (!text.order.empty()) tensor.setExplicitPermuteOrder(text.order);
    if (text.updateable) tensor.setUpdateable(true);
    tensor.setSparseParams(text.sparse);
    QuantInfo info;
    if (text.scale) {
      info.encoding = QuantEncodingKind::ScaleOffset;
      info.scaleOffset.scale = *text.scale;
      info.scaleOffset.offset = text.offset;
      const DataType type = tensor.getDataType();
      info.scaleOffset.bitwidth = static_cast<std::uint32_t>(8 * elementSize(type));
      tensor.setDataType(ORLO_DATATYPE_FLOAT_32);  // only a float tensor can be made quantizable
      tensor.setQuantizable(true);
      tensor.setQInfo(type, info);
    } else if (text.range) {
      info.scaleOffset.minimum = text.range->first;
      info.scaleOffset.maximum = text.range->second;
      tensor.setFloatQInfo(tensor.getDataType(), info);
    }
  }

  void readConstant(const std::string& rest) {
    const std::size_t equals = rest.find(" = ");
    const std::size_t cut = equals != std::string::npos ? equals
                            : rest.ends_with(" =")      ? rest.size() - 2
                                                        : std::string::npos;
    if (cut == std::string::npos) throw std::invalid_argument("the values are missing");
    const TensorText text = parseTensor(std::string_view(rest).substr(0, cut));
    if (!text.shape) throw std::invalid_argument("the shape is missing");
    const DataType type = text.type.value_or(ORLO_DATATYPE_FLOAT_32);
    std::size_t count = 1;
    for (const std::uint32_t dim : text.shape->dims) count *= dim;
    const std::vector<double> values = readValues(splitText(rest.substr(cut + 2), ' '), count);
    const std::vector<std::uint8_t> bytes = encodeElements(values, type);
    const auto tensor = std::make_shared<IrStaticTensor>(
        text.name, text.shape->dims, static_cast<std::uint32_t>(bytes.size()),
        bytes.empty() ? nullptr : bytes.data(), type, text.format, text.srcFormat, false, TensorType::Static,
        text.order);
    applySettings(*tensor, text);
    graph->addTensor(tensor);
  }

  static std::vector<double> readValues(const std::vector<std::string>& words, std::size_t count) {
    std::vector<double> values;
    if (!words.empty() && words[0] == "fill") {
      values.assign(count, parseNumber(words.at(1)));
    } else if (!words.empty() && words[0] == "iota") {
      const double start = words.size() > 1 ? parseNumber(words[1]) : 0.0;
      const double step = words.size() > 2 ? parseNumber(words[2]) : 1.0;
      for (std::size_t i = 0; i < count; ++i) values.push_back(start + step * static_cast<double>(i));
    } else {
      for (const std::string& word : words) values.push_back(parseNumber(word));
    }
    if (values.size() != count) {
      throw std::invalid_argument(std::to_string(values.size()) + " values for " + std::to_string(count));
    }
    return values;
  }

  // Outputs are known at the end only, so the tensor is taken out and entered again as one.
  void readOutput(const TensorText& text) {
    const auto tensor = graph->getTensor(text.name);
    if (tensor == nullptr) throw std::invalid_argument("no such tensor");
    const TensorType before = tensor->getTensorType();
    tensor->setTensorType(TensorType::GraphOutput);
    graph->removeTensor(text.name);
    graph->addTensor(tensor);
    if (before == TensorType::OptionalInput) {
      tensor->setTensorType(TensorType::OptionalInputOutput);
    } else if (before == TensorType::GraphInput) {
      tensor->setTensorType(TensorType::GraphInputOutput);
    } else if (text.optional) {
      tensor->setTensorType(TensorType::OptionalOutput);
    }
  }

  void readOp(const std::string& line) {
    const std::size_t equals = line.find(" = ");
    if (equals == std::string::npos) throw std::invalid_argument("no statement");
    std::string left = line.substr(0, equals);
    std::string opName;
    if (const std::size_t colon = left.find(": "); colon != std::string::npos) {
      opName = left.substr(0, colon);
      left = left.substr(colon + 2);
    }
    std::vector<TensorText> outputs;
    for (const std::string& piece : splitText(left, ',')) outputs.push_back(parseTensor(piece));
    if (outputs.empty()) throw std::invalid_argument("the op has no outputs");
    if (opName.empty()) opName = outputs[0].name;

    std::string right = trim(std::string_view(line).substr(equals + 3));
    const bool plain = right.starts_with("plain ");
    if (plain) right = trim(std::string_view(right).substr(6));
    const std::size_t open = right.find('(');
    const std::size_t close = right.find(')');
    if (open == std::string::npos || close == std::string::npos)
      throw std::invalid_argument("the operands are missing");
    const std::string opType = trim(right.substr(0, open));
    const auto inputs = splitText(right.substr(open + 1, close - open - 1), ',');
    const auto words = splitText(right.substr(close + 1), ' ');
    const auto attributes = readAttributes(opType, plain, words);
    if (opType == "Reshape" && !attributes->hasAttr("shape") && outputs[0].shape) {
      attributes->add("shape", std::make_shared<IrStaticTensor>("shape", outputs[0].shape->dims),
                      ATTR_SUPPLEMENTAL);
    }
    TranslationRegistry& classes = TranslationRegistry::instance();
    const auto op = plain || !classes.hasMethod(opType)
                        ? std::make_shared<ops::IrOp>(opName, opType, attributes)
                        : classes.applyMethod(opType, opName, attributes, {}, {});
    addOp(op, inputs, outputs);
    restoreFactoryTypes(*op, words);
  }

  // A signed literal of a parameter that the factory makes signed stays so, as in an op that nothing has
  // canonicalized yet.
  static void restoreFactoryTypes(const ops::IrOp& op, const std::vector<std::string>& words) {
    for (const std::string& word : words) {
      const auto [name, value] = parseAssignment(word);
      Literal literal = parseLiteral(value);
      if (literal.isTensor || value.front() == '-' || literal.type != ORLO_DATATYPE_INT_32) continue;
      literal.type.reset();
      const IrAttribute& attribute = op.getAttributes()->entries().at(name);
      if (attribute.dataType != ORLO_DATATYPE_UINT_32 ||
          defaultAttributeType(op.getType(), name, literal) != ORLO_DATATYPE_INT_32) {
        continue;
      }
      op.getAttributes()->add(name, static_cast<std::int32_t>(attribute.intValue), attribute.attrClass);
    }
  }

  static std::shared_ptr<IrAttributes> readAttributes(const std::string& opType, bool plain,
                                                      const std::vector<std::string>& words) {
    const auto attributes = std::make_shared<IrAttributes>();
    for (const std::string& word : words) {
      const auto [name, value] = parseAssignment(word);
      if (name.size() == word.size()) throw std::invalid_argument("unknown word: " + word);
      addAttribute(*attributes, opType, name, parseLiteral(value));
    }
    if (!plain && isFactoryType(opType) && !attributes->hasAttr("packageName")) {
      attributes->add("packageName", "orlo.base", ATTR_SUPPLEMENTAL);
    }
    return attributes;
  }

  static void addAttribute(IrAttributes& attributes, const std::string& opType, const std::string& name,
                           const Literal& literal) {
    const DataType type = literal.type.value_or(defaultAttributeType(opType, name, literal));
    const AttrClass attrClass = attributeClass(opType, name);
    if (literal.isTensor) {
      std::vector<double> values;
      for (const std::string& word : literal.words) values.push_back(parseNumber(word));
      const std::vector<std::uint8_t> bytes = encodeElements(values, type);
      attributes.add(name,
                     std::make_shared<IrStaticTensor>(
                         name, literal.dims, static_cast<std::uint32_t>(bytes.size()),
                         bytes.empty() ? nullptr : bytes.data(), type, AxisFormat::NOT_YET_DEFINED,
                         AxisFormat::NOT_YET_DEFINED, false, TensorType::Static, Dims{}),
                     attrClass);
      return;
    }
    const std::string& word = literal.words.front();
    if (type == ORLO_DATATYPE_STRING) {
      attributes.add(name, word, attrClass);
      return;
    }
    if (type == ORLO_DATATYPE_BOOL_8) {
      attributes.add(name, word == "true" || word == "1", attrClass);
      return;
    }
    const double value = parseNumber(word);
    switch (type) {
      case ORLO_DATATYPE_UINT_8:
        attributes.add(name, static_cast<std::uint8_t>(value), attrClass);
        break;
      case ORLO_DATATYPE_INT_32:
        attributes.add(name, static_cast<std::int32_t>(value), attrClass);
        break;
      case ORLO_DATATYPE_UINT_32:
        attributes.add(name, static_cast<std::uint32_t>(value), attrClass);
        break;
      case ORLO_DATATYPE_FLOAT_32:
        attributes.add(name, static_cast<float>(value), attrClass);
        break;
      default:
        throw std::invalid_argument("no scalar attribute has the type " + typeWord(type));
    }
  }

  void addOp(const std::shared_ptr<ops::IrOp>& op, const std::vector<std::string>& inputs,
             const std::vector<TensorText>& outputs) {
    std::vector<std::string> names;
    std::vector<IrTensorShape> shapes;
    std::vector<AxisFormat> formats;
    for (const TensorText& output : outputs) {
      if (graph->hasTensor(output.name)) throw std::invalid_argument("the tensor is there already");
      names.push_back(output.name);
      formats.push_back(output.format);
      if (output.shape) shapes.push_back(*output.shape);
    }
    const auto first = inputs.empty() ? nullptr : graph->getTensor(inputs[0]);
    if (shapes.size() != outputs.size() && typeid(*op) == typeid(ops::IrOp) && first != nullptr) {
      shapes.assign(outputs.size(), first->getShape());
    }
    if (shapes.size() == outputs.size()) {
      graph->addOp(op, inputs, names, shapes, formats, -1, false);
    } else {
      graph->addOp(op, inputs, names, formats, -1, false);
    }
    for (const TensorText& output : outputs) {
      const auto tensor = graph->getTensor(output.name);
      if (output.shape) tensor->setShape(*output.shape);
      applySettings(*tensor, output);
    }
  }

  std::shared_ptr<IrGraph> graph;
};

}  // namespace

std::shared_ptr<IrGraph> readGraph(std::string_view text) {
  return GraphReader(std::make_shared<IrGraph>("test")).read(text);
}

void extendGraph(const std::shared_ptr<IrGraph>& graph, std::string_view text) {
  GraphReader(graph).read(text);
}

}  // namespace netforge::testing
