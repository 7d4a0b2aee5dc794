#include "ir/TraceTable.h"

#include <algorithm>
#include <utility>

namespace netforge {

namespace {

constexpr std::size_t kLongList = 24;

std::uint32_t hashOf(const TraceSource& source) {
  return NameTable::hashOf(source.name) ^ (source.kind == TraceKind::Op ? 0x9E3779B9u : 0u);
}

}  // namespace

bool TraceSourceList::holds(const TraceSource& source, std::uint32_t hash) const {
  if (table_.size() == 0) return std::find(sources_.begin(), sources_.end(), source) != sources_.end();
  return table_.find(hash, [&](std::uint32_t slot) { return sources_[slot] == source; }) != NameTable::npos;
}

void TraceSourceList::add(const TraceSource& source) {
  const std::uint32_t hash = hashOf(source);
  if (holds(source, hash)) return;
  sources_.push_back(source);
  const auto count = static_cast<std::uint32_t>(sources_.size());
  if (table_.size() > 0) {
    table_.insert(hash, count - 1);
  } else if (count > kLongList) {
    for (std::uint32_t i = 0; i < count; ++i) table_.insert(hashOf(sources_[i]), i);
  }
}

void TraceSourceList::add(const std::vector<TraceSource>& sources) {
  for (const TraceSource& source : sources) add(source);
}

std::uint32_t TraceTable::slotOf(const std::string& name, std::uint32_t hash) const {
  return table_.find(hash, [&](std::uint32_t slot) { return records_[slot].name == name; });
}

const TraceRecord* TraceTable::find(const std::string& name) const {
  const std::uint32_t slot = slotOf(name, NameTable::hashOf(name));
  return slot == NameTable::npos ? nullptr : &records_[slot];
}

void TraceTable::set(const std::string& name, std::vector<TraceSource> sources) {
  const std::uint32_t hash = NameTable::hashOf(name);
  const std::uint32_t slot = slotOf(name, hash);
  if (slot != NameTable::npos) {
    records_[slot].sources = std::move(sources);
    return;
  }
  table_.insert(hash, static_cast<std::uint32_t>(records_.size()));
  records_.push_back(TraceRecord{name, std::move(sources)});
  alive_.push_back(1);
}

void TraceTable::erase(const std::string& name) {
  const std::uint32_t hash = NameTable::hashOf(name);
  const std::uint32_t slot = slotOf(name, hash);
  if (slot == NameTable::npos) return;
  table_.erase(hash, slot);
  if (slot + 1 == records_.size()) {
    records_.pop_back();
    alive_.pop_back();
    return;
  }
  records_[slot] = TraceRecord{};
  alive_[slot] = 0;
  ++dead_;
  if (dead_ > 64 && dead_ * 2 > records_.size()) closeUp();
}

const std::vector<TraceRecord>& TraceTable::records() const {
  if (dead_ > 0) closeUp();
  return records_;
}

void TraceTable::closeUp() const {
  std::size_t kept = 0;
  table_.clear();
  for (std::size_t i = 0; i < records_.size(); ++i) {
    if (alive_[i] == 0) continue;
    if (i != kept) records_[kept] = std::move(records_[i]);
    table_.insert(NameTable::hashOf(records_[kept].name), static_cast<std::uint32_t>(kept));
    ++kept;
  }
  records_.resize(kept);
  alive_.assign(kept, 1);
  dead_ = 0;
}

}  // namespace netforge
