#include "python/bindings/Bindings.h"

namespace netforge::bindings {

void bindAxisOrders(py::module_& module, Classes& classes) {
  const auto flags = [](auto& order, const char* name, auto method, const char* text) {
    order.def(name, method, py::arg("dims"), py::arg("axisFormat"), py::arg("isConvWeights") = false,
              py::arg("isTransposeConvWeights") = false, text);
  };
  auto& order = classes.axisOrder;
  order
      .def("extractSpatialDims", &AxisOrder::extractSpatialDims, py::arg("dims"),
           "Batch, spatial..., channels.")
      .def("extractTimeSeriesDims", &AxisOrder::extractTimeSeriesDims, py::arg("dims"),
           "Batch, time, feature.")
      .def("extractConvWeightsDims", &AxisOrder::extractConvWeightsDims, py::arg("dims"),
           "Spatial..., input channels, output channels.")
      .def("extractFcWeightsDims", &AxisOrder::extractFcWeightsDims, py::arg("dims"))
      .def("extractTransposeConvWeightsDims", &AxisOrder::extractTransposeConvWeightsDims, py::arg("dims"),
           "Spatial..., input channels, output channels.")
      .def("makeSpatial1dDims", &AxisOrder::makeSpatial1dDims, py::arg("batch"), py::arg("width"),
           py::arg("channels"))
      .def("makeSpatial2dDims", &AxisOrder::makeSpatial2dDims, py::arg("batch"), py::arg("height"),
           py::arg("width"), py::arg("channels"))
      .def("makeSpatial3dDims", &AxisOrder::makeSpatial3dDims, py::arg("batch"), py::arg("depth"),
           py::arg("height"), py::arg("width"), py::arg("channels"))
      .def("makeTimeSeriesDims", &AxisOrder::makeTimeSeriesDims, py::arg("batch"), py::arg("time"),
           py::arg("feature"))
      .def("getAxisFormat", &AxisOrder::getAxisFormat, py::arg("rank"), py::arg("timeSeries") = false,
           "The layout of a tensor of this rank.")
      .def("getConvWeightsFormat", &AxisOrder::getConvWeightsFormat, py::arg("rank"))
      .def("getTransposeConvWeightsFormat", &AxisOrder::getTransposeConvWeightsFormat, py::arg("rank"))
      .def("__repr__", [](py::handle self) {
        return py::type::handle_of(self).attr("__name__").cast<std::string>() + "()";
      });
  flags(order, "permuteDimsFromIr", &AxisOrder::permuteDimsFromIr, "From IR order to this layout.");
  flags(order, "permuteDimsToIr", &AxisOrder::permuteDimsToIr, "From this layout to IR order.");
  flags(order, "permuteShapeFromIr", &AxisOrder::permuteShapeFromIr, "The same, dynamic axes moving along.");
  flags(order, "permuteShapeToIr", &AxisOrder::permuteShapeToIr, "The same, dynamic axes moving along.");

  py::class_<SpatialFirstAxisOrder, AxisOrder, std::shared_ptr<SpatialFirstAxisOrder>>(
      module, "SpatialFirstAxisOrder", "IR order itself: NHWC, NDHWC, NFC.")
      .def(py::init<>());
  py::class_<SpatialLastAxisOrder, AxisOrder, std::shared_ptr<SpatialLastAxisOrder>>(
      module, "SpatialLastAxisOrder", "Channels behind batch: NCHW, NCDHW, NCF.")
      .def(py::init<>());
  py::class_<OnnxAxisOrder, SpatialLastAxisOrder, std::shared_ptr<OnnxAxisOrder>>(module, "OnnxAxisOrder",
                                                                                  "The order of ONNX models.")
      .def(py::init<>());
}

}  // namespace netforge::bindings
