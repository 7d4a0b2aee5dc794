#pragma once

#include <cstdint>
#include <locale>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace netforge::ops {

/// Dims as they stand in failure texts: "[2,3]".
std::string dimsText(const std::vector<std::uint32_t>& dims);

/// Text of a failure: "<function>: " and the parts streamed one behind the other. The classic locale keeps
/// digit grouping of the caller's locale out of the numbers.
template <class... Parts>
std::string failureText(const char* function, const Parts&... parts) {
  std::ostringstream stream;
  stream.imbue(std::locale::classic());
  stream << function << ": ";
  (stream << ... << parts);
  return stream.str();
}

/// Throws std::invalid_argument; `function` is the qualified name of the function that refuses.
template <class... Parts>
[[noreturn]] void throwInvalidArgument(const char* function, const Parts&... parts) {
  throw std::invalid_argument(failureText(function, parts...));
}

/// Throws std::runtime_error; `function` is the qualified name of the function that refuses.
template <class... Parts>
[[noreturn]] void throwRuntimeError(const char* function, const Parts&... parts) {
  throw std::runtime_error(failureText(function, parts...));
}

}  // namespace netforge::ops
