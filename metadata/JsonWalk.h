#pragma once

#include <rapidjson/document.h>

#include <cstddef>
#include <vector>

namespace netforge::graphrefiner {

/// How metadata files are read: no nesting overflows the stack, floats keep all their digits, and what isn't
/// UTF-8 is an error.
constexpr unsigned kJsonParseFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseFullPrecisionFlag |
                                     rapidjson::kParseValidateEncodingFlag;

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
