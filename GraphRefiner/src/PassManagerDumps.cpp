// The part of PassManager that watches ops across a pass and dumps the graph by op type.
#include "GraphRefiner/src/PassManager.h"

#include <algorithm>
#include "ir/IrGraph.h"
#include "output/ModelDump.h"

namespace netforge::graphrefiner {

namespace {

constexpr std::uint64_t kGoldenRatio =
    0x9E3779B9;  // 2^32 over the golden ratio, as in the usual hash combiner

// 64-bit FNV-1a.
std::uint64_t hashText(const std::string& text) {
  std::uint64_t hash = 0xCBF29CE484222325;
  for (const char c : text) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 0x100000001B3;
  }
  return hash;
}

std::uint64_t hashBytes(const std::uint8_t* data, std::uint32_t size) {
  std::uint64_t hash = size;
  if (data == nullptr) return hash;
  for (std::uint32_t i = 0; i < size; ++i) {
    const std::uint64_t spread = (data[i] * 0x99u) % 256u;
    const std::uint64_t term = (spread + kGoldenRatio) % (std::uint64_t{1} << 32);
    hash ^= term + hash * 64 + (hash >> 2);
  }
  return hash;
}

}  // namespace

std::uint64_t PassManager::opFingerprint(const std::shared_ptr<ops::IrOp>& op) {
  std::string text = op->getType();
  std::uint64_t bytes = 0;
  for (const auto& tensor : op->getInputs()) {
    text += tensor->getName();
    const auto constant = std::dynamic_pointer_cast<IrStaticTensor>(tensor);
    if (!constant || !constant->isStatic()) continue;
    const std::uint8_t* data = constant->getData();
    const std::uint64_t hash = hashBytes(data, constant->getDataSize());
    bytes ^= (bytes << 6) + hash + kGoldenRatio + (bytes >> 2);
  }
  for (const auto& tensor : op->getOutputs()) text += tensor->getName();
  const std::uint64_t hash = hashText(text);
  return hash ^ (kGoldenRatio + (hash >> 2) + (hash << 6) + bytes);
}

bool PassManager::dumpsPass(const std::string& passName) const {
  const auto& names = context.dump_ir_pass_names;
  return names.empty() || std::find(names.begin(), names.end(), passName) != names.end();
}

PassManager::OpHashes PassManager::hashWatchedOps(const std::shared_ptr<IrGraph>& graph) const {
  const std::set<std::string> watched(context.dump_ir_op_types.begin(), context.dump_ir_op_types.end());
  OpHashes hashes;
  if (watched.empty()) return hashes;
  for (const auto& op : graph->getOps()) {
    if (watched.count(op->getType()) != 0) hashes[op->getType()].insert(opFingerprint(op));
  }
  return hashes;
}

bool PassManager::dumpChangedOpTypes(const std::shared_ptr<IrGraph>& graph, const OpHashes& before,
                                     const std::string& suffix) const {
  std::set<std::string> remaining(context.dump_ir_op_types.begin(), context.dump_ir_op_types.end());
  if (remaining.empty()) return false;
  std::set<std::string> visited;
  // The graph stands still during the walk, so a type's file is written once.
  std::set<std::string> dumped;
  const auto dumpType = [&](const std::string& type) {
    if (dumped.insert(type).second) dumpModelJson(graph, type + suffix);
  };
  for (const auto& op : graph->getOps()) {
    const std::string& type = op->getType();
    visited.insert(type);
    if (remaining.count(type) != 0) {
      const auto known = before.find(type);
      if (known == before.end() || known->second.count(opFingerprint(op)) == 0) {
        remaining.erase(type);
        dumpType(type);
      }
    }
    // Types that the pass may have removed altogether. A type whose first op comes later counts too: what
    // matters is that no change of a watched type goes without a dump.
    for (const std::string& other : remaining) {
      if (visited.count(other) == 0 && before.count(other) != 0) dumpType(other);
    }
  }
  return !dumped.empty();
}

}  // namespace netforge::graphrefiner
