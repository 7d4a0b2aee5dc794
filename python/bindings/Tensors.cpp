#include "python/bindings/Bindings.h"
#include "python/bindings/Text.h"

namespace netforge::bindings {

namespace {

using Dims = std::vector<std::uint32_t>;
using TensorPtr = std::shared_ptr<IrTensor>;

std::set<std::uint32_t> axesOf(const py::object& axes) {
  std::set<std::uint32_t> result;
  if (axes.is_none()) return result;
  for (const py::handle axis : axes) result.insert(axis.cast<std::uint32_t>());
  return result;
}

TensorPtr makeTensor(const std::string& name, const IrTensorShape& shape, DataType dataType,
                     AxisFormat axisFormat, AxisFormat srcAxisFormat, TensorType tensorType,
                     const std::optional<DataType>& srcDataType, const std::optional<bool>& quantizable,
                     const QuantInfo& quantInfo, bool updateable, const Dims& explicitPermuteOrder) {
  const bool isQuantizable =
      quantizable.value_or(isFloatDataType(dataType) || quantInfo.encoding != QuantEncodingKind::Undefined);
  auto tensor = std::make_shared<IrTensor>(name, shape.dims, dataType, srcDataType.value_or(dataType),
                                           isQuantizable, quantInfo, axisFormat, srcAxisFormat, tensorType,
                                           updateable, explicitPermuteOrder);
  if (shape.hasDynamicAxes()) tensor->setShape(shape);
  return tensor;
}

// The set of consumers is ordered by address, which must not show.
std::vector<std::shared_ptr<ops::IrOp>> consumersByName(const IrTensor& tensor) {
  std::vector<std::shared_ptr<ops::IrOp>> consumers(tensor.getConsumers().begin(),
                                                    tensor.getConsumers().end());
  std::sort(consumers.begin(), consumers.end(),
            [](const auto& a, const auto& b) { return a->getName() < b->getName(); });
  return consumers;
}

void bindShape(Classes& classes) {
  classes.shape.def(py::init<>())
      .def(py::init([](const Dims& dims, const py::object& dynamicAxes) {
             return IrTensorShape(dims, axesOf(dynamicAxes));
           }),
           py::arg("dims"), py::arg("dynamicAxes") = py::tuple(),
           "Raises ValueError for a dynamic axis that is not below the rank.")
      .def_property_readonly("dims", [](const IrTensorShape& self) { return self.dims; })
      .def_property_readonly("dynamicAxes", [](const IrTensorShape& self) { return self.dynamicAxes; })
      .def_property_readonly(
          "dynamicMask", [](const IrTensorShape& self) { return self.dynamicMask; },
          "One bool per axis; empty without dynamic axes.")
      .def("rank", &IrTensorShape::rank)
      .def("hasDynamicAxes", &IrTensorShape::hasDynamicAxes)
      .def("isDynamicDim", &IrTensorShape::isDynamicDim, py::arg("index"))
      .def("permute", &IrTensorShape::permute, py::arg("order"), "result.dims[i] = dims[order[i]].")
      .def("padToRank", &IrTensorShape::padToRank, py::arg("rank"), "Puts ones in front.")
      .def_static("padDimsToRank", &IrTensorShape::padDimsToRank, py::arg("dims"), py::arg("rank"))
      .def("hasUnitDim", &IrTensorShape::hasUnitDim)
      .def("validate", &IrTensorShape::validate)
      .def("__len__", &IrTensorShape::rank)
      .def(
          "__eq__", [](const IrTensorShape& self, const IrTensorShape& other) { return self == other; },
          py::is_operator())
      .def("__hash__",
           [](const IrTensorShape& self) {
             return py::hash(
                 py::make_tuple(py::tuple(py::cast(self.dims)), py::frozenset(py::cast(self.dynamicAxes))));
           })
      .def("__repr__", &shapeText);
  py::implicitly_convertible<py::sequence, IrTensorShape>();
}

void bindTensorFields(Classes& classes) {
  classes.tensor.def_property_readonly("name", [](const IrTensor& self) { return self.getName(); })
      .def_property_readonly("id", &IrTensor::getId, "Unique among the tensors of the process.")
      .def_property_readonly("shape", [](const IrTensor& self) { return self.getShape(); })
      .def_property_readonly("dims", [](const IrTensor& self) { return self.getDims(); })
      .def_property_readonly("rank", &IrTensor::getRank)
      .def_property_readonly("dynamicAxes", [](const IrTensor& self) { return self.getShape().dynamicAxes; })
      .def_property_readonly("dataType", &IrTensor::getDataType)
      .def_property_readonly("srcDataType", &IrTensor::getSrcDataType)
      .def_property_readonly("axisFormat", &IrTensor::getAxisFormat)
      .def_property_readonly("srcAxisFormat", &IrTensor::getSrcAxisFormat)
      .def_property_readonly("tensorType", &IrTensor::getTensorType)
      .def_property_readonly("quantInfo", [](const IrTensor& self) { return QuantInfo(self.getQuantInfo()); })
      .def_property_readonly("producer", &IrTensor::getProducer, "The op that writes this tensor, or None.")
      .def_property_readonly("consumers", &consumersByName, "The ops that read this tensor, by name.")
      .def("isStatic", &IrTensor::isStatic)
      .def("getName", [](const IrTensor& self) { return self.getName(); })
      .def("setName", &IrTensor::setName, py::arg("name"),
           "Renames this record alone, with a fresh id. A tensor of a graph is renamed by the graph's "
           "updateTensorName.")
      .def("getId", &IrTensor::getId)
      .def("getShape", [](const IrTensor& self) { return self.getShape(); })
      .def("setShape", &IrTensor::setShape, py::arg("shape"))
      .def("getDims", [](const IrTensor& self) { return self.getDims(); })
      .def("getRank", &IrTensor::getRank)
      .def("getDataType", &IrTensor::getDataType)
      .def("setDataType", &IrTensor::setDataType, py::arg("dataType"))
      .def("getSrcDataType", &IrTensor::getSrcDataType)
      .def("setSrcDataType", &IrTensor::setSrcDataType, py::arg("dataType"))
      .def("getAxisFormat", &IrTensor::getAxisFormat)
      .def("setAxisFormat", &IrTensor::setAxisFormat, py::arg("format"))
      .def("getSrcAxisFormat", &IrTensor::getSrcAxisFormat)
      .def("setSrcAxisFormat", &IrTensor::setSrcAxisFormat, py::arg("format"))
      .def("getTensorType", &IrTensor::getTensorType)
      .def("setTensorType", &IrTensor::setTensorType, py::arg("type"),
           "Never edits a graph's lists of inputs and outputs.")
      .def("getRuntimeTensorType", &IrTensor::getRuntimeTensorType, "The number that the runtime gets.")
      .def("isGraphInput", &IrTensor::isGraphInput)
      .def("isGraphOutput", &IrTensor::isGraphOutput)
      .def("isOptional", &IrTensor::isOptional)
      .def("isUpdateable", &IrTensor::isUpdateable)
      .def("setUpdateable", &IrTensor::setUpdateable, py::arg("updateable"));
}

void bindTensorQuantisation(Classes& classes) {
  classes.tensor.def("isQuantizable", &IrTensor::isQuantizable)
      .def("setQuantizable", &IrTensor::setQuantizable, py::arg("quantizable"),
           "Raises ValueError for True on a type that is not float; False also undefines the encoding.")
      .def("isQuantized", &IrTensor::isQuantized)
      .def(
          "getQuantInfo", [](const IrTensor& self) { return QuantInfo(self.getQuantInfo()); }, "A copy.")
      .def("setQInfo", &IrTensor::setQInfo, py::arg("dataType"), py::arg("quantInfo"),
           "Stores type and record. Raises ValueError unless the tensor is quantizable and the record's "
           "encoding is defined.")
      .def("setFloatQInfo", &IrTensor::setFloatQInfo, py::arg("dataType"), py::arg("quantInfo"),
           "Makes this a float tensor with a range of its own: not quantizable, marked as overridden.")
      .def("getSparseParams", [](const IrTensor& self) { return self.getSparseParams(); })
      .def("setSparseParams", &IrTensor::setSparseParams, py::arg("params"));
}

void bindTensorLinks(Classes& classes) {
  classes.tensor.def("getProducer", &IrTensor::getProducer, "The op that writes this tensor, or None.")
      .def("setProducer", &IrTensor::setProducer, py::arg("producer"))
      .def("clearProducer", &IrTensor::clearProducer)
      .def("getConsumers", &consumersByName, "The ops that read this tensor, by name.")
      .def("addConsumer", &IrTensor::addConsumer, py::arg("op").none(false))
      .def("removeConsumer", &IrTensor::removeConsumer, py::arg("op").none(false))
      .def("clearConsumers", &IrTensor::clearConsumers)
      .def("elements", &IrTensor::elements,
           "Product of the dims modulo 2**32; 0 for rank 0. Raises ValueError with dynamic axes.")
      .def("getPermuteOrder", &IrTensor::getPermuteOrder,
           "The order that takes the present layout to the one of the source model; [] when none is known.")
      .def("getExplicitPermuteOrder", [](const IrTensor& self) { return self.getExplicitPermuteOrder(); })
      .def("setExplicitPermuteOrder", &IrTensor::setExplicitPermuteOrder, py::arg("order"))
      .def(
          "equals", [](const IrTensor& self, const IrTensor& other) { return self == other; },
          py::arg("other"),
          "Equal in name, types, shape, flags, quantisation and data; layout, tensor type and links take no "
          "part. `==` compares identity.")
      .def("__repr__", &tensorText);
}

}  // namespace

void bindTensors(Classes& classes) {
  bindShape(classes);
  classes.tensor.def(
      py::init(&makeTensor), py::arg("name"), py::arg("shape"), py::arg("dataType"),
      py::arg("axisFormat") = AxisFormat::NOT_YET_DEFINED,
      py::arg("srcAxisFormat") = AxisFormat::NOT_YET_DEFINED, py::arg("tensorType") = TensorType::Native,
      py::arg("srcDataType") = py::none(), py::arg("quantizable") = py::none(),
      py::arg("quantInfo") = QuantInfo(), py::arg("updateable") = false,
      py::arg("explicitPermuteOrder") = Dims(),
      "`shape` is an IrTensorShape, whose dynamic axes are kept, or a list of dims. `srcDataType` is "
      "`dataType` "
      "unless given; `quantizable` is true for float types, and with a defined encoding, unless given.");
  bindTensorFields(classes);
  bindTensorQuantisation(classes);
  bindTensorLinks(classes);
}

}  // namespace netforge::bindings
