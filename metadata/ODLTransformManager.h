#pragma once

#include <rapidjson/document.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace netforge::graphrefiner {

/// Element types of the transform metadata file. The texts are "float32", "int8" and so on; Unknown has none.
enum class DType : std::uint32_t {
  Unknown = 0,
  Float32 = 1,
  Float16 = 2,
  Int8 = 3,
  Int16 = 4,
  Int32 = 5,
  Int64 = 6,
  Uint8 = 7,
  Uint16 = 8,
  Uint32 = 9,
  Uint64 = 10
};

/// 64-bit FNV-1a over the bytes, so that walks over the sets don't depend on the standard library's hash.
struct Fnv1aStringHash {
  std::size_t operator()(const std::string& text) const;
};
using HashedNames = std::unordered_set<std::string, Fnv1aStringHash>;

/// The operator of a transform.
struct TransformOp {
  std::string opType;                             ///< such as "Transpose" or "Identity"
  std::map<std::string, std::string> attributes;  ///< each value is a JSON text
  std::vector<std::vector<std::uint32_t>> inputShapes;
  std::vector<std::vector<std::uint32_t>> outputShapes;
};

/// One transform, from its sources to its destinations.
struct TransformEntry {
  std::vector<std::string> srcTensors;
  std::vector<std::string> destTensors;
  TransformOp op;
  std::map<std::string, DType> tensorDtypes;  ///< of sources and destinations, as given with the transform
};

/// The transforms between the tensors of one model, with the sets that follow from them.
class TransformGraph {
 public:
  std::deque<TransformEntry> transforms;  ///< in the order of adding; entries stay where they are in memory
  HashedNames inputTensors;               ///< sources of the graph as a whole
  HashedNames outputTensors;              ///< results of the graph as a whole
  HashedNames allDestTensors;
  HashedNames allSrcTensors;
  std::unordered_map<std::string, DType, Fnv1aStringHash> tensorDtypes;  ///< over all transforms
  std::int32_t executionOrder = 0;
  std::optional<std::string> concurrencyName;
  std::optional<std::int32_t> splitNum;
  std::optional<std::int32_t> arN;

  /// Appends a transform and brings the sets up to date, unless `skipTensorSets` says to leave them and the
  /// graph's dtypes alone. The result is valid for the life of the graph. Throws std::runtime_error when a
  /// transform of these sources and destinations is there already, in whatever order, and what
  /// `addTensorDtypes` throws; the transform stays appended then.
  TransformEntry* addTransform(const std::vector<std::string>& srcTensors,
                               const std::vector<std::string>& destTensors, const TransformOp& op,
                               bool skipTensorSets, const std::map<std::string, DType>& tensorDtypes);
  /// Records dtypes of the given tensors. Throws std::runtime_error for a name that is not among them, and
  /// for another dtype than the known one.
  void addTensorDtypes(const std::vector<std::string>& srcTensors,
                       const std::vector<std::string>& destTensors,
                       const std::map<std::string, DType>& tensorDtypes);
  /// Whether there is a transform of these sources and destinations, in whatever order.
  bool hasTransform(const std::vector<std::string>& srcTensors,
                    const std::vector<std::string>& destTensors) const;
  DType getTensorDtype(const std::string& name) const;  ///< Unknown when there is none
  /// Renames a tensor in the sets and in every transform. With `keepInputNames` the set of inputs keeps the
  /// old name, and so do the sources of transforms when it is an input; with `keepOutputNames` the set of
  /// outputs keeps it.
  void renameTensor(const std::string& oldName, const std::string& newName, bool keepInputNames,
                    bool keepOutputNames);
  /// The transforms with every one behind those that it reads from. One that can't be reached (a cycle, a
  /// source that is neither an input nor a result) is left out. Valid as long as the graph.
  std::vector<const TransformEntry*> getOrderedTransforms() const;

  static DType dtypeFromString(const std::string& text);  ///< std::runtime_error for an unknown text
  static std::string dtypeToString(DType dtype);          ///< std::runtime_error for Unknown

 private:
  friend class ODLTransformManager;

  // addTransform without the search for an equal transform, whose cost grows with the graph.
  TransformEntry* appendTransform(const std::vector<std::string>& srcTensors,
                                  const std::vector<std::string>& destTensors, const TransformOp& op,
                                  bool skipTensorSets, const std::map<std::string, DType>& tensorDtypes);
};

/// A transform metadata file in memory: transform graphs by name. Made for one cycle of load, change, save.
/// All failures are std::runtime_error.
class ODLTransformManager {
 public:
  /// Adds the graphs of a file. Throws for a file that can't be opened, is no JSON in UTF-8 or breaks the
  /// format, and for a graph whose name is taken; graphs in front of the fault stay entered.
  void loadMetadata(const std::string& path);
  /// Writes all graphs. An existing regular file is replaced only by a complete one: the text goes into a
  /// file beside it, which takes its place in one step at the end.
  void saveMetadata(const std::string& path) const;
  /// Adds an empty graph; the reference is valid as long as the manager. Throws for a name that is taken.
  TransformGraph& createTransformGraph(const std::string& name, std::int32_t executionOrder,
                                       const std::optional<std::string>& concurrencyName,
                                       const std::optional<std::int32_t>& splitNum,
                                       const std::optional<std::int32_t>& arN);
  /// Throws for a name that is not there.
  TransformGraph& getTransformGraph(const std::string& name);
  const TransformGraph& getTransformGraph(const std::string& name) const;
  std::vector<std::string> getGraphNames() const;  ///< in byte-wise order
  /// The whole file as a JSON document, which holds copies of all texts. The nesting of attributes has no
  /// bound: walk it with `walkJson`, as RapidJSON's own Accept goes as deep on the stack.
  rapidjson::Document toDocument() const;

 private:
  void loadGraph(const std::string& name, const rapidjson::Value& object, const std::string& path);

  std::map<std::string, TransformGraph> graphs;
};

}  // namespace netforge::graphrefiner
