// The graphs of a transform metadata file, and writing them.

#include "metadata/ODLTransformManager.h"

#include <rapidjson/filewritestream.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/prettywriter.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "ir/Failure.h"
#include "metadata/JsonWalk.h"
#include "output/JsonFile.h"

#if defined(__unix__) || defined(__APPLE__)
#include <unistd.h>
#endif

namespace netforge::graphrefiner {

namespace {

using Allocator = rapidjson::Document::AllocatorType;
using output::copyString;
namespace fs = std::filesystem;

constexpr const char* kSave = "netforge::graphrefiner::ODLTransformManager::saveMetadata";
constexpr const char* kGet = "netforge::graphrefiner::ODLTransformManager::getTransformGraph";
constexpr std::size_t kBufferSize = 65536;

template <class Names>
rapidjson::Value nameArray(const Names& names, Allocator& allocator) {
  rapidjson::Value array(rapidjson::kArrayType);
  for (const std::string& name : names) array.PushBack(copyString(name, allocator), allocator);
  return array;
}

rapidjson::Value shapeArray(const std::vector<std::vector<std::uint32_t>>& shapes, Allocator& allocator) {
  rapidjson::Value array(rapidjson::kArrayType);
  for (const auto& shape : shapes) {
    rapidjson::Value dims(rapidjson::kArrayType);
    for (const std::uint32_t size : shape) dims.PushBack(size, allocator);
    array.PushBack(dims, allocator);
  }
  return array;
}

// Null for a text that is no JSON.
rapidjson::Value parsedValue(const std::string& text, Allocator& allocator) {
  ParsedDocument parsed(&allocator);
  rapidjson::MemoryStream stream(text.data(), text.size());
  rapidjson::Value value;
  if (parsed.parse(stream) && stream.Tell() == text.size()) value.Swap(parsed);
  return value;
}

rapidjson::Value operatorObject(const TransformOp& op, Allocator& allocator) {
  rapidjson::Value attributes(rapidjson::kObjectType);
  for (const auto& [name, text] : op.attributes) {
    attributes.AddMember(copyString(name, allocator), parsedValue(text, allocator), allocator);
  }
  rapidjson::Value object(rapidjson::kObjectType);
  object.AddMember("op_type", copyString(op.opType, allocator), allocator);
  object.AddMember("attributes", attributes, allocator);
  object.AddMember("input_shapes", shapeArray(op.inputShapes, allocator), allocator);
  object.AddMember("output_shapes", shapeArray(op.outputShapes, allocator), allocator);
  return object;
}

rapidjson::Value transformObject(const TransformEntry& entry, Allocator& allocator) {
  rapidjson::Value object(rapidjson::kObjectType);
  object.AddMember("src_tensors", nameArray(entry.srcTensors, allocator), allocator);
  object.AddMember("dest_tensors", nameArray(entry.destTensors, allocator), allocator);
  if (!entry.tensorDtypes.empty()) {
    rapidjson::Value dtypes(rapidjson::kObjectType);
    for (const auto& [name, dtype] : entry.tensorDtypes) {
      dtypes.AddMember(copyString(name, allocator),
                       copyString(TransformGraph::dtypeToString(dtype), allocator), allocator);
    }
    object.AddMember("tensor_dtypes", dtypes, allocator);
  }
  object.AddMember("operator", operatorObject(entry.op, allocator), allocator);
  return object;
}

rapidjson::Value graphObject(const TransformGraph& graph, Allocator& allocator) {
  rapidjson::Value object(rapidjson::kObjectType);
  object.AddMember("execution_order", graph.executionOrder, allocator);
  if (graph.concurrencyName) {
    object.AddMember("concurrency_name", copyString(*graph.concurrencyName, allocator), allocator);
  }
  if (graph.splitNum) object.AddMember("split_num", *graph.splitNum, allocator);
  if (graph.arN) object.AddMember("ar_n", *graph.arN, allocator);
  object.AddMember("input_tensors", nameArray(graph.inputTensors, allocator), allocator);
  object.AddMember("output_tensors", nameArray(graph.outputTensors, allocator), allocator);
  rapidjson::Value transforms(rapidjson::kArrayType);
  for (const TransformEntry* entry : graph.getOrderedTransforms()) {
    transforms.PushBack(transformObject(*entry, allocator), allocator);
  }
  object.AddMember("transforms", transforms, allocator);
  return object;
}

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

bool writeDocument(const rapidjson::Document& document, std::FILE* file) {
  std::vector<char> buffer(kBufferSize);
  rapidjson::FileWriteStream stream(file, buffer.data(), buffer.size());
  rapidjson::PrettyWriter<rapidjson::FileWriteStream> writer(stream);
  writer.SetIndent(' ', 4);
  const bool complete = walkJson(document, writer);
  stream.Flush();
  return complete && std::ferror(file) == 0;  // the stream drops errors of fwrite
}

// The bytes have left the process, and where the system can tell, they lie on the disk.
bool closeFile(File file) {
  bool stored = std::fflush(file.get()) == 0;
#if defined(__unix__) || defined(__APPLE__)
  stored = stored && (::fsync(::fileno(file.get())) == 0 || errno == EINVAL || errno == ENOTSUP);
#endif
  return std::fclose(file.release()) == 0 && stored;
}

// Where the text goes first. A device, a pipe or a file that can't be reached by its own path is written in
// place, as is one in a folder that takes no further file.
struct Destination {
  explicit Destination(const std::string& path) : final(path), written(path) {
    std::error_code error;
    const fs::path resolved = fs::weakly_canonical(path, error);  // the file behind a link, not the link
    if (error) return;
    const fs::file_status status = fs::status(path, error);
    const bool exists = fs::exists(status);
    if (exists && !fs::is_regular_file(status)) return;
    if (exists != fs::exists(resolved, error)) return;
    final = resolved;
    temporary = resolved;
    temporary += ".part";
#if defined(__unix__) || defined(__APPLE__)
    temporary += std::to_string(::getpid());
    if (exists && ::access(path.c_str(), W_OK) != 0) return;
#endif
    file.reset(std::fopen(temporary.c_str(), "wb"));
    if (!file) return;
    written = temporary;
    if (exists) fs::permissions(temporary, status.permissions(), error);
  }

  bool isBeside() const {
    return written != final;
  }

  void discard() const {
    std::error_code error;
    if (isBeside()) fs::remove(written, error);
  }

  bool replace() const {
    std::error_code error;
    if (isBeside()) fs::rename(written, final, error);
    return !error;
  }

  fs::path final;
  fs::path temporary;
  fs::path written;
  File file;
};

}  // namespace

TransformGraph& ODLTransformManager::createTransformGraph(const std::string& name,
                                                          std::int32_t executionOrder,
                                                          const std::optional<std::string>& concurrencyName,
                                                          const std::optional<std::int32_t>& splitNum,
                                                          const std::optional<std::int32_t>& arN) {
  if (graphs.count(name) != 0) {
    fail<std::runtime_error>("netforge::graphrefiner::ODLTransformManager::createTransformGraph",
                             "Transform_graph ", name, " already exists!");
  }
  TransformGraph& graph = graphs[name];
  graph.executionOrder = executionOrder;
  graph.concurrencyName = concurrencyName;
  graph.splitNum = splitNum;
  graph.arN = arN;
  return graph;
}

const TransformGraph& ODLTransformManager::getTransformGraph(const std::string& name) const {
  const auto found = graphs.find(name);
  if (found == graphs.end()) fail<std::runtime_error>(kGet, "Transform graph ", name, " doesn't exist");
  return found->second;
}

TransformGraph& ODLTransformManager::getTransformGraph(const std::string& name) {
  return const_cast<TransformGraph&>(static_cast<const ODLTransformManager&>(*this).getTransformGraph(name));
}

std::vector<std::string> ODLTransformManager::getGraphNames() const {
  std::vector<std::string> names;
  for (const auto& [name, graph] : graphs) names.push_back(name);
  return names;
}

rapidjson::Document ODLTransformManager::toDocument() const {
  rapidjson::Document document(rapidjson::kObjectType);
  Allocator& allocator = document.GetAllocator();
  rapidjson::Value members(rapidjson::kObjectType);
  for (const auto& [name, graph] : graphs) {
    members.AddMember(copyString(name, allocator), graphObject(graph, allocator), allocator);
  }
  document.AddMember("version", "1.0.0", allocator);
  document.AddMember("graphs", members, allocator);
  return document;
}

void ODLTransformManager::saveMetadata(const std::string& path) const {
  const rapidjson::Document document = toDocument();
  Destination destination(path);
  File file = std::move(destination.file);
  if (!file) file.reset(std::fopen(path.c_str(), "wb"));
  if (!file) fail<std::runtime_error>(kSave, "Cannot open file for writing: ", path);
  if (!writeDocument(document, file.get())) {
    file.reset();
    destination.discard();
    fail<std::runtime_error>(kSave, "Failed to write JSON to file: ", path);
  }
  if (!closeFile(std::move(file)) || !destination.replace()) {
    destination.discard();
    fail<std::runtime_error>(kSave, "Failed to close file (data may not be fully written): ", path);
  }
}

}  // namespace netforge::graphrefiner
