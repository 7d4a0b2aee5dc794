#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace netforge {

struct CustomIOQuantParams {
  double scale = 0.0;
  std::int32_t offset = 0;
};
struct CustomIOEntry {
  std::string tensorName;
  std::shared_ptr<std::string> dataType;
  std::shared_ptr<CustomIOQuantParams> quantParams;
  bool optional = false;
};

}  // namespace netforge
