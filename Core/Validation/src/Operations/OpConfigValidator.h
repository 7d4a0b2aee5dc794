#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include "Core/Validation/src/Operations/ValidationCommonUtil.h"
#include "output/OrloTypes.h"

namespace netforge {

/// Checks the records of ops: rules that hold for all types, then the functions that the builder of a graph
/// gives for each type of the target.
class OpConfigValidator {
 public:
  /// Gives 0 for a sound record, any other code for a faulty one. The record is valid during the call.
  using ValidatorFunction = std::function<std::uint32_t(const Orlo_OpConfig_t&)>;
  /// By the target's op type.
  using ValidatorMap = std::map<std::string, ValidatorFunction>;

  OpConfigValidator();
  explicit OpConfigValidator(const std::shared_ptr<ValidatorMap>& opValidators,
                             const ValidatorMap& extraValidators = ValidatorMap(),
                             std::uint64_t logHandle = 0);

  std::shared_ptr<ValidatorMap> opValidators;  // null reads as an empty map
  ValidatorMap extraValidators;                // a second check, of the types that stand here
  std::uint64_t logHandle = 0;                 // whose logger gets the messages
  /// Checks the types that `opValidators` has no entry for; without it ops of such types are refused.
  ValidatorFunction fallbackValidator;

  /// ORLO_VALIDATION_OK; ORLO_VALIDATION_FAILED for a malformed record and when a type's function refuses;
  /// ORLO_VALIDATION_NO_VALIDATOR for a type that nobody checks (without any message), and for an entry
  /// whose function is empty; the second check's own code when that refuses. Throws what the functions throw.
  std::uint32_t validate(const Orlo_OpConfig_t& config);
  /// Every message of the process so far, of this and of all other validators.
  std::string getLog() const;
};

}  // namespace netforge
