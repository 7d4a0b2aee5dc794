#include <algorithm>
#include <array>
#include <queue>
#include <stdexcept>
#include "ir/Failure.h"
#include "metadata/ODLTransformManager.h"

namespace netforge::graphrefiner {

namespace {

using Names = std::vector<std::string>;

constexpr std::array<const char*, 11> kDtypeTexts = {
    "", "float32", "float16", "int8", "int16", "int32", "int64", "uint8", "uint16", "uint32", "uint64"};

// Also for a dtype without a text of its own.
std::string describeDtype(DType dtype) {
  return dtype == DType::Unknown ? "Unknown" : TransformGraph::dtypeToString(dtype);
}

bool isPermutation(const Names& a, const Names& b) {
  return a.size() == b.size() && std::is_permutation(a.begin(), a.end(), b.begin());
}

bool contains(const Names& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

void replaceName(HashedNames& names, const std::string& oldName, const std::string& newName) {
  if (names.erase(oldName) != 0) names.insert(newName);
}

}  // namespace

std::size_t Fnv1aStringHash::operator()(const std::string& text) const {
  std::uint64_t hash = 0xCBF29CE484222325;
  for (const char byte : text) {
    hash ^= static_cast<unsigned char>(byte);
    hash *= 0x100000001B3;
  }
  return static_cast<std::size_t>(hash);
}

TransformEntry* TransformGraph::addTransform(const Names& srcTensors, const Names& destTensors,
                                             const TransformOp& op, bool skipTensorSets,
                                             const std::map<std::string, DType>& dtypes) {
  if (hasTransform(srcTensors, destTensors)) {
    fail<std::runtime_error>("netforge::graphrefiner::TransformGraph::addTransform",
                             "Transform already exists with given src/dest tensors in this graph");
  }
  return appendTransform(srcTensors, destTensors, op, skipTensorSets, dtypes);
}

TransformEntry* TransformGraph::appendTransform(const Names& srcTensors, const Names& destTensors,
                                                const TransformOp& op, bool skipTensorSets,
                                                const std::map<std::string, DType>& dtypes) {
  transforms.push_back(TransformEntry{srcTensors, destTensors, op, dtypes});
  // The arguments may be parts of the graph: from here on the entry's copies count.
  TransformEntry& entry = transforms.back();
  if (skipTensorSets) return &entry;
  if (entry.srcTensors == entry.destTensors && entry.op.opType == "Identity") {
    inputTensors.insert(entry.srcTensors.begin(), entry.srcTensors.end());
    outputTensors.insert(entry.destTensors.begin(), entry.destTensors.end());
  } else {
    for (const std::string& name : entry.srcTensors) {
      if (allDestTensors.count(name) == 0) inputTensors.insert(name);
    }
    for (const std::string& name : entry.destTensors) {
      allDestTensors.insert(name);
      inputTensors.erase(name);
    }
    allSrcTensors.insert(entry.srcTensors.begin(), entry.srcTensors.end());
    for (const std::string& name : entry.destTensors) {
      outputTensors.insert(name);
      if (allSrcTensors.count(name) != 0) outputTensors.erase(name);
    }
    for (const std::string& name : entry.srcTensors) outputTensors.erase(name);
  }
  if (!entry.tensorDtypes.empty()) {
    addTensorDtypes(entry.srcTensors, entry.destTensors, entry.tensorDtypes);
  }
  return &entry;
}

void TransformGraph::addTensorDtypes(const Names& srcTensors, const Names& destTensors,
                                     const std::map<std::string, DType>& dtypes) {
  constexpr const char* function = "netforge::graphrefiner::TransformGraph::addTensorDtypes";
  HashedNames known(srcTensors.begin(), srcTensors.end());
  known.insert(destTensors.begin(), destTensors.end());
  for (const auto& [name, dtype] : dtypes) {
    if (known.count(name) == 0) {
      fail<std::runtime_error>(function, "Tensor ", name,
                               " not found in transform src or dest tensors. Cannot set datatype");
    }
    const DType before = getTensorDtype(name);
    if (before != DType::Unknown && before != dtype) {
      fail<std::runtime_error>(function, "Datatype mismatch for tensor: ", name,
                               ". Already found datatype: ", describeDtype(before),
                               ", Newly specified datatype: ", describeDtype(dtype));
    }
    tensorDtypes[name] = dtype;
  }
}

bool TransformGraph::hasTransform(const Names& srcTensors, const Names& destTensors) const {
  return std::any_of(transforms.begin(), transforms.end(), [&](const TransformEntry& entry) {
    return isPermutation(entry.srcTensors, srcTensors) && isPermutation(entry.destTensors, destTensors);
  });
}

DType TransformGraph::getTensorDtype(const std::string& name) const {
  const auto found = tensorDtypes.find(name);
  return found == tensorDtypes.end() ? DType::Unknown : found->second;
}

void TransformGraph::renameTensor(const std::string& givenOld, const std::string& givenNew,
                                  bool keepInputNames, bool keepOutputNames) {
  const std::string oldName = givenOld;  // either may be an element of what is renamed
  const std::string newName = givenNew;
  if (oldName == newName) return;
  replaceName(allDestTensors, oldName, newName);
  replaceName(allSrcTensors, oldName, newName);
  const bool keepSources = keepInputNames && inputTensors.count(oldName) != 0;
  if (!keepInputNames) replaceName(inputTensors, oldName, newName);
  if (!keepOutputNames) replaceName(outputTensors, oldName, newName);
  for (TransformEntry& entry : transforms) {
    if (!keepSources) std::replace(entry.srcTensors.begin(), entry.srcTensors.end(), oldName, newName);
    std::replace(entry.destTensors.begin(), entry.destTensors.end(), oldName, newName);
    const auto dtype = entry.tensorDtypes.find(oldName);
    // An entry names the dtypes of its own tensors alone, or its file could not be read again.
    if (dtype == entry.tensorDtypes.end()) continue;
    if (contains(entry.srcTensors, newName) || contains(entry.destTensors, newName)) {
      entry.tensorDtypes[newName] = dtype->second;
    }
    if (!contains(entry.srcTensors, oldName)) entry.tensorDtypes.erase(oldName);
  }
  const DType dtype = getTensorDtype(oldName);
  if (dtype != DType::Unknown) {
    tensorDtypes.erase(oldName);
    tensorDtypes[newName] = dtype;
  }
}

// Waves from the inputs of the graph: an entry is taken behind the last of the entries that it waits for.
std::vector<const TransformEntry*> TransformGraph::getOrderedTransforms() const {
  using Places = std::vector<std::size_t>;
  std::unordered_map<std::string, std::size_t, Fnv1aStringHash> producers;  // of several the last
  std::unordered_map<std::string, Places, Fnv1aStringHash> readers;
  for (std::size_t place = 0; place < transforms.size(); ++place) {
    for (const std::string& name : transforms[place].destTensors) producers[name] = place;
    for (const std::string& name : transforms[place].srcTensors) {
      Places& list = readers[name];
      if (list.empty() || list.back() != place) list.push_back(place);
    }
  }
  std::vector<bool> visited(transforms.size(), false);
  std::queue<std::size_t> waiting;
  const auto take = [&](std::size_t place) {
    visited[place] = true;
    waiting.push(place);
  };
  for (std::size_t place = 0; place < transforms.size(); ++place) {
    const Names& sources = transforms[place].srcTensors;
    const bool waits = std::any_of(sources.begin(), sources.end(), [&](const std::string& name) {
      return inputTensors.count(name) == 0 && allDestTensors.count(name) != 0;
    });
    if (!waits) take(place);
  }
  const auto isReady = [&](const std::string& name) {
    if (inputTensors.count(name) != 0) return true;
    const auto producer = producers.find(name);
    return producer != producers.end() && visited[producer->second];
  };
  std::vector<const TransformEntry*> ordered;
  for (; !waiting.empty(); waiting.pop()) {
    const TransformEntry& entry = transforms[waiting.front()];
    ordered.push_back(&entry);
    for (const std::string& name : entry.destTensors) {
      const auto list = readers.find(name);
      if (list == readers.end()) continue;
      for (const std::size_t place : list->second) {
        const Names& sources = transforms[place].srcTensors;
        if (!visited[place] && std::all_of(sources.begin(), sources.end(), isReady)) take(place);
      }
    }
  }
  return ordered;
}

DType TransformGraph::dtypeFromString(const std::string& text) {
  const auto found = std::find(kDtypeTexts.begin() + 1, kDtypeTexts.end(), text);
  if (found == kDtypeTexts.end()) {
    fail<std::runtime_error>("netforge::graphrefiner::TransformGraph::dtypeFromString",
                             "Unknown dtype string: '", text, "'");
  }
  return static_cast<DType>(found - kDtypeTexts.begin());
}

std::string TransformGraph::dtypeToString(DType dtype) {
  const auto place = static_cast<std::size_t>(dtype);
  if (place == 0 || place >= kDtypeTexts.size()) {
    fail<std::runtime_error>("netforge::graphrefiner::TransformGraph::dtypeToString",
                             "Cannot convert DType::Unknown to string");
  }
  return kDtypeTexts[place];
}

}  // namespace netforge::graphrefiner
