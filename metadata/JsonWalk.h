#pragma once

#include <rapidjson/document.h>
#include <rapidjson/reader.h>

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <system_error>
#include <vector>

namespace netforge::graphrefiner {

/// How metadata files are read: no nesting overflows the stack, and what isn't UTF-8 is an error. Numbers
/// arrive as text, as the parser's own exact conversion is undefined for a zero with a large exponent.
constexpr unsigned kJsonParseFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag |
                                     rapidjson::kParseValidateEncodingFlag;

/// A document that is read with these flags, to the last digit of its numbers.
class ParsedDocument : public rapidjson::Document {
 public:
  /// Deeper texts are refused: each level takes memory while a text is read.
  static constexpr std::size_t kDeepestNesting = 1'000'000;

  explicit ParsedDocument(AllocatorType* allocator = nullptr) : rapidjson::Document(allocator) {}

  /// Whether the stream held a JSON text, up to its end or a NUL byte.
  template <class Stream>
  bool parse(Stream& stream) {
    rapidjson::Reader reader;
    bool parsed = false;
    auto generator = [&](rapidjson::Document&) {
      parsed = !reader.Parse<kJsonParseFlags>(stream, *this).IsError();
      return parsed;
    };
    Populate(generator);
    return parsed;
  }

  // The parser's events.
  bool StartObject() { return ++depth <= kDeepestNesting && rapidjson::Document::StartObject(); }
  bool StartArray() { return ++depth <= kDeepestNesting && rapidjson::Document::StartArray(); }
  bool EndObject(rapidjson::SizeType count) {
    --depth;
    return rapidjson::Document::EndObject(count);
  }
  bool EndArray(rapidjson::SizeType count) {
    --depth;
    return rapidjson::Document::EndArray(count);
  }
  bool RawNumber(const char* text, rapidjson::SizeType length, bool /*copy*/) {
    const std::string_view number(text, length);
    std::int64_t integer = 0;
    if (convert(number, integer)) return Int64(integer);
    std::uint64_t large = 0;
    if (convert(number, large)) return Uint64(large);
    double value = 0.0;
    if (convert(number, value)) return Double(value);
    // Out of range: a fraction too small to tell from zero, or too large.
    const std::size_t first = number.front() == '-' ? 1 : 0;
    const std::size_t wholeDigits = number.find_first_not_of("0123456789", first) - first;
    const bool isSmall = number[first] == '0' || number.find('-', 1) != std::string_view::npos;
    return wholeDigits == 1 && isSmall && Double(0.0);
  }

 private:
  template <class Number>
  static bool convert(std::string_view text, Number& number) {
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end;
  }

  std::size_t depth = 0;
};

/// Tells a JSON value to a writer as Value::Accept does, with the path kept on the heap. False as soon as the
/// writer gives false.
template <class Handler>
bool walkJson(const rapidjson::Value& root, Handler& handler) {
  struct Frame {
    const rapidjson::Value* value;
    rapidjson::SizeType next;
  };
  std::vector<Frame> open;
  const auto enter = [&](const rapidjson::Value& value) {
    if (!value.IsObject() && !value.IsArray()) return value.Accept(handler);
    open.push_back({&value, 0});
    return value.IsObject() ? handler.StartObject() : handler.StartArray();
  };
  if (!enter(root)) return false;
  while (!open.empty()) {
    const rapidjson::Value& value = *open.back().value;
    const rapidjson::SizeType size = value.IsObject() ? value.MemberCount() : value.Size();
    const rapidjson::SizeType place = open.back().next++;
    if (place == size) {
      open.pop_back();
      if (!(value.IsObject() ? handler.EndObject(size) : handler.EndArray(size))) return false;
    } else if (value.IsArray()) {
      if (!enter(value.Begin()[place])) return false;
    } else {
      const auto& member = value.MemberBegin()[static_cast<std::ptrdiff_t>(place)];
      if (!handler.Key(member.name.GetString(), member.name.GetStringLength(), true)) return false;
      if (!enter(member.value)) return false;
    }
  }
  return true;
}

}  // namespace netforge::graphrefiner
