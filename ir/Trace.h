#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace netforge {

enum class TraceKind : std::uint32_t { Tensor = 0, Op = 1 };
struct TraceSource {
  std::string name;
  TraceKind kind = TraceKind::Op;
  bool operator==(const TraceSource& other) const;
};
struct TraceKey {
  TraceKind kind;
  std::string name;
};
struct TraceRecord {
  std::string name;
  std::vector<TraceSource> sources;
};

}  // namespace netforge
