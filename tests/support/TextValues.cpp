#include "tests/support/TextValues.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <utility>
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/HalfFloat.h"
#include "ops/OpFactoryTable.h"

namespace netforge::testing {

namespace {

struct TypeRow {
  const char* word;
  DataType type;
};
constexpr TypeRow kTypes[] = {
    {"i8", ORLO_DATATYPE_INT_8},
    {"i16", ORLO_DATATYPE_INT_16},
    {"i32", ORLO_DATATYPE_INT_32},
    {"i64", ORLO_DATATYPE_INT_64},
    {"u8", ORLO_DATATYPE_UINT_8},
    {"u16", ORLO_DATATYPE_UINT_16},
    {"u32", ORLO_DATATYPE_UINT_32},
    {"u64", ORLO_DATATYPE_UINT_64},
    {"f16", ORLO_DATATYPE_FLOAT_16},
    {"bf16", ORLO_DATATYPE_BFLOAT_16},
    {"f32", ORLO_DATATYPE_FLOAT_32},
    {"f64", ORLO_DATATYPE_FLOAT_64},
    {"sq8", ORLO_DATATYPE_SFIXED_POINT_8},
    {"sq16", ORLO_DATATYPE_SFIXED_POINT_16},
    {"sq32", ORLO_DATATYPE_SFIXED_POINT_32},
    {"uq8", ORLO_DATATYPE_UFIXED_POINT_8},
    {"uq16", ORLO_DATATYPE_UFIXED_POINT_16},
    {"uq32", ORLO_DATATYPE_UFIXED_POINT_32},
    {"bool", ORLO_DATATYPE_BOOL_8},
    {"str", ORLO_DATATYPE_STRING},
    {"undefined", ORLO_DATATYPE_UNDEFINED},
};

bool isWhole(std::string_view word) {
  return word.find_first_of(".enaf") == std::string_view::npos;
}

template <class T>
void append(std::vector<std::uint8_t>& bytes, T value) {
  std::uint8_t raw[sizeof value];
  std::memcpy(raw, &value, sizeof value);
  bytes.insert(bytes.end(), raw, raw + sizeof value);
}

template <class T>
std::vector<double> decodeAs(const std::uint8_t* bytes, std::size_t size) {
  std::vector<double> values(size / sizeof(T));
  for (std::size_t i = 0; i < values.size(); ++i) {
    T value;
    std::memcpy(&value, bytes + i * sizeof(T), sizeof value);
    values[i] = static_cast<double>(value);
  }
  return values;
}

const graphrefiner::OpRule* findRule(const std::string& opType) {
  for (const auto& rule : graphrefiner::opRules()) {
    if (opType == rule.type) return &rule;
  }
  return nullptr;
}

const graphrefiner::ParamRule* findParam(const std::string& opType, const std::string& attribute) {
  const auto* rule = findRule(opType);
  if (rule == nullptr) return nullptr;
  for (const auto& param : rule->params) {
    if (attribute == param.name) return &param;
  }
  return nullptr;
}

// Reads "[a,[b,c]]" level by level; `depth` counts the levels around `text`.
void readLists(std::string_view text, std::size_t depth, Literal& literal) {
  const std::vector<std::string> entries = splitText(text.substr(1, text.size() - 2), ',');
  if (literal.dims.size() == depth) literal.dims.push_back(static_cast<std::uint32_t>(entries.size()));
  if (literal.dims[depth] != entries.size()) throw std::invalid_argument("uneven lists");
  for (const std::string& entry : entries) {
    if (entry.front() == '[') {
      readLists(entry, depth + 1, literal);
    } else {
      literal.words.push_back(entry);
    }
  }
}

}  // namespace

std::string typeWord(DataType type) {
  for (const TypeRow& row : kTypes) {
    if (row.type == type) return row.word;
  }
  return "?";
}

std::optional<DataType> findType(std::string_view word) {
  for (const TypeRow& row : kTypes) {
    if (word == row.word) return row.type;
  }
  return std::nullopt;
}

std::optional<AxisFormat> findFormat(std::string_view word) {
  for (std::uint32_t i = 0; i <= static_cast<std::uint32_t>(AxisFormat::OIF); ++i) {
    if (axisFormatToString(static_cast<AxisFormat>(i)) == word) return static_cast<AxisFormat>(i);
  }
  return std::nullopt;
}

std::size_t elementSize(DataType type) {
  switch (static_cast<std::uint32_t>(type) & 0xFFu) {
    case 0x08:
      return 1;
    case 0x16:
    case 0x26:
      return 2;
    case 0x32:
      return 4;
    case 0x64:
      return 8;
    default:
      throw std::invalid_argument("no element size for type " + typeWord(type));
  }
}

double parseNumber(std::string_view word) {
  double value = 0.0;
  const char* end = word.data() + word.size();
  const auto result = std::from_chars(word.data(), end, value);
  if (result.ec != std::errc() || result.ptr != end)
    throw std::invalid_argument("not a number: " + std::string(word));
  return value;
}

bool isNumber(std::string_view word) {
  double value = 0.0;
  const char* end = word.data() + word.size();
  const auto result = std::from_chars(word.data(), end, value);
  return result.ec == std::errc() && result.ptr == end;
}

std::string numberText(double value, DataType type) {
  char buffer[64];
  const bool isSingle = isFloatDataType(type);
  const auto result = isSingle
                          ? std::to_chars(buffer, buffer + sizeof buffer, static_cast<float>(value))
                          : std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::general);
  std::string text(buffer, result.ptr);
  if (isSingle && isWhole(text)) text += ".0";
  return text;
}

std::vector<std::uint8_t> encodeElements(const std::vector<double>& values, DataType type) {
  std::vector<std::uint8_t> bytes;
  for (const double value : values) {
    if (type == ORLO_DATATYPE_FLOAT_32) {
      append(bytes, static_cast<float>(value));
    } else if (type == ORLO_DATATYPE_FLOAT_16) {
      append(bytes, floatToHalf(static_cast<float>(value)));
    } else if (type == ORLO_DATATYPE_FLOAT_64) {
      append(bytes, value);
    } else {
      const auto whole = value < 0 ? static_cast<std::uint64_t>(static_cast<std::int64_t>(value))
                                   : static_cast<std::uint64_t>(value);
      std::uint8_t raw[sizeof whole];
      std::memcpy(raw, &whole, sizeof whole);
      bytes.insert(bytes.end(), raw, raw + elementSize(type));
    }
  }
  return bytes;
}

std::vector<double> decodeElements(const std::uint8_t* bytes, std::size_t size, DataType type) {
  switch (type) {
    case ORLO_DATATYPE_FLOAT_32:
      return decodeAs<float>(bytes, size);
    case ORLO_DATATYPE_FLOAT_64:
      return decodeAs<double>(bytes, size);
    case ORLO_DATATYPE_FLOAT_16: {
      std::vector<double> values = decodeAs<std::uint16_t>(bytes, size);
      for (double& value : values) value = graphrefiner::halfToFloat(static_cast<std::uint16_t>(value));
      return values;
    }
    case ORLO_DATATYPE_INT_8:
    case ORLO_DATATYPE_SFIXED_POINT_8:
      return decodeAs<std::int8_t>(bytes, size);
    case ORLO_DATATYPE_INT_16:
    case ORLO_DATATYPE_SFIXED_POINT_16:
      return decodeAs<std::int16_t>(bytes, size);
    case ORLO_DATATYPE_INT_32:
    case ORLO_DATATYPE_SFIXED_POINT_32:
      return decodeAs<std::int32_t>(bytes, size);
    case ORLO_DATATYPE_INT_64:
      return decodeAs<std::int64_t>(bytes, size);
    default:
      break;
  }
  switch (elementSize(type)) {
    case 1:
      return decodeAs<std::uint8_t>(bytes, size);
    case 2:
      return decodeAs<std::uint16_t>(bytes, size);
    case 4:
      return decodeAs<std::uint32_t>(bytes, size);
    default:
      return decodeAs<std::uint64_t>(bytes, size);
  }
}

std::string trim(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
  return std::string(text);
}

std::vector<std::string> splitText(std::string_view text, char separator) {
  std::vector<std::string> pieces;
  std::string piece;
  int depth = 0;
  bool quoted = false;
  const auto finish = [&] {
    if (!trim(piece).empty()) pieces.push_back(trim(piece));
    piece.clear();
  };
  for (const char c : text) {
    if (c == '"') quoted = !quoted;
    if (!quoted && (c == '[' || c == '(')) ++depth;
    if (!quoted && (c == ']' || c == ')')) --depth;
    const bool cuts = separator == ' ' ? std::isspace(static_cast<unsigned char>(c)) != 0 : c == separator;
    if (cuts && !quoted && depth == 0) {
      finish();
    } else {
      piece += c;
    }
  }
  finish();
  if (depth != 0 || quoted) throw std::invalid_argument("a bracket or quote is open");
  return pieces;
}

Dims parseDims(std::string_view text) {
  Dims dims;
  for (const std::string& word : parseLiteral(text).words) {
    dims.push_back(static_cast<std::uint32_t>(parseNumber(word)));
  }
  return dims;
}

Literal parseLiteral(std::string_view text) {
  Literal literal;
  const std::size_t colon = text.rfind(':');
  if (colon != std::string_view::npos) {
    literal.type = findType(text.substr(colon + 1));
    if (literal.type) text = text.substr(0, colon);
  }
  if (text.size() >= 2 && text.front() == '[' && text.back() == ']') {
    literal.isTensor = true;
    readLists(text, 0, literal);
  } else if (text.size() >= 2 && text.front() == '"' && text.back() == '"') {
    literal.isQuoted = true;
    literal.words.emplace_back(text.substr(1, text.size() - 2));
  } else {
    literal.words.emplace_back(text);
  }
  return literal;
}

DataType defaultAttributeType(const std::string& opType, const std::string& attribute,
                              const Literal& literal) {
  const auto* param = findParam(opType, attribute);
  if (param != nullptr && !literal.isTensor) {
    using graphrefiner::ParamKind;
    switch (param->kind) {
      case ParamKind::Uint32:
        return ORLO_DATATYPE_UINT_32;
      case ParamKind::Int32:
        return ORLO_DATATYPE_INT_32;
      case ParamKind::Float:
        return ORLO_DATATYPE_FLOAT_32;
      case ParamKind::Uint8:
        return ORLO_DATATYPE_UINT_8;
      case ParamKind::Bool:
        return ORLO_DATATYPE_BOOL_8;
      case ParamKind::String:
        return ORLO_DATATYPE_STRING;
      default:
        break;
    }
  }
  DataType type = ORLO_DATATYPE_UINT_32;
  for (const std::string& word : literal.words) {
    if (literal.isQuoted) return ORLO_DATATYPE_STRING;
    if (word == "true" || word == "false") return ORLO_DATATYPE_BOOL_8;
    if (!isNumber(word)) return ORLO_DATATYPE_STRING;
    if (!isWhole(word)) return ORLO_DATATYPE_FLOAT_32;
    if (word.front() == '-') type = ORLO_DATATYPE_INT_32;
  }
  return type;
}

std::string sparseText(const SparseParams& params) {
  if (params.layout == SparseParams().layout) return "";
  return " sparse=" + std::to_string(params.numSpecifiedElements) + "/" +
         std::to_string(params.numSparseDimensions);
}

AttrClass attributeClass(const std::string& opType, const std::string& attribute) {
  const auto* param = findParam(opType, attribute);
  if (param != nullptr) return param->attrClass;
  return attribute == "packageName" ? ATTR_SUPPLEMENTAL : ATTR_ORDINARY;
}

bool isFactoryType(const std::string& opType) {
  return findRule(opType) != nullptr;
}

}  // namespace netforge::testing
