#pragma once

#include <cstdint>

namespace netforge {

/// Describes the backend that a graph is prepared for. The kind alone selects a pass pipeline: 3 is the
/// accelerator; the other kinds have no pipeline of their own.
class BackendInfo {
 public:
  explicit BackendInfo(std::uint8_t backendKind);
  virtual ~BackendInfo();

  std::uint8_t getBackendKind() const;

 private:
  std::uint8_t backendKind;
};

}  // namespace netforge
