#include "ops/TranslationRegistry.h"

#include <exception>

#include "ops/OpFailure.h"

namespace netforge {

TranslationRegistry& TranslationRegistry::instance() {
  static TranslationRegistry registry;
  return registry;
}

bool TranslationRegistry::registerTranslationMethod(const std::string& type, const Creator& creator,
                                                    bool allowOverwrite) {
  const std::lock_guard<std::mutex> lock(mutex);
  if (!allowOverwrite && translations.count(type) > 0) {
    ops::throwInvalidArgument("netforge::TranslationRegistry::registerTranslationMethod",
                              "Translation: ", type, " already registered");
  }
  translations[type] = creator;
  return true;
}

std::shared_ptr<ops::IrOp> TranslationRegistry::applyMethod(const std::string& type, const std::string& name,
                                                            const std::shared_ptr<IrAttributes>& attributes,
                                                            const TensorList& inputs,
                                                            const TensorList& outputs) {
  const char* function = "netforge::TranslationRegistry::applyMethod";
  const std::lock_guard<std::mutex> lock(mutex);
  const auto entry = translations.find(type);
  if (entry == translations.end()) {
    ops::throwRuntimeError(function, "Error creating translation type: ", type,
                           ". Is your translation registered?");
  }
  try {
    return entry->second(name, attributes, inputs, outputs);
  } catch (const std::exception& failure) {
    ops::throwRuntimeError(function, "Translation applyMethod returned with error: ", failure.what());
  }
}

bool TranslationRegistry::hasMethod(const std::string& type) {
  const std::lock_guard<std::mutex> lock(mutex);
  return translations.count(type) > 0;
}

}  // namespace netforge
