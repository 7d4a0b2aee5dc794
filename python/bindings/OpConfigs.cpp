// The target's op records as dicts, and validators written in Python.

#include <optional>

#include "Core/Validation/src/Operations/OpConfigValidator.h"
#include "GraphRefiner/src/PythonOwner.h"
#include "output/IrOrloTranslator.h"
#include "python/bindings/Bindings.h"
#include "python/bindings/RecordDicts.h"

namespace netforge::bindings {

namespace {

using Function = OpConfigValidator::ValidatorFunction;
using Functions = std::map<std::string, py::object>;

/// Runs on whatever thread checks an op; None gives an empty function.
Function functionOf(const py::object& callable) {
  if (callable.is_none()) return nullptr;
  if (PyCallable_Check(callable.ptr()) == 0) throw py::type_error("a validator is a callable or None");
  const auto owner = std::make_shared<PythonOwner>(callable);
  return [owner, callable = py::handle(callable)](const Orlo_OpConfig_t& config) -> std::uint32_t {
    const py::gil_scoped_acquire lock;
    const py::object code = callable(opConfigDict(config));
    if (!py::isinstance<py::int_>(code) || py::isinstance<py::bool_>(code)) {
      throw py::type_error(
          "a validator gives 0 for a sound config and another number for a faulty one, not " +
          py::repr(code).cast<std::string>());
    }
    return code.cast<std::uint32_t>();
  };
}

OpConfigValidator::ValidatorMap mapOf(const Functions& functions) {
  OpConfigValidator::ValidatorMap map;
  for (const auto& [type, callable] : functions) map.emplace(type, functionOf(callable));
  return map;
}

void bindValidator(py::module_& module) {
  py::class_<OpConfigValidator, std::shared_ptr<OpConfigValidator>>(
      module, "OpConfigValidator",
      "Checks the target's records of ops: rules that hold for all types first, then a function per type of "
      "the target. A function gets the record as the dict of `IrGraph.translateOp` and gives 0 for a sound "
      "one, any other number for a faulty one. Types without a function are refused, unless there is a "
      "fallback. What a function raises goes through to whoever adds the op.\n\n"
      "A function that refers to the graph whose validator it is keeps that graph alive.")
      .def(py::init([](const Functions& opValidators, const Functions& extraValidators,
                       const py::object& fallback, std::uint64_t logHandle) {
             auto validator = std::make_shared<OpConfigValidator>(
                 std::make_shared<OpConfigValidator::ValidatorMap>(mapOf(opValidators)),
                 mapOf(extraValidators), logHandle);
             validator->fallbackValidator = functionOf(fallback);
             return validator;
           }),
           py::arg("opValidators") = Functions(), py::arg("extraValidators") = Functions(),
           py::arg("fallback") = py::none(), py::arg("logHandle") = 0,
           "`extraValidators` are a second check of the types they name; None for a type refuses it.")
      .def_static(
          "commonCheckOnly",
          [] {
            auto validator = std::make_shared<OpConfigValidator>();
            validator->fallbackValidator = [](const Orlo_OpConfig_t&) { return ORLO_VALIDATION_OK; };
            return validator;
          },
          "A validator that accepts every type: only the rules that hold for all of them are checked.")
      .def("getLog", &OpConfigValidator::getLog, "All messages of the process so far.");
}

}  // namespace

void bindOpConfigs(py::module_& module, Classes& classes) {
  bindValidator(module);
  classes.graph
      .def_property(
          "opConfigValidator",
          [](const IrGraph& self) -> std::optional<std::shared_ptr<OpConfigValidator>> {
            if (self.opConfigValidator == nullptr) return std::nullopt;
            return self.opConfigValidator;
          },
          [](IrGraph& self, const std::shared_ptr<OpConfigValidator>& validator) {
            self.opConfigValidator = validator;
          },
          "Checks what is added with `validate`; None: nothing is checked.")
      .def(
          "validateOrloOpConfig", &IrGraph::validateOrloOpConfig, py::arg("op"),
          py::arg("skipStaticData") = true, py::arg("targetName") = "",
          "Translates the op as `translateOp` does and lets the validator check it. Raises RuntimeError when "
          "it fails, with all messages of the process so far, and without a validator.")
      .def(
          "translateOp",
          [](IrGraph& self, const std::shared_ptr<ops::IrOp>& op, bool skipStaticData,
             const std::string& targetName) {
            return opConfigDict(*self.getTranslator().getOrloOp(op, skipStaticData, targetName));
          },
          py::arg("op"), py::arg("skipStaticData") = true, py::arg("targetName") = "",
          "The target's record of an op, as a dict: name, packageName, typeName, params by name, inputs and "
          "outputs. The first translation of a name rewrites the op's attributes to the target's parameters "
          "and is kept: later ones give the same record, whatever became of the op. `skipStaticData` leaves "
          "the data of static inputs out. Raises ValueError for what the target has no form for.");
  module.def("getValidationLogText", &getValidationLogText,
             "All messages of op config checks since the process began.");
}

}  // namespace netforge::bindings
