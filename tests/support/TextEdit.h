#pragma once

#include <gtest/gtest.h>
#include <string>

namespace netforge::testing {

/// The text with the first place of one part taken by another: a variant of a case's graph. Fails the test
/// when the text lacks the part.
inline std::string with(std::string text, const std::string& part, const std::string& other) {
  const std::size_t place = text.find(part);
  if (place == std::string::npos) {
    ADD_FAILURE() << "no '" << part << "' in\n" << text;
    return text;
  }
  return text.replace(place, part.size(), other);
}

}  // namespace netforge::testing
