#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "ir/NameTable.h"
#include "ir/Trace.h"

namespace netforge {

/// A list of sources in order of first addition, without duplicates. Long lists are hashed, so that joining
/// the sources of many records stays linear.
class TraceSourceList {
 public:
  void add(const TraceSource& source);
  void add(const std::vector<TraceSource>& sources);
  const std::vector<TraceSource>& sources() const { return sources_; }

 private:
  bool holds(const TraceSource& source, std::uint32_t hash) const;

  std::vector<TraceSource> sources_;
  NameTable table_;  // filled once the list is long
};

/// Trace records, at most one per name, in the order in which they were appended.
///
/// Records are found by a hashed index. Sources that go in front of those of a long record are kept apart and
/// joined when the record is looked at, so that a record can grow source by source at a constant cost each. A
/// removal leaves a dead place behind; places are closed up when the
/// records are looked at as a whole, or when half of them are dead.
class TraceTable {
 public:
  TraceTable();
  ~TraceTable();
  TraceTable(const TraceTable&) = delete;
  TraceTable& operator=(const TraceTable&) = delete;

  /// The record of that name, or null. Valid until the next edit or the next call of records().
  const TraceRecord* find(const std::string& name) const;

  /// Replaces the sources of the record in its place, or appends a record.
  void set(const std::string& name, std::vector<TraceSource> sources);
  /// Puts sources in front of those of the record, or appends a record. A source that the record holds
  /// already moves to the front. `sources` may be those of a record of this table.
  void prepend(const std::string& name, const std::vector<TraceSource>& sources);
  /// Erases the record of that name, if there is one. `name` may lie in that record.
  void erase(const std::string& name);

  /// All records in order. The reference is valid until the next edit.
  const std::vector<TraceRecord>& records() const;

 private:
  class LongRecord;

  std::uint32_t slotOf(const std::string& name, std::uint32_t hash) const;
  void append(const std::string& name, std::uint32_t hash, std::vector<TraceSource> sources);
  void join(std::uint32_t slot) const;
  void closeUp() const;

  mutable std::vector<TraceRecord> records_;
  mutable std::vector<std::uint8_t> alive_;
  // Of each record, null for most: its sources while they wait to be joined.
  mutable std::vector<std::unique_ptr<LongRecord>> long_;
  mutable NameTable table_;
  mutable std::size_t dead_ = 0;
};

}  // namespace netforge
