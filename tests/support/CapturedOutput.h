#pragma once

#include <iostream>
#include <sstream>
#include <string>

namespace netforge::testing {

/// Collects standard output for the life of the object.
class CapturedOutput {
 public:
  CapturedOutput() : previous(std::cout.rdbuf(stream.rdbuf())) {}
  ~CapturedOutput() { std::cout.rdbuf(previous); }
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;
  std::string text() const { return stream.str(); }

 private:
  std::ostringstream stream;
  std::streambuf* previous;
};

}  // namespace netforge::testing
