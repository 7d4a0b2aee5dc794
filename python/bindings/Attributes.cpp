#include "python/bindings/Bindings.h"
#include "python/bindings/PythonValues.h"
#include "python/bindings/Text.h"

namespace netforge::bindings {

namespace {

const IrAttribute& require(const IrAttributes& attributes, const std::string& name) {
  attributes.assertAttrExists(name);
  return attributes.entries().at(name);
}

py::list names(const IrAttributes& attributes) {
  py::list result;
  for (const auto& entry : attributes.entries()) result.append(py::str(entry.first));
  return result;
}

py::dict toDict(const IrAttributes& attributes) {
  py::dict result;
  for (const auto& [name, attribute] : attributes.entries()) result[py::str(name)] = valueOf(attribute);
  return result;
}

void bindReading(Classes& classes) {
  classes.attributes.def("hasAttr", &IrAttributes::hasAttr, py::arg("name"))
      .def("assertAttrExists", &IrAttributes::assertAttrExists, py::arg("name"),
           "Raises RuntimeError for an absent attribute.")
      .def(
          "getAttr",
          [](const IrAttributes& self, const std::string& name) { return valueOf(require(self, name)); },
          py::arg("name"), "The value as int, float, bool, str or tensor; RuntimeError when absent.")
      .def(
          "get",
          [](const IrAttributes& self, const std::string& name, const py::object& fallback) {
            return self.hasAttr(name) ? valueOf(require(self, name)) : fallback;
          },
          py::arg("name"), py::arg("default") = py::none(), "The value, or `default` when absent.")
      .def(
          "getDataType",
          [](const IrAttributes& self, const std::string& name) { return require(self, name).dataType; },
          py::arg("name"), "The one type in which the value can be read.")
      .def(
          "getAttrType",
          [](const IrAttributes& self, const std::string& name) { return require(self, name).attrType; },
          py::arg("name"))
      .def(
          "getAttrClass",
          [](const IrAttributes& self, const std::string& name) { return require(self, name).attrClass; },
          py::arg("name"))
      .def("getStaticTensor", &IrAttributes::getStaticTensor, py::arg("name"))
      .def("getStaticTensorName", &IrAttributes::getStaticTensorName, py::arg("name"))
      .def("getStaticTensors", &IrAttributes::getStaticTensors, "All tensor values, in the order of names.")
      .def("isSupplemental", &IrAttributes::isSupplemental, py::arg("name"))
      .def("size", &IrAttributes::size)
      .def("toDict", &toDict, "Name to value, in the order of names.")
      .def("keys", &names)
      .def("items", [](const IrAttributes& self) { return toDict(self).attr("items")(); })
      .def("__len__", &IrAttributes::size)
      .def("__contains__", &IrAttributes::hasAttr)
      .def("__contains__", [](const IrAttributes&, const py::object&) { return false; })
      .def("__iter__", [](const IrAttributes& self) { return py::iter(names(self)); })
      .def("__getitem__",
           [](const IrAttributes& self, const std::string& name) {
             if (!self.hasAttr(name)) throw py::key_error(name);
             return valueOf(require(self, name));
           })
      .def("__repr__", [](const IrAttributes& self) { return "IrAttributes(" + attributesText(self) + ")"; });
}

}  // namespace

void bindAttributes(Classes& classes) {
  classes.attributes
      .def(py::init([](const py::object& values, int attrClass, const std::string& opName) {
             auto attributes = std::make_shared<IrAttributes>();
             if (values.is_none()) return attributes;
             for (const auto& [key, value] : py::dict(values)) {
               addAttribute(*attributes, key.cast<std::string>(), value, attrClassOf(attrClass), opName);
             }
             return attributes;
           }),
           py::arg("values") = py::none(), py::arg("attrClass") = 1, py::arg("opName") = "",
           "A table of these values, all of one class.\n\n"
           "bool, float and str give their own types, int an unsigned 32-bit value, or a signed one when "
           "negative. NumPy scalars say the type: np.uint8, np.int32, np.uint32, np.float32, np.bool_. Lists "
           "and arrays become constant tensors with their dims (Python lists and 64-bit integers as unsigned "
           "32-bit), named \"<opName>_<name>\", or \"<name>\" without `opName`.")
      .def(
          "add",
          [](IrAttributes& self, const std::string& name, const py::object& value, int attrClass,
             const std::string& opName) { addAttribute(self, name, value, attrClassOf(attrClass), opName); },
          py::arg("name"), py::arg("value"), py::arg("attrClass") = 1, py::arg("opName") = "",
          "Sets a value, by the constructor's rules. An attribute of that name is replaced: value, type and "
          "class.")
      .def("remove", &IrAttributes::remove, py::arg("name"), "Raises ValueError for an absent attribute.")
      .def(
          "copy", [](const IrAttributes& self) { return std::make_shared<IrAttributes>(self); },
          "A table with the same values, types and classes; tensors are shared.");
  bindReading(classes);
}

}  // namespace netforge::bindings
