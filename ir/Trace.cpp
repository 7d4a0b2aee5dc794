#include "ir/Trace.h"

namespace netforge {

bool TraceSource::operator==(const TraceSource& other) const {
  return kind == other.kind && name == other.name;
}

}  // namespace netforge
