#pragma once

#include <cstdint>
#include <cstring>

namespace netforge::graphrefiner {

/// Element `index` of a buffer that may be borrowed and so need not be aligned for T.
template <class T>
T loadElement(const std::uint8_t* data, std::uint64_t index) {
  T value;
  std::memcpy(&value, data + index * sizeof(T), sizeof(T));
  return value;
}

}  // namespace netforge::graphrefiner
