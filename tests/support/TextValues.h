#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>
#include "ir/IrAttributes.h"
#include "ir/IrTypes.h"

namespace netforge::testing {

// The small words and literals of the text form of graphs, shared by its reader and its printer.

using Dims = std::vector<std::uint32_t>;

/// "f32", "i32", "u8", "sq8" (signed fixed point), "uq8", "bool", "str" ...; "?" for a type without a word.
std::string typeWord(DataType type);
std::optional<DataType> findType(std::string_view word);
std::optional<AxisFormat> findFormat(std::string_view word);
/// Bytes of one element; throws std::invalid_argument for a type of less than a byte or without a width.
std::size_t elementSize(DataType type);

/// Throws std::invalid_argument unless the whole word is a number.
double parseNumber(std::string_view word);
bool isNumber(std::string_view word);
/// The shortest text that gives the value back; a value of a float type never looks like an integer.
std::string numberText(double value, DataType type);

/// Elements of a constant to bytes and back. Values go through double: whole up to 2^53.
std::vector<std::uint8_t> encodeElements(const std::vector<double>& values, DataType type);
std::vector<double> decodeElements(const std::uint8_t* bytes, std::size_t size, DataType type);

/// Cuts at each `separator` (a blank stands for any run of white space) outside of brackets, parentheses and
/// quotes; pieces are trimmed, and empty ones are left out.
std::vector<std::string> splitText(std::string_view text, char separator);
std::string trim(std::string_view text);

/// "[2,3]", "[]".
Dims parseDims(std::string_view text);

/// The right side of an attribute: a word, or nested lists with the dims that they imply.
struct Literal {
  bool isTensor = false;
  bool isQuoted = false;
  Dims dims;
  std::vector<std::string> words;  // one, for a scalar
  std::optional<DataType> type;    // when the text states it: "3:i32"
};
Literal parseLiteral(std::string_view text);
/// The type of an attribute literal that doesn't state one: what the op's table says of that attribute, else
/// by its look: u32, i32 when something is negative, f32 when something isn't whole, bool, str.
DataType defaultAttributeType(const std::string& opType, const std::string& attribute,
                              const Literal& literal);
/// " sparse=3/2", empty for a dense tensor.
std::string sparseText(const SparseParams& params);
AttrClass attributeClass(const std::string& opType, const std::string& attribute);
/// Whether createOp builds this type; such ops bear "packageName" = "orlo.base" unless the text says more.
bool isFactoryType(const std::string& opType);

}  // namespace netforge::testing
