#include "GraphRefiner/src/PassRegistry.h"

#include <stdexcept>
#include "GraphRefiner/src/PassBuilders.h"
#include "ir/BackendInfo.h"
#include "ir/Failure.h"

namespace netforge::graphrefiner {

namespace {

struct PassRow {
  PassId id;
  const char* name;
  PassRunMode runMode;
  std::shared_ptr<Pass> (*build)();
};

// A constant expression: registration reads it while other files' statics are still being initialised.
constexpr PassRow kPassRows[] = {
#define NETFORGE_PASS(name, runMode) {PassId::name, #name, PassRunMode::runMode, &build##name},
#include "GraphRefiner/src/PassTable.def"
#undef NETFORGE_PASS
};

const PassRow* findRow(PassId id) {
  const auto number = static_cast<std::size_t>(id);
  return number < std::size(kPassRows) ? &kPassRows[number] : nullptr;
}

const PassRow& requireRow(PassId id) {
  const PassRow* row = findRow(id);
  if (row == nullptr) {
    fail<std::runtime_error>("netforge::graphrefiner::getPassNameFromPassId", " Invalid pass Id ");
  }
  return *row;
}

}  // namespace

Pass::~Pass() = default;

PassRegistry::PassRegistry() {
  passNames.reserve(std::size(kPassRows));
  for (const PassRow& row : kPassRows) passNames.emplace_back(row.name);
}

PassRegistry::PassTable& PassRegistry::table(OptimizationStage stage) {
  const auto number = static_cast<std::uint32_t>(stage);
  if (number >= tables.size()) {
    fail<std::out_of_range>("netforge::graphrefiner::PassRegistry::table", "Invalid optimization stage ",
                            number);
  }
  return tables[number];
}

const std::vector<std::string>& PassRegistry::registeredPassNames() const {
  return passNames;
}

PassRegistry& getPassRegistry() {
  static PassRegistry registry;
  return registry;
}

std::shared_ptr<Pass> createPass(PassId id) {
  const PassRow* row = findRow(id);
  return row != nullptr ? row->build() : nullptr;
}

PassRunMode getPassRunMode(PassId id) {
  return requireRow(id).runMode;
}

std::string getPassNameFromPassId(PassId id) {
  return requireRow(id).name;
}

PassId getPassIdFromPassName(const std::string& name) {
  for (const PassRow& row : kPassRows) {
    if (name == row.name) return row.id;
  }
  fail<std::runtime_error>("netforge::graphrefiner::getPassIdFromPassName",
                           " Invalid pass, No pass registered with the name: ", name);
}

std::vector<std::string> getRegisteredPassNames() {
  return getPassRegistry().registeredPassNames();
}

std::map<std::string, bool> getDumpPassConfig(const std::shared_ptr<BackendInfo>& backendInfo) {
  const std::uint32_t kind = mapBackendKind(backendInfo);
  std::map<std::string, bool> result;
  for (const OptimizationStage stage : {OptimizationStage::PreLayout, OptimizationStage::PostLayout,
                                        OptimizationStage::PreQuant, OptimizationStage::PostQuant}) {
    for (const auto& [id, pass] : getPassRegistry().table(stage)) {
      if (pass->backends.count(kind) != 0) result[getPassNameFromPassId(id)] = pass->enableMode == 0;
    }
  }
  return result;
}

std::uint32_t mapBackendKind(const std::shared_ptr<BackendInfo>& backendInfo) {
  if (!backendInfo) return 7;
  const std::uint32_t kind = backendInfo->getBackendKind();
  return kind <= 6 ? kind : 8;
}

}  // namespace netforge::graphrefiner
