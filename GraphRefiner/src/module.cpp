// The extension module: binding only. The graph and the backend description are bound by other modules, and
// come in through the binding library's lookup of types across modules.

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <memory>
#include <typeinfo>

#include "GraphRefiner/src/GraphRefiner.h"
#include "GraphRefiner/src/GraphRefinerContext.h"
#include "GraphRefiner/src/PassRegistry.h"
#include "GraphRefiner/src/PythonOwner.h"
#include "ir/BackendInfo.h"
#include "ir/IrGraph.h"

namespace PYBIND11_NAMESPACE {
namespace detail {

/// Takes a shared object of a class that this module doesn't bind.
///
/// None gives a null pointer, also while no module has bound the class yet. An object of a module with the
/// same internals hands out its own shared pointer. One of a module with other internals (another version of
/// the binding library) answers a conduit call with a bare pointer, which is good for as long as the Python
/// object lives: so the shared pointer made here holds the Python object.
template <class Class>
class SharedFromAnyModule : public copyable_holder_caster<Class, std::shared_ptr<Class>> {
  using Base = copyable_holder_caster<Class, std::shared_ptr<Class>>;

 public:
  using Base::Base;

  bool load(handle source, bool convert) {
    if (!source) return false;
    if (source.is_none()) return true;
    if (Base::load(source, false)) return true;
    if (!convert) return false;
    void* pointer = try_raw_pointer_ephemeral_from_cpp_conduit(source, &typeid(Class));
    if (pointer == nullptr) return false;
    this->value = pointer;
    this->holder =
        std::shared_ptr<Class>(std::make_shared<netforge::PythonOwner>(source), static_cast<Class*>(pointer));
    return true;
  }
};

template <>
class type_caster<std::shared_ptr<netforge::IrGraph>> : public SharedFromAnyModule<netforge::IrGraph> {};
template <>
class type_caster<std::shared_ptr<netforge::BackendInfo>>
    : public SharedFromAnyModule<netforge::BackendInfo> {};

}  // namespace detail
}  // namespace PYBIND11_NAMESPACE

namespace py = pybind11;

namespace netforge::graphrefiner {
namespace {

void bindModule(py::module_& module) {
  py::enum_<OptimizationStage>(module, "OptimizationStage")
      .value("PreLayout", OptimizationStage::PreLayout)
      .value("PostLayout", OptimizationStage::PostLayout)
      .value("PreQuant", OptimizationStage::PreQuant)
      .value("PostQuant", OptimizationStage::PostQuant)
      .export_values();

  py::enum_<IrDumpLevel>(module, "IrDumpLevel")
      .value("PreAndPostOptimization", IrDumpLevel::PreAndPostOptimization)
      .value("PostPassChange", IrDumpLevel::PostPassChange)
      .value("PostOpChange", IrDumpLevel::PostOpChange)
      .value("Checkpoint", IrDumpLevel::Checkpoint)
      .export_values();

  py::class_<GraphRefinerContext>(module, "GraphRefinerContext")
      .def(py::init<>())
      .def_readwrite("optimizer_config", &GraphRefinerContext::optimizer_config)
      .def_readwrite("dump_pass_trace_info", &GraphRefinerContext::dump_pass_trace_info)
      .def_readwrite("dump_ir_level", &GraphRefinerContext::dump_ir_level)
      .def_readwrite("dump_ir", &GraphRefinerContext::dump_ir)
      .def_readwrite("dump_ir_pass_names", &GraphRefinerContext::dump_ir_pass_names)
      .def_readwrite("dump_ir_op_types", &GraphRefinerContext::dump_ir_op_types)
      .def_readwrite("debug_log", &GraphRefinerContext::debug_log)
      .def_readwrite("enable_trace", &GraphRefinerContext::enable_trace);

  module.def("get_registered_pass_names", &getRegisteredPassNames, "list of registered pass names");
  module.def("get_dump_pass_config", &getDumpPassConfig, "");

  py::class_<PyGraphRefiner>(module, "GraphRefiner", "Class for optimizing Ir")
      .def(py::init<const std::shared_ptr<IrGraph>&, const std::vector<OptimizationStage>&,
                    const std::shared_ptr<BackendInfo>&, const GraphRefinerContext&>())
      .def("optimize", &PyGraphRefiner::optimize, "optimizes Ir.\n        ")
      .def("get_current_execution_pass_names", &PyGraphRefiner::getCurrentExecutionPassNames,
           "Get in order execution pipeline pass names.\n        ");
}

py::module_::module_def moduleDefinition;

}  // namespace
}  // namespace netforge::graphrefiner

// Written out, where a macro of the binding library would do it, because the interpreter's version is ours to
// check, before anything of the binding library runs.
PYBIND11_PLUGIN_IMPL(libPyGraphRefiner312) {
  const char* compiledFor = PYBIND11_TOSTRING(PY_MAJOR_VERSION) "." PYBIND11_TOSTRING(PY_MINOR_VERSION);
  if (!netforge::graphrefiner::isPythonVersion(Py_GetVersion(), compiledFor)) {
    PyErr_Format(PyExc_ImportError,
                 "Python version mismatch: module was compiled for Python %s, but the interpreter version is "
                 "incompatible: %s.",
                 compiledFor, Py_GetVersion());
    return nullptr;
  }
  PYBIND11_ENSURE_INTERNALS_READY
  auto module = py::module_::create_extension_module("libPyGraphRefiner312", nullptr,
                                                     &netforge::graphrefiner::moduleDefinition);
  try {
    netforge::graphrefiner::bindModule(module);
    return module.ptr();
  }
  PYBIND11_CATCH_INIT_EXCEPTIONS
}
