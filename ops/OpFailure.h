#pragma once

#include <stdexcept>
#include "ir/Failure.h"

namespace netforge::ops {

/// Throws std::invalid_argument "<function>: <parts joined>"; `function` is the qualified name of the
/// function that refuses.
template <class... Parts>
[[noreturn]] void throwInvalidArgument(const char* function, const Parts&... parts) {
  fail<std::invalid_argument>(function, parts...);
}

/// Throws std::runtime_error, with a text of the same form.
template <class... Parts>
[[noreturn]] void throwRuntimeError(const char* function, const Parts&... parts) {
  fail<std::runtime_error>(function, parts...);
}

}  // namespace netforge::ops
