// Feeds the reader of transform metadata files with whatever the fuzzer makes up. A file is either refused
// with a std::runtime_error, or it can be saved, and what was saved can be read again and holds the same.

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>

#include "metadata/ODLTransformManager.h"

using netforge::graphrefiner::ODLTransformManager;
using netforge::graphrefiner::TransformGraph;

namespace {

// Nesting that the indentation of the saved file blows up beyond all measure.
constexpr int kDeepestSaved = 200;

const std::string& filePath() {
  static const std::string path =
      (std::filesystem::temp_directory_path() / ("metadata_fuzz_" + std::to_string(::getpid()))).string();
  return path;
}

struct RemoveFile {
  ~RemoveFile() { std::remove(filePath().c_str()); }
};

void writeFile(const std::uint8_t* data, std::size_t size) {
  std::FILE* file = std::fopen(filePath().c_str(), "wb");
  if (file == nullptr || (size != 0 && std::fwrite(data, 1, size, file) != size) || std::fclose(file) != 0) {
    std::cerr << "the fuzzer's own file can't be written\n";
    std::exit(1);
  }
}

int deepest(const std::uint8_t* data, std::size_t size) {
  int depth = 0;
  int most = 0;
  for (std::size_t i = 0; i < size; ++i) {
    depth += (data[i] == '[' || data[i] == '{') - (data[i] == ']' || data[i] == '}');
    most = std::max(most, depth);
  }
  return most;
}

void require(bool holds, const char* what) {
  if (holds) return;
  std::cerr << "the saved file has other " << what << '\n';
  std::abort();
}

void compare(const TransformGraph& before, const TransformGraph& after) {
  require(before.executionOrder == after.executionOrder, "execution orders");
  require(before.concurrencyName == after.concurrencyName, "concurrency names");
  require(before.splitNum == after.splitNum && before.arN == after.arN, "numbers");
  require(before.inputTensors == after.inputTensors && before.outputTensors == after.outputTensors, "lists");
  const auto ordered = before.getOrderedTransforms();
  require(ordered.size() == after.transforms.size(), "transforms");
  for (std::size_t i = 0; i < ordered.size(); ++i) {
    const auto& saved = after.transforms[i];
    require(ordered[i]->srcTensors == saved.srcTensors && ordered[i]->destTensors == saved.destTensors,
            "tensors");
    require(ordered[i]->tensorDtypes == saved.tensorDtypes, "dtypes");
    require(ordered[i]->op.opType == saved.op.opType, "operators");
    require(ordered[i]->op.attributes == saved.op.attributes, "attributes");
    require(ordered[i]->op.inputShapes == saved.op.inputShapes, "input shapes");
    require(ordered[i]->op.outputShapes == saved.op.outputShapes, "output shapes");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const RemoveFile remover;
  writeFile(data, size);
  ODLTransformManager manager;
  try {
    manager.loadMetadata(filePath());
  } catch (const std::runtime_error&) {
    return 0;
  }
  if (deepest(data, size) > kDeepestSaved) return 0;
  manager.saveMetadata(filePath());
  ODLTransformManager again;
  again.loadMetadata(filePath());
  require(manager.getGraphNames() == again.getGraphNames(), "graphs");
  for (const std::string& name : manager.getGraphNames()) {
    compare(manager.getTransformGraph(name), again.getTransformGraph(name));
  }
  return 0;
}
