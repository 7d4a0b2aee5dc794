#include "GraphRefiner/src/NameNumbers.h"

#include <random>

namespace netforge::graphrefiner {

namespace {

// The engine's output sequence is fixed by the standard; distributions are not, so the digits are cut out by
// hand.
std::mt19937& generator() {
  static std::mt19937 engine;
  return engine;
}

}  // namespace

std::string nextNameNumber() {
  std::string digits = std::to_string(generator()() % 1000000);
  digits.insert(0, 6 - digits.size(), '0');
  return digits;
}

void resetNameNumbers() {
  generator().seed(std::mt19937::default_seed);
}

}  // namespace netforge::graphrefiner
