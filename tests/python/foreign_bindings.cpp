// Binds the two classes that the optimizer receives in a module of its own. The test compiles it with other
// internals of the binding library, so that the modules don't see each other's types.

#include <pybind11/pybind11.h>

#include <memory>

#include "ir/BackendInfo.h"
#include "ir/IrGraph.h"

namespace py = pybind11;

PYBIND11_MODULE(foreign_bindings, module) {
  py::class_<netforge::IrGraph, std::shared_ptr<netforge::IrGraph>>(module, "IrGraph")
      .def(py::init<const std::string&>())
      .def_readwrite("name", &netforge::IrGraph::name);
  py::class_<netforge::BackendInfo, std::shared_ptr<netforge::BackendInfo>>(module, "BackendInfo")
      .def(py::init<std::uint8_t>());
}
