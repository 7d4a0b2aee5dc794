#pragma once

#include <cstdint>
#include <memory>
#include <vector>
#include "GraphRefiner/src/GraphRefinerContext.h"

namespace netforge {
class BackendInfo;
}

namespace netforge::graphrefiner {

/// States which passes a stage runs, and in which order. A fixed list: the enable and disable lists of the
/// context filter it later, in the manager.
class PassPipeline {
 public:
  virtual ~PassPipeline();
  /// The list of `PostLayout`, a copy; empty for every other stage. `backendInfo` may be null and is not
  /// read.
  virtual std::vector<PassId> getPasses(const std::shared_ptr<BackendInfo>& backendInfo,
                                        OptimizationStage stage) = 0;
};

/// The passes for every backend.
class DefaultPassPipeline : public PassPipeline {
 public:
  std::vector<PassId> getPasses(const std::shared_ptr<BackendInfo>& backendInfo,
                                OptimizationStage stage) override;
};

/// What the neural accelerator backend needs on top of the default passes.
class NPXPassPipeline : public PassPipeline {
 public:
  std::vector<PassId> getPasses(const std::shared_ptr<BackendInfo>& backendInfo,
                                OptimizationStage stage) override;
};

/// The pipeline of a backend kind as `mapBackendKind` counts it: 7 the default one, 3 that of the
/// accelerator, null for every other kind.
std::shared_ptr<PassPipeline> createPassPipeline(std::uint32_t kind);

}  // namespace netforge::graphrefiner
