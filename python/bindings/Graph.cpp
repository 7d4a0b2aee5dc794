#include "output/ModelDump.h"
#include "python/bindings/Bindings.h"
#include "python/bindings/Text.h"

namespace netforge::bindings {

namespace {

using Dims = IrGraph::Dims;
using Names = IrGraph::Names;
using OpPtr = IrGraph::OpPtr;
using TensorPtr = IrGraph::TensorPtr;
using AxisFormats = std::vector<AxisFormat>;
using Shapes = std::vector<IrTensorShape>;

void bindNamePolicy(Classes& classes) {
  classes.namePolicy.def(py::init<>())
      .def(py::init<const Names&>(), py::arg("usedNames"))
      .def("generateUniqueName", &ConversionNamePolicy::generateUniqueName, py::arg("namePrefix"),
           py::arg("opType"), "\"<prefix>_<number>\", the number counting up per op type.")
      .def("generateOpName", &ConversionNamePolicy::generateOpName, py::arg("opType"),
           py::arg("baseName") = "", py::arg("prefixUnderscore") = false, py::arg("namePrefix") = "",
           py::arg("nameSuffix") = "", py::arg("altSuffix") = "");
}

void bindFields(Classes& classes) {
  classes.graph.def_readwrite("name", &IrGraph::name)
      .def_readwrite(
          "inputLayoutCodes", &IrGraph::inputLayoutCodes,
          "Layout codes of graph inputs by name: 8 marks a tensor without a layout, 7 a time series. "
          "Assign the whole dict.")
      .def_readwrite("sourceOpNames", &IrGraph::sourceOpNames,
                     "Op names of the source model, for trace validation. Assign the whole list.")
      .def_readwrite("sourceTensorNames", &IrGraph::sourceTensorNames,
                     "Tensor names of the source model, for trace validation. Assign the whole list.")
      .def_readwrite("customIOEntries", &IrGraph::customIOEntries, "Assign the whole list.")
      .def_readwrite("acceptsBiaslessFold", &IrGraph::acceptsBiaslessFold)
      .def_readwrite("transformMetadataPath", &IrGraph::transformMetadataPath,
                     "Empty: there is no such file.")
      .def_property_readonly(
          "ops", [](const IrGraph& self) { return self.getOps(); }, "In execution order.")
      .def_property_readonly(
          "tensors", [](const IrGraph& self) { return self.getTensors(); },
          "All tensors by name, in the order of names.")
      .def_property_readonly("graphInputs", &IrGraph::getGraphInputs)
      .def_property_readonly("graphOutputs", &IrGraph::getGraphOutputs)
      .def_property_readonly("axisOrder", [](const IrGraph& self) { return self.getAxisOrder(); })
      .def("__repr__", &graphSummary)
      .def("__str__", &graphText);
}

void bindAddingTensors(Classes& classes) {
  const auto undefined = AxisFormat::NOT_YET_DEFINED;
  classes.graph
      .def("addTensor", py::overload_cast<const TensorPtr&>(&IrGraph::addTensor), py::arg("tensor"),
           "Enters a tensor under its name; graph inputs and outputs also join their lists. Raises "
           "RuntimeError "
           "for a name that is taken, as all forms do.")
      .def("addTensor",
           py::overload_cast<const std::string&, const std::shared_ptr<IrStaticTensor>&>(&IrGraph::addTensor),
           py::arg("newName"), py::arg("sourceStaticTensor"), "Enters a deep copy of a static tensor.")
      .def("addTensor",
           py::overload_cast<const std::string&, const Dims&, DataType, AxisFormat, AxisFormat, bool,
                             const QuantInfo&>(&IrGraph::addTensor),
           py::arg("name"), py::arg("dims"), py::arg("dataType"), py::arg("axisFormat") = undefined,
           py::arg("srcAxisFormat") = undefined, py::arg("quantizable") = false,
           py::arg("quantInfo") = QuantInfo(), "Makes a native tensor.")
      .def("addTensor",
           py::overload_cast<const std::string&, const Dims&, DataType, DataType, AxisFormat, AxisFormat,
                             bool, const QuantInfo&, TensorType, bool, const Dims&>(&IrGraph::addTensor),
           py::arg("name"), py::arg("dims"), py::arg("dataType"), py::arg("srcDataType"),
           py::arg("axisFormat") = undefined, py::arg("srcAxisFormat") = undefined,
           py::arg("quantizable") = false, py::arg("quantInfo") = QuantInfo(),
           py::arg("tensorType") = TensorType::Native, py::arg("updateable") = false,
           py::arg("explicitPermuteOrder") = Dims());
}

void bindAddingOps(Classes& classes) {
  classes.graph
      .def(
          "addOp", py::overload_cast<const OpPtr&, std::int32_t, bool>(&IrGraph::addOp), py::arg("op"),
          py::arg("idx") = -1, py::arg("validate") = false,
          "Enters an op whose tensors are attached and in the graph, before position `idx` (-1: at the end).")
      .def(
          "addOp",
          [](IrGraph& self, const OpPtr& op, const Names& inputNames, const Names& outputNames,
             const std::optional<Shapes>& outputShapes, const AxisFormats& outputAxisFormats,
             std::int32_t idx, bool validate) {
            if (outputShapes) {
              self.addOp(op, inputNames, outputNames, *outputShapes, outputAxisFormats, idx, validate);
            } else {
              self.addOp(op, inputNames, outputNames, outputAxisFormats, idx, validate);
            }
          },
          py::arg("op"), py::arg("inputNames"), py::arg("outputNames"), py::arg("outputShapes") = py::none(),
          py::arg("outputAxisFormats") = AxisFormats(), py::arg("idx") = -1, py::arg("validate") = false,
          "Attaches the inputs, infers shapes (unless given) and types of the outputs, makes the outputs "
          "that "
          "don't exist and enters the op. After a failure the inputs stay marked as consumed.")
      .def(
          "addOp",
          py::overload_cast<const OpPtr&, const Names&, const Names&, const AxisFormats&, std::int32_t, bool>(
              &IrGraph::addOp),
          py::arg("op"), py::arg("inputNames"), py::arg("outputNames"), py::arg("outputAxisFormats"),
          py::arg("idx") = -1, py::arg("validate") = false);
}

void bindLookups(Classes& classes) {
  classes.graph.def("getTensor", &IrGraph::getTensor, py::arg("name"), "None when absent.")
      .def("getStaticTensor", &IrGraph::getStaticTensor, py::arg("name"), "None when absent or not static.")
      .def("hasTensor", &IrGraph::hasTensor, py::arg("name"))
      .def("getOp", &IrGraph::getOp, py::arg("name"), "None when absent.")
      .def("hasOp", &IrGraph::hasOp, py::arg("name"))
      .def(
          "getOps", [](const IrGraph& self) { return self.getOps(); }, "In execution order.")
      .def("numOps", &IrGraph::numOps)
      .def("getOpAt", &IrGraph::getOpAt, py::arg("index"), "Raises IndexError beyond the end.")
      .def("getOpIndex", &IrGraph::getOpIndex, py::arg("op"), "The position; the number of ops when absent.")
      .def("countOpsOfType", &IrGraph::countOpsOfType, py::arg("type"))
      .def("opsOfType", &IrGraph::opsOfType, py::arg("type"), "In execution order.")
      .def("getTensors", [](const IrGraph& self) { return self.getTensors(); })
      .def("numTensors", &IrGraph::numTensors)
      .def("getGraphInputs", &IrGraph::getGraphInputs)
      .def("getGraphOutputs", &IrGraph::getGraphOutputs)
      .def("getAxisOrder", [](const IrGraph& self) { return self.getAxisOrder(); })
      .def("getNamePolicy", &IrGraph::getNamePolicy)
      .def("removeTensor", &IrGraph::removeTensor, py::arg("name"),
           "Takes the tensor out; links and lists stay as they are.");
}

}  // namespace

void bindGraph(py::module_& module, Classes& classes) {
  py::class_<BackendInfo, std::shared_ptr<BackendInfo>>(
      module, "BackendInfo", "The backend that a graph is prepared for. Kind 3 is the accelerator.")
      .def(py::init<std::uint8_t>(), py::arg("backendKind"))
      .def("getBackendKind", &BackendInfo::getBackendKind)
      .def_property_readonly("backendKind", &BackendInfo::getBackendKind)
      .def("__repr__", [](const BackendInfo& self) {
        return "BackendInfo(" + std::to_string(self.getBackendKind()) + ")";
      });
  bindNamePolicy(classes);
  classes.graph.def(py::init<const std::string&, const std::shared_ptr<AxisOrder>&>(), py::arg("name"),
                    py::arg("axisOrder") = py::none(), "Without an axis order: SpatialFirstAxisOrder.");
  bindFields(classes);
  bindAddingTensors(classes);
  bindAddingOps(classes);
  bindLookups(classes);
  module.def(
      "dumpModelJson", &dumpModelJson, py::arg("graph").none(false), py::arg("fileName"),
      "Writes the model dump: tensors and nodes without static data. Leaves the empty files \"temp.cpp\" "
      "and \"temp.bin\" in the current directory.");
}

}  // namespace netforge::bindings
