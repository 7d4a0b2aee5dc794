#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>
#include "ir/NameArena.h"
#include "ir/NameTable.h"

namespace netforge {

/// Values by name: hashed for lookups and edits, ordered on demand.
///
/// The entries lie densely in the order of adding (freed places are used again), which keeps a walk in the
/// order of building friendly to the caches. `sorted()` gives the entries as a std::map in byte-wise order;
/// the map is built at the first call and then follows the edits: a removal takes its node out at once (so
/// that no removed value is kept alive), additions are entered at the next call. A map that nobody looks at
/// while as many names are added as there are is dropped.
///
/// `Value` is a shared pointer. Keys are the index's own copies: renaming a value by hand does not disturb
/// the index, it only makes it wrong.
template <class Value>
class NameIndex {
 public:
  using Map = std::map<std::string, Value>;

  NameIndex() = default;
  NameIndex(const NameIndex&) = delete;
  NameIndex& operator=(const NameIndex&) = delete;

  std::size_t size() const { return table_.size(); }

  /// The value of that name, or null. The pointer is valid until the next edit.
  const Value* find(const std::string& name) const {
    std::uint32_t slot = guess_;
    if (slot >= entries_.size() || entries_[slot].key != name || entries_[slot].value == nullptr) {
      slot = slotOf(name, NameTable::hashOf(name));
      if (slot == NameTable::npos) return nullptr;
    } else {
      fetchAhead(slot);
    }
    guess_ = slot + 1;
    return &entries_[slot].value;
  }

  bool contains(const std::string& name) const { return find(name) != nullptr; }

  /// Enters a value, or puts it in the place of the value that bears the name.
  void set(const std::string& name, const Value& value) {
    const std::uint32_t hash = NameTable::hashOf(name);
    const std::uint32_t known = slotOf(name, hash);
    if (known == NameTable::npos) {
      add(name, hash, value);
      return;
    }
    Entry& entry = entries_[known];
    if (entry.inMap) entry.place->second = value;
    entry.value = value;
  }

  /// Enters a value under a new name; false, and no change, when the name is taken.
  bool insert(const std::string& name, const Value& value) {
    const std::uint32_t hash = NameTable::hashOf(name);
    if (slotOf(name, hash) != NameTable::npos) return false;
    add(name, hash, value);
    return true;
  }

  /// Takes a name out and gives its value, null when the name is absent. The value outlives the call, so
  /// `name` may be a reference into it.
  Value take(const std::string& name) {
    const std::uint32_t hash = NameTable::hashOf(name);
    const std::uint32_t slot = slotOf(name, hash);
    if (slot == NameTable::npos) return nullptr;
    Entry& entry = entries_[slot];
    Value value = std::move(entry.value);
    entry.value = nullptr;
    if (entry.inMap) map_.erase(entry.place);
    entry.inMap = false;
    table_.erase(hash, slot);
    names_.release(entry.key);
    entry.key = {};
    free_.push_back(slot);
    if (names_.isMostlyUnused()) storeNamesAnew();
    return value;
  }

  /// All entries in byte-wise order of the names. Additions after the call show at the next call.
  const Map& sorted() const {
    if (!mapBuilt_) {
      buildMap();
      return map_;
    }
    for (const std::uint32_t slot : pending_) {
      const Entry& entry = entries_[slot];
      if (entry.value == nullptr || entry.inMap) continue;  // removed again, or its place used twice
      entry.place = map_.emplace(std::string(entry.key), entry.value).first;
      entry.inMap = true;
    }
    pending_.clear();
    return map_;
  }

 private:
  struct Entry {
    std::string_view key;  // in names_
    Value value;
    mutable typename Map::iterator place{};  // of the entry's node while inMap
    mutable bool inMap = false;
  };

  // On a walk in the order of adding, brings the value of a later lookup on its way: values lie all over the
  // heap, and whoever asks for one touches at least its reference count.
  void fetchAhead(std::uint32_t slot) const {
#if defined(__GNUC__)
    constexpr std::size_t kDistance = 8;
    if (slot + kDistance < entries_.size()) __builtin_prefetch(entries_[slot + kDistance].value.get(), 1);
#else
    static_cast<void>(slot);
#endif
  }

  std::uint32_t slotOf(const std::string& name, std::uint32_t hash) const {
    return table_.find(hash, [&](std::uint32_t slot) { return entries_[slot].key == name; });
  }

  void add(const std::string& name, std::uint32_t hash, const Value& value) {
    std::uint32_t slot = 0;
    if (free_.empty()) {
      slot = static_cast<std::uint32_t>(entries_.size());
      entries_.emplace_back();
    } else {
      slot = free_.back();
      free_.pop_back();
    }
    Entry& entry = entries_[slot];
    entry.key = names_.store(name);
    entry.value = value;
    table_.insert(hash, slot);
    guess_ = slot;
    if (!mapBuilt_) return;
    pending_.push_back(slot);
    if (pending_.size() > std::max<std::size_t>(1024, table_.size())) dropMap();
  }

  void storeNamesAnew() {
    NameArena fresh;
    for (Entry& entry : entries_) {
      if (entry.value != nullptr) entry.key = fresh.store(entry.key);
    }
    names_ = std::move(fresh);
  }

  void buildMap() const {
    std::vector<std::uint32_t> order;
    order.reserve(table_.size());
    for (std::uint32_t slot = 0; slot < entries_.size(); ++slot) {
      if (entries_[slot].value != nullptr) order.push_back(slot);
    }
    std::sort(order.begin(), order.end(),
              [this](std::uint32_t a, std::uint32_t b) { return entries_[a].key < entries_[b].key; });
    for (const std::uint32_t slot : order) {
      const Entry& entry = entries_[slot];
      entry.place = map_.emplace_hint(map_.end(), std::string(entry.key), entry.value);
      entry.inMap = true;
    }
    mapBuilt_ = true;
  }

  void dropMap() {
    for (Entry& entry : entries_) entry.inMap = false;
    map_.clear();
    pending_.clear();
    mapBuilt_ = false;
  }

  NameArena names_;
  std::vector<Entry> entries_;
  std::vector<std::uint32_t> free_;
  NameTable table_;
  mutable std::uint32_t guess_ = 0;  // where the next lookup looks first
  mutable Map map_;
  mutable bool mapBuilt_ = false;
  mutable std::vector<std::uint32_t> pending_;  // slots added since the map was looked at
};

}  // namespace netforge
