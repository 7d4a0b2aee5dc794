#pragma once

#include <string>

namespace netforge::graphrefiner {

/// Six decimal digits, for generated names that need a number that is probably free. The sequence has a fixed
/// seed, so that the same graph gives the same names in every process; callers go on drawing until a name is
/// free.
std::string nextNameNumber();

/// Starts the sequence anew; done at the start of each optimization.
void resetNameNumbers();

}  // namespace netforge::graphrefiner
