#include "python/bindings/Bindings.h"

namespace netforge::bindings {

namespace {

using Names = IrGraph::Names;
using OpPtr = IrGraph::OpPtr;
using OpList = std::vector<OpPtr>;
using TensorPtr = IrGraph::TensorPtr;

void bindOrderAndNames(Classes& classes) {
  classes.graph
      .def("moveOptoIndex", &IrGraph::moveOptoIndex, py::arg("op"), py::arg("index"),
           "Takes the op out and inserts it before position `index` of the shortened order.")
      .def("updateTensorName", &IrGraph::updateTensorName, py::arg("oldName"), py::arg("newName"))
      .def("swapTensorNames", &IrGraph::swapTensorNames, py::arg("nameA"), py::arg("nameB"));
}

void bindConsumers(Classes& classes) {
  classes.graph
      .def("removeOpAsConsumer", &IrGraph::removeOpAsConsumer, py::arg("op"), py::arg("tensor"),
           "Takes the tensor out of the op's inputs, at every place, and the op out of its consumers.")
      .def(
          "transferConsumers",
          [](IrGraph& self, const TensorPtr& fromTensor, const TensorPtr& toTensor, const OpList& consumers) {
            self.transferConsumers(fromTensor, toTensor, IrGraph::OpSet(consumers.begin(), consumers.end()));
          },
          py::arg("fromTensor"), py::arg("toTensor"), py::arg("consumers"))
      .def(
          "getConsumers",
          [](const IrGraph& self, const TensorPtr& tensor, const Names& consumerNames) {
            return consumersInGraphOrder(self, self.getConsumers(tensor, consumerNames));
          },
          py::arg("tensor"), py::arg("consumerNames") = Names(),
          "The consumers of those names, or all without names, in execution order.")
      .def("transferGraphOutputTensor", &IrGraph::transferGraphOutputTensor, py::arg("fromTensor"),
           py::arg("toTensor"));
}

}  // namespace

void bindGraphEdits(Classes& classes) {
  const auto undefined = AxisFormat::NOT_YET_DEFINED;
  bindOrderAndNames(classes);
  bindConsumers(classes);
  classes.graph
      .def("prune", &IrGraph::prune, py::arg("op"), py::arg("force") = false,
           "Removes an op and its output tensors, not its inputs. Raises RuntimeError when an output has a "
           "consumer, unless `force` cuts the consumers off.")
      .def("replace", &IrGraph::replace, py::arg("oldOp"), py::arg("replacementOp"),
           "Puts a new op in the place of an old one: same inputs, outputs and position.")
      .def("inject", &IrGraph::inject, py::arg("op"), py::arg("inputName"), py::arg("outputName"),
           py::arg("consumerNames") = Names(), py::arg("axisFormat") = undefined, py::arg("validate") = false,
           py::arg("inheritQuantizable") = false,
           "Puts a single-output op between a tensor and the named consumers, or all without names.")
      .def("injectAtIndex", &IrGraph::injectAtIndex, py::arg("op"), py::arg("inputName"),
           py::arg("outputName"), py::arg("index"), py::arg("consumerNames") = Names(),
           py::arg("axisFormat") = undefined, py::arg("validate") = false,
           py::arg("inheritQuantizable") = false)
      .def("injectImplicitPermute", &IrGraph::injectImplicitPermute, py::arg("inputName"),
           py::arg("axisFormat"), py::arg("order"), py::arg("consumerNames") = Names(),
           "Lets the consumers see a tensor in another layout through a Transpose that calls share.")
      .def("squash", &IrGraph::squash, py::arg("op"), py::arg("inputName"), py::arg("keepInput") = false,
           py::arg("transferQuant") = false,
           "Removes a single-output op that has become a no-op by merging its input and its output tensor.")
      .def("transferQuantInfo", &IrGraph::transferQuantInfo, py::arg("output").none(false),
           py::arg("input").none(false), py::arg("copyFromInput") = false)
      .def("producesStaticGraphOutput", &IrGraph::producesStaticGraphOutput, py::arg("op"))
      .def("injectPermuteToSpatialFirst", &IrGraph::injectPermuteToSpatialFirst,
           py::arg("tensor").none(false), py::arg("op").none(false))
      .def("injectPermuteToSpatialLast", &IrGraph::injectPermuteToSpatialLast, py::arg("tensor").none(false),
           py::arg("op").none(false))
      .def("injectPermuteToFeatureFirst", &IrGraph::injectPermuteToFeatureFirst,
           py::arg("tensor").none(false), py::arg("op").none(false));
}

}  // namespace netforge::bindings
