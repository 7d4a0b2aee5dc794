#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace netforge {

/// Quantisation that the application uses for one of its buffers.
struct CustomIOQuantParams {
  double scale = 0.0;
  std::int32_t offset = 0;
};

/// What the application asks for one graph input or output.
struct CustomIOEntry {
  std::string tensorName;
  std::shared_ptr<std::string> dataType;             ///< the type's name; null means "uint8"
  std::shared_ptr<CustomIOQuantParams> quantParams;  ///< null: no quantisation is asked for
  bool optional = false;                             ///< the application may leave the buffer out
};

}  // namespace netforge
