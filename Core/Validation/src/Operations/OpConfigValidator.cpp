#include "Core/Validation/src/Operations/OpConfigValidator.h"

#include "Core/Validation/src/Operations/CommonCheck.h"

namespace netforge {

OpConfigValidator::OpConfigValidator() = default;

OpConfigValidator::OpConfigValidator(const std::shared_ptr<ValidatorMap>& givenOpValidators,
                                     const ValidatorMap& givenExtraValidators, std::uint64_t givenLogHandle)
    : opValidators(givenOpValidators), extraValidators(givenExtraValidators), logHandle(givenLogHandle) {}

std::uint32_t OpConfigValidator::validate(const Orlo_OpConfig_t& config) {
  ValidationLog::instance().setHandle(logHandle);
  announceValidation(ORLO_LOG_DEBUG, "Validating Op Config %s.\n",
                     config.name != nullptr ? config.name : "(null)");
  if (checkOpConfig(config) != ORLO_VALIDATION_OK) {
    logValidation(ORLO_LOG_ERROR, "Op config was not well formed.\n");
    return ORLO_VALIDATION_FAILED;
  }

  // Functions are copied: one that runs may change the maps.
  const std::string type = config.typeName;
  ValidatorFunction check = fallbackValidator;
  if (opValidators != nullptr) {
    const auto found = opValidators->find(type);
    if (found != opValidators->end()) check = found->second;
  }
  if (!check) return ORLO_VALIDATION_NO_VALIDATOR;
  if (check(config) != 0) {
    logValidation(ORLO_LOG_ERROR, "Op specific validation failed.\n");
    return ORLO_VALIDATION_FAILED;
  }

  const auto extra = extraValidators.find(type);
  if (extra == extraValidators.end()) return ORLO_VALIDATION_OK;
  const ValidatorFunction extraCheck = extra->second;
  return extraCheck ? extraCheck(config) : ORLO_VALIDATION_NO_VALIDATOR;
}

std::string OpConfigValidator::getLog() const {
  return getValidationLogText();
}

}  // namespace netforge
