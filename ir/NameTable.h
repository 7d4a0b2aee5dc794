#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

namespace netforge {

/// Open-addressing hash table from names to slots of a dense array that somebody else holds.
///
/// A cell is eight bytes: 32 bits of the name's hash and the slot. The names stay with the slots' owner, so
/// a probe runs over one small array and touches a name only when the hashes agree, and growing the table
/// moves cells without reading a name. Linear probing, at most four fifths full, deletion by shifting back
/// (no tombstones, so that a long life of renames does not slow the probes down). The order of the cells
/// follows from hashes and is never shown.
class NameTable {
 public:
  static constexpr std::uint32_t npos = 0xFFFFFFFFu;

  static std::uint32_t hashOf(std::string_view name) {
    const std::uint64_t hash = std::hash<std::string_view>{}(name);
    return static_cast<std::uint32_t>(hash ^ (hash >> 32));
  }

  std::size_t size() const { return count_; }

  /// The slot with this hash for which `isSame(slot)` holds, or npos.
  template <class IsSame>
  std::uint32_t find(std::uint32_t hash, const IsSame& isSame) const {
    if (count_ == 0) return npos;
    for (std::size_t i = hash & mask();; i = (i + 1) & mask()) {
      const Cell& cell = cells_[i];
      if (cell.slot == npos) return npos;
      if (cell.hash == hash && isSame(cell.slot)) return cell.slot;
    }
  }

  /// Enters a slot. The caller has made sure that its name is not in the table.
  void insert(std::uint32_t hash, std::uint32_t slot) {
    if (isFull(count_ + 1)) grow();
    place(Cell{hash, slot});
    ++count_;
  }

  /// Takes a slot that is in the table out of it.
  void erase(std::uint32_t hash, std::uint32_t slot) {
    if (count_ == 0) return;
    std::size_t hole = hash & mask();
    while (cells_[hole].slot != slot) {
      if (cells_[hole].slot == npos) return;
      hole = (hole + 1) & mask();
    }
    for (std::size_t i = (hole + 1) & mask(); cells_[i].slot != npos; i = (i + 1) & mask()) {
      // A cell may fill the hole unless its home lies behind the hole on the way to the cell.
      const std::size_t home = cells_[i].hash & mask();
      if (((i - home) & mask()) < ((i - hole) & mask())) continue;
      cells_[hole] = cells_[i];
      hole = i;
    }
    cells_[hole] = Cell{};
    --count_;
  }

  void clear() {
    cells_.clear();
    count_ = 0;
  }

  void reserve(std::size_t names) {
    while (isFull(names)) grow();
  }

 private:
  struct Cell {
    std::uint32_t hash = 0;
    std::uint32_t slot = npos;
  };

  bool isFull(std::size_t count) const { return count * 5 > cells_.size() * 4; }

  std::size_t mask() const { return cells_.size() - 1; }

  void place(const Cell& cell) {
    std::size_t i = cell.hash & mask();
    while (cells_[i].slot != npos) i = (i + 1) & mask();
    cells_[i] = cell;
  }

  void grow() {
    std::vector<Cell> old(cells_.empty() ? 16 : cells_.size() * 2);
    old.swap(cells_);
    for (const Cell& cell : old) {
      if (cell.slot != npos) place(cell);
    }
  }

  std::vector<Cell> cells_;
  std::size_t count_ = 0;
};

}  // namespace netforge
