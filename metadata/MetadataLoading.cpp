// Reading a transform metadata file. A file may hold anything: every type is tested before a value is read.

#include <rapidjson/filereadstream.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <unordered_set>
#include <utility>

#include "ir/Failure.h"
#include "metadata/JsonWalk.h"
#include "metadata/ODLTransformManager.h"

namespace netforge::graphrefiner {

namespace {

using rapidjson::Value;
using Names = std::vector<std::string>;
using Shapes = std::vector<std::vector<std::uint32_t>>;

constexpr const char* kLoad = "netforge::graphrefiner::ODLTransformManager::loadMetadata";
constexpr std::size_t kBufferSize = 65536;
void parseFile(const std::string& path, ParsedDocument& document) {
  struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path.c_str(), "rb"));
  if (!file) fail<std::runtime_error>(kLoad, "Cannot open file for reading: ", path);
  std::vector<char> buffer(kBufferSize);
  rapidjson::FileReadStream stream(file.get(), buffer.data(), buffer.size());
  bool parsed = document.parse(stream);
  // A folder can be opened, but not read.
  if (std::ferror(file.get()) != 0) fail<std::runtime_error>(kLoad, "Cannot open file for reading: ", path);
  // The parser takes a NUL byte for the end: behind it there may be more.
  if (parsed && (std::fseek(file.get(), 0, SEEK_END) == 0)) {
    parsed = stream.Tell() == static_cast<std::size_t>(std::ftell(file.get()));
  }
  if (!parsed) fail<std::runtime_error>(kLoad, "JSON parse error in file: ", path);
}

std::string textOf(const Value& value) {
  return {value.GetString(), value.GetStringLength()};
}

/// Members of one object of the file, with texts that say where it stands.
class Members {
 public:
  Members(const Value& value, std::string what, const std::string& file)
      : object(value), place(std::move(what)), path(file) {
    if (!object.IsObject()) refuse("is no object");
    HashedNames names;
    for (const auto& member : object.GetObject()) {
      if (!names.insert(textOf(member.name)).second) refuse("has two members '", textOf(member.name), "'");
    }
  }

  template <class... Parts>
  [[noreturn]] void refuse(const Parts&... parts) const {
    fail<std::runtime_error>(kLoad, place, " ", parts..., ": ", path);
  }

  static const Value* find(const Value& object, const char* name) {
    const auto member = object.FindMember(name);
    return member == object.MemberEnd() ? nullptr : &member->value;
  }
  const Value* find(const char* name) const { return find(object, name); }

  const Value& need(const char* name) const {
    const Value* value = find(name);
    if (value == nullptr) refuse("has no member '", name, "'");
    return *value;
  }

  std::string needText(const char* name) const {
    const Value& value = need(name);
    if (!value.IsString()) refuse("has a member '", name, "' that is no string");
    return textOf(value);
  }

  Names needNames(const char* name) const {
    const Value& value = need(name);
    const auto isString = [](const Value& entry) { return entry.IsString(); };
    if (!value.IsArray() || !std::all_of(value.Begin(), value.End(), isString)) {
      refuse("has a member '", name, "' that is no list of strings");
    }
    Names names;
    for (const Value& entry : value.GetArray()) names.push_back(textOf(entry));
    return names;
  }

  Shapes shapes(const char* name) const {
    const Value* value = find(name);
    if (value == nullptr) return {};
    const auto isSize = [](const Value& entry) { return entry.IsUint(); };
    const auto isShape = [&](const Value& entry) {
      return entry.IsArray() && std::all_of(entry.Begin(), entry.End(), isSize);
    };
    if (!value->IsArray() || !std::all_of(value->Begin(), value->End(), isShape)) {
      refuse("has a member '", name, "' that is no list of lists of unsigned 32-bit integers");
    }
    Shapes shapes;
    for (const Value& shape : value->GetArray()) {
      shapes.emplace_back();
      for (const Value& size : shape.GetArray()) shapes.back().push_back(size.GetUint());
    }
    return shapes;
  }

  std::optional<std::string> text(const char* name) const {
    const Value* value = find(name);
    if (value == nullptr || !value->IsString()) return std::nullopt;
    return textOf(*value);
  }

  std::optional<std::int32_t> integer(const char* name) const {
    const Value* value = find(name);
    if (value == nullptr || !value->IsInt()) return std::nullopt;
    return value->GetInt();
  }

  const Value& object;
  const std::string place;
  const std::string& path;
};

std::string compactText(const Value& value) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  walkJson(value, writer);
  return {buffer.GetString(), buffer.GetSize()};
}

TransformOp readOperator(const Members& members) {
  TransformOp op;
  op.opType = members.needText("op_type");
  const Value* attributes = members.find("attributes");
  if (attributes != nullptr && attributes->IsObject()) {
    const Members values(*attributes, members.place + ", attributes", members.path);  // no name twice
    for (const auto& member : attributes->GetObject()) {
      op.attributes[textOf(member.name)] = compactText(member.value);
    }
  }
  op.inputShapes = members.shapes("input_shapes");
  op.outputShapes = members.shapes("output_shapes");
  return op;
}

std::map<std::string, DType> readDtypes(const Members& members) {
  std::map<std::string, DType> dtypes;
  const Value* object = members.find("tensor_dtypes");
  if (object == nullptr || !object->IsObject()) return dtypes;
  const Members values(*object, members.place + ", tensor_dtypes", members.path);
  for (const auto& member : object->GetObject()) {
    const std::string name = textOf(member.name);
    if (!member.value.IsString()) values.refuse("has a member '", name, "' that is no string");
    dtypes[name] = TransformGraph::dtypeFromString(textOf(member.value));
  }
  return dtypes;
}

std::int32_t readExecutionOrder(const std::string& name, const Members& members) {
  const Value* value = members.find("execution_order");
  if (value == nullptr || !(value->IsInt64() || value->IsUint64())) {
    fail<std::runtime_error>(kLoad, "Metadata transform graph: ", name, ", is missing execution order field");
  }
  if (!value->IsInt()) members.refuse("has an execution order beyond 32 bits");
  return value->GetInt();
}

// The same for two transforms exactly when their sources and destinations are the same in whatever order.
std::string matchKey(Names srcTensors, Names destTensors) {
  std::string key;
  for (Names* names : {&srcTensors, &destTensors}) {
    std::sort(names->begin(), names->end());
    key += std::to_string(names->size()) + ';';
    for (const std::string& name : *names) key += std::to_string(name.size()) + ':' + name;
  }
  return key;
}

}  // namespace

void ODLTransformManager::loadMetadata(const std::string& path) {
  ParsedDocument document;
  parseFile(path, document);
  const auto* graphsObject = document.IsObject() ? Members::find(document, "graphs") : nullptr;
  if (graphsObject == nullptr || !graphsObject->IsObject()) {
    fail<std::runtime_error>(kLoad, "Metadata file missing 'graphs' object: ", path);
  }
  const Members root(document, "Metadata file", path);
  for (const auto& member : graphsObject->GetObject()) {
    loadGraph(textOf(member.name), member.value, path);
  }
}

void ODLTransformManager::loadGraph(const std::string& name, const Value& object, const std::string& path) {
  if (graphs.count(name) != 0) {
    fail<std::runtime_error>(kLoad, "Unable to load graph '", name,
                             "', Graph already exists with same name!");
  }
  const Members members(object, "Metadata transform graph: " + name, path);
  const std::int32_t executionOrder = readExecutionOrder(name, members);
  TransformGraph& graph = createTransformGraph(name, executionOrder, members.text("concurrency_name"),
                                               members.integer("split_num"), members.integer("ar_n"));
  const Value* transforms = members.find("transforms");
  if (transforms != nullptr && transforms->IsArray()) {
    // Instead of a search through all transforms for each.
    std::unordered_set<std::string> seen;
    for (rapidjson::SizeType index = 0; index < transforms->Size(); ++index) {
      const std::string place = members.place + ", transform " + std::to_string(index);
      const Members entry(transforms->Begin()[index], place, path);
      const Names sources = entry.needNames("src_tensors");
      const Names destinations = entry.needNames("dest_tensors");
      const TransformOp op = readOperator(Members(entry.need("operator"), place + ", operator", path));
      const auto dtypes = readDtypes(entry);
      if (seen.insert(matchKey(sources, destinations)).second) {
        graph.appendTransform(sources, destinations, op, false, dtypes);
      } else {
        graph.addTransform(sources, destinations, op, false, dtypes);  // throws
      }
    }
  }
  if (members.find("input_tensors") != nullptr && members.find("output_tensors") != nullptr) {
    const Names inputs = members.needNames("input_tensors");
    const Names outputs = members.needNames("output_tensors");
    graph.inputTensors = HashedNames(inputs.begin(), inputs.end());
    graph.outputTensors = HashedNames(outputs.begin(), outputs.end());
  }
}

}  // namespace netforge::graphrefiner
