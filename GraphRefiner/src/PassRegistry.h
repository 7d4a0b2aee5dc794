#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>
#include "GraphRefiner/src/GraphRefinerContext.h"
#include "GraphRefiner/src/Pass.h"

namespace netforge {
class BackendInfo;
}

namespace netforge::graphrefiner {

/// The single table of all passes, one ordered table per stage. Complete after library load and read-only
/// from then on; destroyed at process end.
class PassRegistry {
 public:
  using PassTable = std::map<PassId, std::shared_ptr<Pass>>;

  PassRegistry();

  /// The table of a stage, in the order of the pass numbers. Throws std::out_of_range for a value outside 0
  /// to 3.
  PassTable& table(OptimizationStage stage);
  /// The names of all passes in the order of their numbers, whether or not they have been registered.
  const std::vector<std::string>& registeredPassNames() const;

 private:
  std::array<PassTable, 4> tables;
  std::vector<std::string> passNames;
};

/// The process-wide registry, built on first use.
PassRegistry& getPassRegistry();

/// Builds the pass object of an id; null for an id that the pass table lacks. The fields that registration
/// sets stand at their defaults.
std::shared_ptr<Pass> createPass(PassId id);

/// The run mode that the pass table states. Throws like `getPassNameFromPassId`.
PassRunMode getPassRunMode(PassId id);

/// Throws std::runtime_error for an id that the pass table lacks.
std::string getPassNameFromPassId(PassId id);

/// The comparison is exact and case-sensitive. Throws std::runtime_error for an unknown name.
PassId getPassIdFromPassName(const std::string& name);

/// A copy of the registry's name list.
std::vector<std::string> getRegisteredPassNames();

/// For each registered pass that is meant for the kind of `backendInfo` (see `mapBackendKind`): whether it
/// runs without being enabled by name. Ordered by pass name. `backendInfo` may be null.
std::map<std::string, bool> getDumpPassConfig(const std::shared_ptr<BackendInfo>& backendInfo);

/// The backend kind as passes and pipelines count it: 7 without a backend, 0 to 6 as they are, else 8.
std::uint32_t mapBackendKind(const std::shared_ptr<BackendInfo>& backendInfo);

}  // namespace netforge::graphrefiner
