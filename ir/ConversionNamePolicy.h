#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <unordered_set>
#include <vector>

namespace netforge {

/// Gives names to new ops. Remembers every name that it handed out, and the names that it was seeded with;
/// names that enter a graph in other ways are unknown to it.
class ConversionNamePolicy {
 public:
  ConversionNamePolicy();
  explicit ConversionNamePolicy(const std::vector<std::string>& usedNames);  // the seed

  /// "<prefix>_<number>", the number counting up per op type (not per prefix) until the name is free. The
  /// next call of the type starts on the number just used.
  /// Throws std::invalid_argument when a string is empty, and std::runtime_error when a free name was found
  /// only after 10000 attempts or more; that name stays free.
  std::string generateUniqueName(const std::string& namePrefixStr, const std::string& opType);

  /// The name of a new op, made from `baseName` (or from `opType` when it is empty), with "_" in front when
  /// `prefixUnderscore` is set. With a `namePrefix`, or without both suffixes, the name is made unique as
  /// above. Otherwise `nameSuffix`, or `altSuffix` when that is empty or "/", goes behind an underscore, and
  /// the name is handed out whether or not it was used before.
  std::string generateOpName(const std::string& opType, const std::string& baseName, bool prefixUnderscore,
                             const std::string& namePrefix, const std::string& nameSuffix,
                             const std::string& altSuffix);

 private:
  std::map<std::string, std::int32_t> counters;  // next number to try, by op type
  std::unordered_set<std::string> usedNames;
};

}  // namespace netforge
