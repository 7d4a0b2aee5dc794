#include "ir/BackendInfo.h"

namespace netforge {

BackendInfo::BackendInfo(std::uint8_t kind) : backendKind(kind) {}

BackendInfo::~BackendInfo() = default;

std::uint8_t BackendInfo::getBackendKind() const {
  return backendKind;
}

}  // namespace netforge
