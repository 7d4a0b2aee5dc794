#include "ir/ConversionNamePolicy.h"

#include <stdexcept>
#include "ir/Failure.h"

namespace netforge {

namespace {
constexpr std::int32_t kAttemptLimit = 10000;
}

ConversionNamePolicy::ConversionNamePolicy() = default;

ConversionNamePolicy::ConversionNamePolicy(const std::vector<std::string>& names)
    : usedNames(names.begin(), names.end()) {}

std::string ConversionNamePolicy::generateUniqueName(const std::string& namePrefixStr,
                                                     const std::string& opType) {
  constexpr const char* kFunction = "netforge::ConversionNamePolicy::generateUniqueName";
  if (namePrefixStr.empty() || opType.empty()) {
    fail<std::invalid_argument>(kFunction, "namePrefixStr and opType must not be empty");
  }
  std::int32_t& counter = counters[opType];
  std::int32_t attempts = 0;
  std::string candidate = namePrefixStr + "_" + std::to_string(counter);
  while (usedNames.count(candidate) > 0) {
    ++counter;
    ++attempts;
    candidate = namePrefixStr + "_" + std::to_string(counter);
  }
  if (attempts >= kAttemptLimit) {
    fail<std::runtime_error>(kFunction, "Failed to generate unique name after ", kAttemptLimit, " attempts");
  }
  usedNames.insert(candidate);
  return candidate;
}

std::string ConversionNamePolicy::generateOpName(const std::string& opType, const std::string& baseName,
                                                 bool prefixUnderscore, const std::string& namePrefix,
                                                 const std::string& nameSuffix,
                                                 const std::string& altSuffix) {
  std::string name = (prefixUnderscore ? "_" : "") + (baseName.empty() ? opType : baseName);
  if (!namePrefix.empty()) return generateUniqueName(namePrefix + "_" + name, opType);
  if (nameSuffix.empty() && altSuffix.empty()) return generateUniqueName(name, opType);
  if (!nameSuffix.empty() && nameSuffix != "/") {
    name += "_" + nameSuffix;
  } else if (!altSuffix.empty()) {
    name += "_" + altSuffix;
  }
  usedNames.insert(name);
  return name;
}

}  // namespace netforge
