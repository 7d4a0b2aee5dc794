#include <pybind11/typing.h>

#include "metadata/CustomIOEntry.h"
#include "metadata/ODLTransformManager.h"
#include "python/bindings/Bindings.h"

namespace netforge::bindings {

namespace {

using graphrefiner::DType;
using graphrefiner::HashedNames;
using graphrefiner::ODLTransformManager;
using graphrefiner::TransformEntry;
using graphrefiner::TransformGraph;
using graphrefiner::TransformOp;
using Names = std::vector<std::string>;
using Shapes = std::vector<std::vector<std::uint32_t>>;
using Attributes = std::map<std::string, std::string>;
using Dtypes = std::map<std::string, DType>;
using NameSet = std::set<std::string>;  // shown in order, whatever the set's own is

void bindDtypes(py::module_& module) {
  py::enum_<DType> dtype(module, "DType", "Element types of the transform metadata file.");
  dtype.value("Unknown", DType::Unknown);
  const auto names = {"Float32", "Float16", "Int8",   "Int16",  "Int32",
                      "Int64",   "Uint8",   "Uint16", "Uint32", "Uint64"};
  std::uint32_t value = 1;
  for (const char* name : names) dtype.value(name, static_cast<DType>(value++));
}

void bindTransformOps(py::module_& module) {
  py::class_<TransformOp>(module, "TransformOp", "The operator of a transform.")
      .def(py::init([](const std::string& opType, const Attributes& attributes, const Shapes& inputShapes,
                       const Shapes& outputShapes) {
             return TransformOp{opType, attributes, inputShapes, outputShapes};
           }),
           py::arg("opType") = "", py::arg("attributes") = Attributes(), py::arg("inputShapes") = Shapes(),
           py::arg("outputShapes") = Shapes())
      .def_readwrite("opType", &TransformOp::opType)
      .def_readwrite("attributes", &TransformOp::attributes,
                     "JSON texts by name. A copy: assign the whole dict.")
      .def_readwrite("inputShapes", &TransformOp::inputShapes, "A copy: assign the whole list.")
      .def_readwrite("outputShapes", &TransformOp::outputShapes, "A copy: assign the whole list.");
  py::class_<TransformEntry>(module, "TransformEntry",
                             "One transform of a TransformGraph, from its sources to its destinations.")
      .def_readonly("srcTensors", &TransformEntry::srcTensors)
      .def_readonly("destTensors", &TransformEntry::destTensors)
      .def_readwrite("op", &TransformEntry::op)
      .def_readonly("tensorDtypes", &TransformEntry::tensorDtypes);
}

auto nameSet(HashedNames TransformGraph::*member) {
  return [member](const TransformGraph& self) {
    const HashedNames& names = self.*member;
    return NameSet(names.begin(), names.end());
  };
}

// Entries and graphs live as long as what holds them, so each keeps its holder alive.
py::list entryList(py::handle holder, const std::vector<const TransformEntry*>& entries) {
  py::list list;
  for (const TransformEntry* entry : entries) {
    list.append(
        py::cast(const_cast<TransformEntry*>(entry), py::return_value_policy::reference_internal, holder));
  }
  return list;
}

void bindTransformGraph(py::module_& module) {
  py::class_<TransformGraph>(module, "TransformGraph", "The transforms between the tensors of one model.")
      .def_property_readonly(
          "transforms",
          [](py::object self) -> py::typing::List<TransformEntry> {
            std::vector<const TransformEntry*> entries;
            for (const auto& entry : self.cast<const TransformGraph&>().transforms) entries.push_back(&entry);
            return entryList(self, entries);
          },
          "In the order of adding.")
      .def_property_readonly("inputTensors", nameSet(&TransformGraph::inputTensors), "Sources of the whole.")
      .def_property_readonly("outputTensors", nameSet(&TransformGraph::outputTensors),
                             "Results of the whole.")
      .def_property_readonly("allSrcTensors", nameSet(&TransformGraph::allSrcTensors))
      .def_property_readonly("allDestTensors", nameSet(&TransformGraph::allDestTensors))
      .def_readwrite("executionOrder", &TransformGraph::executionOrder)
      .def_readwrite("concurrencyName", &TransformGraph::concurrencyName)
      .def_readwrite("splitNum", &TransformGraph::splitNum)
      .def_readwrite("arN", &TransformGraph::arN)
      .def(
          "addTransform", &TransformGraph::addTransform, py::arg("srcTensors"), py::arg("destTensors"),
          py::arg("op"), py::arg("skipTensorSets") = false, py::arg("tensorDtypes") = Dtypes(),
          py::return_value_policy::reference_internal,
          "Appends a transform and brings the sets up to date. Raises RuntimeError when one of these sources "
          "and destinations is there.")
      .def("addTensorDtypes", &TransformGraph::addTensorDtypes, py::arg("srcTensors"), py::arg("destTensors"),
           py::arg("tensorDtypes"))
      .def("hasTransform", &TransformGraph::hasTransform, py::arg("srcTensors"), py::arg("destTensors"))
      .def("getTensorDtype", &TransformGraph::getTensorDtype, py::arg("name"))
      .def("renameTensor", &TransformGraph::renameTensor, py::arg("oldName"), py::arg("newName"),
           py::arg("keepInputNames") = false, py::arg("keepOutputNames") = false)
      .def(
          "getOrderedTransforms",
          [](py::object self) -> py::typing::List<TransformEntry> {
            return entryList(self, self.cast<const TransformGraph&>().getOrderedTransforms());
          },
          "Every transform behind those that it reads from; one that can't be reached is left out.")
      .def_static("dtypeFromString", &TransformGraph::dtypeFromString, py::arg("text"))
      .def_static("dtypeToString", &TransformGraph::dtypeToString, py::arg("dtype"));
}

void bindCustomIO(py::module_& module) {
  py::class_<CustomIOQuantParams>(module, "CustomIOQuantParams",
                                  "Quantisation that the application uses for one of its buffers.")
      .def(py::init([](double scale, std::int32_t offset) {
             return CustomIOQuantParams{scale, offset};
           }),
           py::arg("scale") = 0.0, py::arg("offset") = 0)
      .def_readwrite("scale", &CustomIOQuantParams::scale)
      .def_readwrite("offset", &CustomIOQuantParams::offset);
  const auto shared = [](const auto& value) {
    using Value = typename std::decay_t<decltype(value)>::value_type;
    return value ? std::make_shared<Value>(*value) : nullptr;
  };
  using Type = std::optional<std::string>;
  using Params = std::optional<CustomIOQuantParams>;
  py::class_<CustomIOEntry>(module, "CustomIOEntry",
                            "What the application asks for one graph input or output.")
      .def(py::init([shared](const std::string& tensorName, const Type& dataType, const Params& quantParams,
                             bool optional) {
             return CustomIOEntry{tensorName, shared(dataType), shared(quantParams), optional};
           }),
           py::arg("tensorName"), py::arg("dataType") = py::none(), py::arg("quantParams") = py::none(),
           py::arg("optional") = false)
      .def_readwrite("tensorName", &CustomIOEntry::tensorName)
      .def_property(
          "dataType",
          [](const CustomIOEntry& self) { return self.dataType ? Type(*self.dataType) : std::nullopt; },
          [shared](CustomIOEntry& self, const Type& value) { self.dataType = shared(value); },
          "The type's name; None means \"uint8\".")
      .def_property(
          "quantParams",
          [](const CustomIOEntry& self) {
            return self.quantParams ? Params(*self.quantParams) : std::nullopt;
          },
          [shared](CustomIOEntry& self, const Params& value) { self.quantParams = shared(value); },
          "A copy; None: no quantisation is asked for.")
      .def_readwrite("optional", &CustomIOEntry::optional, "The application may leave the buffer out.");
}

}  // namespace

void bindMetadata(py::module_& module) {
  bindCustomIO(module);
  bindDtypes(module);
  bindTransformOps(module);
  bindTransformGraph(module);
  using Text = std::optional<std::string>;
  using Number = std::optional<std::int32_t>;
  py::class_<ODLTransformManager>(module, "ODLTransformManager",
                                  "A transform metadata file in memory: transform graphs by name. Failures "
                                  "are RuntimeErrors.")
      .def(py::init<>())
      .def("loadMetadata", &ODLTransformManager::loadMetadata, py::arg("path"), "Adds the graphs of a file.")
      .def("saveMetadata", &ODLTransformManager::saveMetadata, py::arg("path"),
           "Writes all graphs; an existing file is replaced in one step.")
      .def("createTransformGraph", &ODLTransformManager::createTransformGraph, py::arg("name"),
           py::arg("executionOrder"), py::arg("concurrencyName") = Text(), py::arg("splitNum") = Number(),
           py::arg("arN") = Number(), py::return_value_policy::reference_internal)
      .def("getTransformGraph",
           py::overload_cast<const std::string&>(&ODLTransformManager::getTransformGraph), py::arg("name"),
           py::return_value_policy::reference_internal)
      .def("getGraphNames", &ODLTransformManager::getGraphNames);
}

}  // namespace netforge::bindings
