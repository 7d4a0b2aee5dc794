#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace netforge {

enum class TraceKind : std::uint32_t { Tensor = 0, Op = 1 };

/// One op or tensor of the source model.
struct TraceSource {
  std::string name;
  TraceKind kind = TraceKind::Op;
  bool operator==(const TraceSource& other) const;
};

/// Names the op or tensor of the graph that a record is about.
struct TraceKey {
  TraceKind kind;
  std::string name;
};

/// Where an op or tensor of the graph comes from; `sources` holds no entry twice.
struct TraceRecord {
  std::string name;
  std::vector<TraceSource> sources;
};

}  // namespace netforge
