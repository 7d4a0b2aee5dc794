#pragma once

#include <cstring>
#include <type_traits>

namespace netforge {

/// A record whose every byte is zero, padding and all members of unions included, which an initializer
/// doesn't promise.
template <class Record>
Record zeroedRecord() {
  static_assert(std::is_trivially_copyable_v<Record>);
  Record record;
  std::memset(&record, 0, sizeof record);
  return record;
}

}  // namespace netforge
