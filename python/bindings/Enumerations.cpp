#include "ir/IrTypes.h"
#include "ir/Trace.h"
#include "python/bindings/Bindings.h"

namespace netforge::bindings {

namespace {

// The enumerators bear the names of the constants, and the constants' values make the enumeration.
void bindDataType(py::module_& module) {
  py::enum_<DataType> dataType(module, "DataType", "Element types, with the numbers of the target runtime.");
  for (const DataType value :
       {ORLO_DATATYPE_INT_2,           ORLO_DATATYPE_INT_4,           ORLO_DATATYPE_INT_8,
        ORLO_DATATYPE_INT_16,          ORLO_DATATYPE_INT_32,          ORLO_DATATYPE_INT_64,
        ORLO_DATATYPE_UINT_2,          ORLO_DATATYPE_UINT_4,          ORLO_DATATYPE_UINT_8,
        ORLO_DATATYPE_UINT_16,         ORLO_DATATYPE_UINT_32,         ORLO_DATATYPE_UINT_64,
        ORLO_DATATYPE_FLOAT_4,         ORLO_DATATYPE_FLOAT_8,         ORLO_DATATYPE_FLOAT_16,
        ORLO_DATATYPE_BFLOAT_16,       ORLO_DATATYPE_FLOAT_32,        ORLO_DATATYPE_FLOAT_64,
        ORLO_DATATYPE_SFIXED_POINT_2,  ORLO_DATATYPE_SFIXED_POINT_4,  ORLO_DATATYPE_SFIXED_POINT_8,
        ORLO_DATATYPE_SFIXED_POINT_16, ORLO_DATATYPE_SFIXED_POINT_32, ORLO_DATATYPE_UFIXED_POINT_2,
        ORLO_DATATYPE_UFIXED_POINT_4,  ORLO_DATATYPE_UFIXED_POINT_8,  ORLO_DATATYPE_UFIXED_POINT_16,
        ORLO_DATATYPE_UFIXED_POINT_32, ORLO_DATATYPE_BOOL_8,          ORLO_DATATYPE_STRING}) {
    dataType.value(getDataTypeName(value).c_str(), value);
  }
  dataType.value("ORLO_DATATYPE_UNDEFINED", ORLO_DATATYPE_UNDEFINED);
  dataType.export_values();
  module.def("getDataTypeName", &getDataTypeName, py::arg("type"),
             "The constant's own name; \"UNKNOWN\" for a number that is none.");
  module.def("getDataTypeShortName", &getDataTypeShortName, py::arg("type"),
             "The short form of dumps, such as \"float32\"; \"undefined\" without one.");
  module.def("isFloatDataType", &isFloatDataType, py::arg("type"),
             "Float in the sense of quantisation: FLOAT_16 and FLOAT_32 only.");
  module.def("isQuantizedType", &isQuantizedType, py::arg("type"),
             "The eight fixed-point types of width 4, 8, 16 and 32.");
}

void bindAxisFormat(py::module_& module) {
  py::enum_<AxisFormat> axisFormat(
      module, "AxisFormat",
      "Layouts. N batch, C channels, D depth, H height, W width, F feature, T time, I input channels, O "
      "output channels.");
  for (std::uint32_t number = 0; number <= static_cast<std::uint32_t>(AxisFormat::OIF); ++number) {
    const auto value = static_cast<AxisFormat>(number);
    axisFormat.value(axisFormatToString(value).c_str(), value);
  }
  axisFormat.value("NOT_YET_DEFINED", AxisFormat::NOT_YET_DEFINED);
  module.def("axisFormatToString", &axisFormatToString, py::arg("format"),
             "The string form, such as \"NHWC\".");
}

}  // namespace

void bindEnumerations(py::module_& module) {
  bindDataType(module);
  bindAxisFormat(module);
  py::enum_<TensorType>(module, "TensorType", "How the target runtime sees a tensor.")
      .value("GraphInput", TensorType::GraphInput, "written by the application")
      .value("GraphOutput", TensorType::GraphOutput, "read by the application")
      .value("GraphInputOutput", TensorType::GraphInputOutput)
      .value("Native", TensorType::Native, "lives inside the graph")
      .value("Static", TensorType::Static, "constant data")
      .value("Null", TensorType::Null)
      .value("OptionalInput", TensorType::OptionalInput)
      .value("OptionalOutput", TensorType::OptionalOutput)
      .value("OptionalInputOutput", TensorType::OptionalInputOutput)
      .value("StaticOwnNumbering", TensorType::StaticOwnNumbering);
  py::enum_<QuantEncodingKind>(module, "QuantEncodingKind", "Which group of a QuantInfo is in force.")
      .value("ScaleOffset", QuantEncodingKind::ScaleOffset)
      .value("AxisScaleOffset", QuantEncodingKind::AxisScaleOffset)
      .value("BwScaleOffset", QuantEncodingKind::BwScaleOffset)
      .value("BwAxisScaleOffset", QuantEncodingKind::BwAxisScaleOffset)
      .value("Block", QuantEncodingKind::Block)
      .value("SbqBlockwise", QuantEncodingKind::SbqBlockwise)
      .value("LaneEncoding", QuantEncodingKind::LaneEncoding)
      .value("BwAxisScaleOffsetMapped", QuantEncodingKind::BwAxisScaleOffsetMapped)
      .value("BlockMapped", QuantEncodingKind::BlockMapped)
      .value("TableEncoding", QuantEncodingKind::TableEncoding)
      .value("ArrayEncoding", QuantEncodingKind::ArrayEncoding)
      .value("Undefined", QuantEncodingKind::Undefined);
  py::enum_<AttrType>(module, "AttrType", "Whether an attribute is a scalar or a tensor.")
      .value("ORLO_PARAMTYPE_SCALAR", ORLO_PARAMTYPE_SCALAR)
      .value("ORLO_PARAMTYPE_TENSOR", ORLO_PARAMTYPE_TENSOR)
      .export_values();
  py::enum_<AttrClass>(module, "AttrClass", "What an attribute is for; given as 1, 2 or 3 in adders.")
      .value("ATTR_ORDINARY", ATTR_ORDINARY, "a parameter that reaches the runtime")
      .value("ATTR_SUPPLEMENTAL", ATTR_SUPPLEMENTAL)
      .value("ATTR_EXTRA", ATTR_EXTRA)
      .export_values();
  py::enum_<TraceKind>(module, "TraceKind", "What a trace record or source is about.")
      .value("Tensor", TraceKind::Tensor)
      .value("Op", TraceKind::Op);
}

}  // namespace netforge::bindings
