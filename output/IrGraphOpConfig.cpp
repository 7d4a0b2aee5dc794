// The check of an op's configuration against the target's rules, which needs the records of this room.

#include <cstring>
#include <stdexcept>
#include "Core/Validation/src/Operations/OpConfigValidator.h"
#include "ir/Failure.h"
#include "ir/GraphArguments.h"
#include "ir/IrGraph.h"
#include "output/IrOrloTranslator.h"

namespace netforge {

IrOrloTranslator& IrGraph::getTranslator() {
  if (translator == nullptr) translator = std::make_shared<IrOrloTranslator>();
  return *translator;
}

void IrGraph::validateOrloOpConfig(const OpPtr& given, bool skipStaticData, const std::string& targetName) {
  constexpr const char* kFunction = "netforge::IrGraph::validateOrloOpConfig";
  const OpPtr op = given;
  requireOp(op, kFunction);
  // A validator may come from outside and may set another one.
  const std::shared_ptr<OpConfigValidator> validator = opConfigValidator;
  if (validator == nullptr) {
    fail<std::runtime_error>(kFunction, "The graph has no validator to check ", op->getName(), " with");
  }
  const Orlo_OpConfig_t* config = getTranslator().getOrloOp(op, skipStaticData, targetName);
  // Records are kept by name: one that bears another name by now describes another op.
  if (op->getName() != config->name) {
    fail<std::runtime_error>(kFunction, "Collision detected! Op name ", op->getName(),
                             " does not match opConfig name ", config->name, " (op type: ", op->getType(),
                             ")");
  }
  if (validator->validate(*config) == ORLO_VALIDATION_OK) return;
  fail<std::runtime_error>(kFunction, "Failed ORLO validation for ", op->getName(), " with error\n",
                           validator->getLog());
}

}  // namespace netforge
