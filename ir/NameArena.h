#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

namespace netforge {

/// Keeps the characters of many names side by side, in the order of storing. A walk over names that were
/// stored one after the other then runs through memory in order, which strings of their own, spread between
/// everything else that was allocated meanwhile, don't.
class NameArena {
 public:
  /// Copies a name; the view is valid as long as the arena.
  std::string_view store(std::string_view name) {
    if (name.size() > room_) {
      room_ = std::max(kBlockSize, name.size());
      blocks_.push_back(std::make_unique<char[]>(room_));
      next_ = blocks_.back().get();
    }
    std::copy(name.begin(), name.end(), next_);
    const std::string_view stored(next_, name.size());
    next_ += name.size();
    room_ -= name.size();
    stored_ += name.size();
    return stored;
  }

  /// Marks a stored name as unused; its space is not used again.
  void release(std::string_view stored) { released_ += stored.size(); }

  /// True when most of a large arena is unused, so that storing the rest anew pays.
  bool isMostlyUnused() const { return released_ > kBlockSize && released_ * 2 > stored_; }

 private:
  static constexpr std::size_t kBlockSize = 32768;

  std::vector<std::unique_ptr<char[]>> blocks_;
  char* next_ = nullptr;
  std::size_t room_ = 0;
  std::size_t stored_ = 0;
  std::size_t released_ = 0;
};

}  // namespace netforge
