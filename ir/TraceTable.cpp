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

// The sources of a record from the last to the first, so that putting one in front appends. A source that
// moves to the front leaves a dead place behind.
class TraceTable::LongRecord {
 public:
  explicit LongRecord(const std::vector<TraceSource>& sources) { pushFrontAll(sources); }

  void pushFrontAll(const std::vector<TraceSource>& sources) {
    for (auto source = sources.rbegin(); source != sources.rend(); ++source) pushFront(*source);
    isJoined = false;
  }

  // The sources in order, once after each change.
  void joinInto(std::vector<TraceSource>& sources) {
    if (isJoined) return;
    sources.clear();
    for (std::size_t i = reversed.size(); i-- > 0;) {
      if (alive[i] != 0) sources.push_back(reversed[i]);
    }
    isJoined = true;
  }

 private:
  void pushFront(const TraceSource& source) {
    const std::uint32_t hash = hashOf(source);
    const std::uint32_t known = table.find(hash, [&](std::uint32_t i) { return reversed[i] == source; });
    if (known != NameTable::npos) {
      if (known + 1 == reversed.size()) return;
      table.erase(hash, known);
      alive[known] = 0;
      if (++dead > 64 && dead * 2 > reversed.size()) closeUp();
    }
    table.insert(hash, static_cast<std::uint32_t>(reversed.size()));
    reversed.push_back(source);
    alive.push_back(1);
  }

  void closeUp() {
    std::size_t kept = 0;
    table.clear();
    for (std::size_t i = 0; i < reversed.size(); ++i) {
      if (alive[i] == 0) continue;
      if (i != kept) reversed[kept] = std::move(reversed[i]);
      table.insert(hashOf(reversed[kept]), static_cast<std::uint32_t>(kept));
      ++kept;
    }
    reversed.resize(kept);
    alive.assign(kept, 1);
    dead = 0;
  }

  std::vector<TraceSource> reversed;
  std::vector<std::uint8_t> alive;
  NameTable table;
  std::size_t dead = 0;
  bool isJoined = false;
};

TraceTable::TraceTable() = default;
TraceTable::~TraceTable() = default;

std::uint32_t TraceTable::slotOf(const std::string& name, std::uint32_t hash) const {
  return table_.find(hash, [&](std::uint32_t slot) { return records_[slot].name == name; });
}

const TraceRecord* TraceTable::find(const std::string& name) const {
  const std::uint32_t slot = slotOf(name, NameTable::hashOf(name));
  if (slot == NameTable::npos) return nullptr;
  join(slot);
  return &records_[slot];
}

void TraceTable::set(const std::string& name, std::vector<TraceSource> sources) {
  const std::uint32_t hash = NameTable::hashOf(name);
  const std::uint32_t slot = slotOf(name, hash);
  if (slot == NameTable::npos) {
    append(name, hash, std::move(sources));
    return;
  }
  records_[slot].sources = std::move(sources);
  long_[slot].reset();
}

void TraceTable::prepend(const std::string& name, const std::vector<TraceSource>& sources) {
  const std::uint32_t hash = NameTable::hashOf(name);
  const std::uint32_t slot = slotOf(name, hash);
  if (slot != NameTable::npos && (long_[slot] != nullptr || records_[slot].sources.size() > kLongList)) {
    const std::vector<TraceSource> given = sources;
    if (long_[slot] == nullptr) long_[slot] = std::make_unique<LongRecord>(records_[slot].sources);
    long_[slot]->pushFrontAll(given);
    return;
  }
  TraceSourceList list;
  list.add(sources);
  if (slot != NameTable::npos) list.add(records_[slot].sources);
  if (slot == NameTable::npos) {
    append(name, hash, list.sources());
  } else {
    records_[slot].sources = list.sources();
  }
}

void TraceTable::append(const std::string& name, std::uint32_t hash, std::vector<TraceSource> sources) {
  table_.insert(hash, static_cast<std::uint32_t>(records_.size()));
  records_.push_back(TraceRecord{name, std::move(sources)});
  alive_.push_back(1);
  long_.emplace_back();
}

void TraceTable::join(std::uint32_t slot) const {
  if (long_[slot] != nullptr) long_[slot]->joinInto(records_[slot].sources);
}

void TraceTable::erase(const std::string& name) {
  const std::uint32_t hash = NameTable::hashOf(name);
  const std::uint32_t slot = slotOf(name, hash);
  if (slot == NameTable::npos) return;
  table_.erase(hash, slot);
  if (slot + 1 == records_.size()) {
    records_.pop_back();
    alive_.pop_back();
    long_.pop_back();
    return;
  }
  records_[slot] = TraceRecord{};
  long_[slot].reset();
  alive_[slot] = 0;
  ++dead_;
  if (dead_ > 64 && dead_ * 2 > records_.size()) closeUp();
}

const std::vector<TraceRecord>& TraceTable::records() const {
  if (dead_ > 0) closeUp();
  for (std::uint32_t slot = 0; slot < records_.size(); ++slot) join(slot);
  return records_;
}

void TraceTable::closeUp() const {
  std::size_t kept = 0;
  table_.clear();
  for (std::size_t i = 0; i < records_.size(); ++i) {
    if (alive_[i] == 0) continue;
    if (i != kept) {
      records_[kept] = std::move(records_[i]);
      long_[kept] = std::move(long_[i]);
    }
    table_.insert(NameTable::hashOf(records_[kept].name), static_cast<std::uint32_t>(kept));
    ++kept;
  }
  records_.resize(kept);
  alive_.assign(kept, 1);
  long_.resize(kept);
  dead_ = 0;
}

}  // namespace netforge
