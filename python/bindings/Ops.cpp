#include "ops/OpFactory.h"
#include "ops/TranslationRegistry.h"
#include "python/bindings/Bindings.h"
#include "python/bindings/PythonValues.h"
#include "python/bindings/Text.h"

namespace netforge::bindings {

namespace {

using ops::IrOp;
using AxisOrderPtr = std::shared_ptr<AxisOrder>;
using TensorPtr = std::shared_ptr<IrTensor>;

std::shared_ptr<IrOp> createOp(const std::string& type, const std::string& name, const py::object& params) {
  return graphrefiner::createOp(type, name,
                                params.is_none() ? graphrefiner::OpParams() : paramsOf(py::dict(params)));
}

std::shared_ptr<IrOp> applyMethod(const std::string& type, const std::string& name,
                                  const py::object& attributes, const IrOp::TensorList& inputs,
                                  const IrOp::TensorList& outputs) {
  // The creators of the op classes never call back into Python, so the registry's lock is harmless here.
  return TranslationRegistry::instance().applyMethod(type, name, attributesOf(attributes, name), inputs,
                                                     outputs);
}

// The distinct inputs in order of first occurrence: the set itself is ordered by address.
IrOp::TensorList distinctInputs(const IrOp& op) {
  IrOp::TensorList result;
  std::set<TensorPtr> seen;
  for (const TensorPtr& tensor : op.getInputs()) {
    if (seen.insert(tensor).second) result.push_back(tensor);
  }
  return result;
}

void bindFields(Classes& classes) {
  classes.op.def_property_readonly("name", [](const IrOp& self) { return self.getName(); })
      .def_property_readonly("type", [](const IrOp& self) { return self.getType(); })
      .def_property_readonly("attributes", [](const IrOp& self) { return self.getAttributes(); })
      .def_property_readonly("inputs", &IrOp::getInputs)
      .def_property_readonly("outputs", &IrOp::getOutputs)
      .def("getName", [](const IrOp& self) { return self.getName(); })
      .def("getType", [](const IrOp& self) { return self.getType(); })
      .def("getAttributes", [](const IrOp& self) { return self.getAttributes(); })
      .def("isCanonicalized", &IrOp::isCanonicalized)
      .def("getInputs", &IrOp::getInputs, "Raises RuntimeError when a tensor is gone, as all reads do.")
      .def("getOutputs", &IrOp::getOutputs)
      .def("getInput", &IrOp::getInput, py::arg("idx"))
      .def("getOutput", &IrOp::getOutput, py::arg("idx"))
      .def("getInputDims", &IrOp::getInputDims)
      .def("getOutputDims", &IrOp::getOutputDims)
      .def("getInputAxisFormats", &IrOp::getInputAxisFormats,
           "The layouts of the input tensors as they are now.")
      .def(
          "getStoredInputAxisFormats", [](const IrOp& self) { return self.getStoredInputAxisFormats(); },
          "The layouts of the input tensors as they were on attaching.")
      .def("getInputSet", &distinctInputs, "The distinct inputs, in order of first occurrence.")
      .def("numInputs", &IrOp::numInputs)
      .def("numOutputs", &IrOp::numOutputs)
      .def("displayName", &IrOp::displayName, "\"<name>[<type>]\".")
      .def_static("lastDimsProduct", &IrOp::lastDimsProduct, py::arg("dims"), py::arg("n"))
      .def("__repr__", &opText);
}

void bindListEdits(Classes& classes) {
  classes.op
      .def("addInput", &IrOp::addInput, py::arg("tensor"), py::arg("idx") = -1,
           "Changes this op's list alone, as all list edits do; the graph's edits keep links true.")
      .def("addOutput", &IrOp::addOutput, py::arg("tensor"), py::arg("idx") = -1)
      .def("rmInputAtIdx", &IrOp::rmInputAtIdx, py::arg("idx"))
      .def("rmOutputAtIdx", &IrOp::rmOutputAtIdx, py::arg("idx"))
      .def("removeInput", &IrOp::removeInput, py::arg("tensor"))
      .def("removeOutput", &IrOp::removeOutput, py::arg("tensor"))
      .def("setInput", &IrOp::setInput, py::arg("tensor"), py::arg("idx"))
      .def("setOutput", &IrOp::setOutput, py::arg("tensor"), py::arg("idx"))
      .def("setInputs", &IrOp::setInputs, py::arg("tensors"))
      .def("setOutputs", &IrOp::setOutputs, py::arg("tensors"))
      .def("replaceInputTensor", &IrOp::replaceInputTensor, py::arg("oldTensor"), py::arg("newTensor"))
      .def("replaceOutputTensor", &IrOp::replaceOutputTensor, py::arg("oldTensor"), py::arg("newTensor"))
      .def("setInputAxisFormat", &IrOp::setInputAxisFormat, py::arg("format"), py::arg("idx"));
}

void bindProtocol(Classes& classes) {
  const auto order = py::arg("axisOrder").none(false);
  classes.op.def("macs", &IrOp::macs, order, "Multiply-accumulate operations.")
      .def("paramsCount", &IrOp::paramsCount, order, "Trained parameters.")
      .def("canonicalizeOp", &IrOp::canonicalizeOp, py::arg("numOutputs"))
      .def("inferOutputShapes", &IrOp::inferOutputShapes, order, py::arg("numOutputs"),
           "Dims of the outputs.")
      .def("inferOutputTensorShapes", &IrOp::inferOutputTensorShapes, order, py::arg("numOutputs"),
           "Shapes of the outputs, dynamic axes included.")
      .def("inferOutputDataTypes", &IrOp::inferOutputDataTypes, py::arg("numOutputs"))
      .def("inferOutputSrcDataTypes", &IrOp::inferOutputSrcDataTypes, py::arg("numOutputs"))
      .def("overrideDataAxisFormats", &IrOp::overrideDataAxisFormats, order)
      .def("populateOutputAxisFormats", &IrOp::populateOutputAxisFormats, order, py::arg("inputLayoutCodes"),
           py::arg("isTimeSeries") = false)
      .def("validateOp", &IrOp::validateOp)
      .def("resizeOp", &IrOp::resizeOp, order, py::arg("numOutputs"));
}

}  // namespace

void bindOps(py::module_& module, Classes& classes) {
  classes.op.def(py::init([](const std::string& name, const std::string& type, const py::object& attributes) {
                   return std::make_shared<IrOp>(name, type, attributesOf(attributes, name));
                 }),
                 py::arg("name"), py::arg("type"), py::arg("attributes") = py::none(),
                 "A plain op: shape-preserving and free of cost, whatever its type. `attributes` is an "
                 "IrAttributes, which the op shares, or a dict by the rules of IrAttributes.");
  bindFields(classes);
  bindListEdits(classes);
  bindProtocol(classes);

  module.def(
      "createOp", &createOp, py::arg("type"), py::arg("name"), py::arg("params") = py::none(),
      "An op of a known type, without tensors. The op class fills in its defaults.\n\n"
      "Parameters become bool, float, str, or an unsigned 32-bit value for an int (signed when negative); "
      "NumPy scalars say the type (np.uint8, np.int32, np.uint32, np.float32, np.bool_), and a list of ints "
      "becomes a constant of unsigned 32-bit values. Parameters that the type doesn't know are ignored. "
      "Raises RuntimeError for an unknown type or a missing parameter.");
  module.def(
      "applyMethod", &applyMethod, py::arg("type"), py::arg("name"), py::arg("attributes") = py::none(),
      py::arg("inputs") = IrOp::TensorList(), py::arg("outputs") = IrOp::TensorList(),
      "An op of a known type around exactly these attributes (an IrAttributes, which the op shares, or a "
      "dict) and tensors. Raises RuntimeError for an unknown type, and when the op class refuses.");
  module.def(
      "hasMethod", [](const std::string& type) { return TranslationRegistry::instance().hasMethod(type); },
      py::arg("type"), "Whether ops of this type have a class.");
}

}  // namespace netforge::bindings
