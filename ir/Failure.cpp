#include "ir/Failure.h"

namespace netforge {

std::string dimsText(const std::vector<std::uint32_t>& values) {
  return concatText(values);
}

}  // namespace netforge
