#include "python/bindings/Bindings.h"
#include "python/bindings/Text.h"

namespace netforge::bindings {

namespace {

void bindQuantInfo(Classes& classes) {
  classes.quantInfo.def(py::init<>())
      .def(py::init<const QuantInfo&>(), py::arg("other"), "A copy: the header and the group in force.")
      .def(py::init([](QuantEncodingKind encoding, const EncodingInfo& scaleOffset) {
             QuantInfo info;
             info.encoding = encoding;
             info.scaleOffset = scaleOffset;
             return info;
           }),
           py::arg("encoding"), py::arg("scaleOffset") = EncodingInfo())
      .def_readwrite("encoding", &QuantInfo::encoding)
      .def_readwrite("isOverridden", &QuantInfo::isOverridden, "A float tensor's record that the user gave.")
      .def_readwrite("definition", &QuantInfo::definition)
      .def_readwrite("auxDefinition", &QuantInfo::auxDefinition)
      .def_readwrite("scaleOffset", &QuantInfo::scaleOffset)
      .def_readwrite("axis", &QuantInfo::axis)
      .def_readwrite("axisEncodings", &QuantInfo::axisEncodings,
                     "One entry per channel; assign the whole list.")
      .def_readwrite("blockFlags", &QuantInfo::blockFlags)
      .def_readwrite("blockAxis", &QuantInfo::blockAxis)
      .def_readwrite("blockSize", &QuantInfo::blockSize)
      .def_readwrite("blockEncodings", &QuantInfo::blockEncodings)
      .def_readwrite("sbqAxis", &QuantInfo::sbqAxis)
      .def_readwrite("sbqReserved", &QuantInfo::sbqReserved)
      .def_readwrite("sbqEncodings", &QuantInfo::sbqEncodings)
      .def_readwrite("sbqBlocksPerAxis", &QuantInfo::sbqBlocksPerAxis)
      .def_readwrite("sbqReserved2", &QuantInfo::sbqReserved2)
      .def_readwrite("sbqBlockScaleBitwidth", &QuantInfo::sbqBlockScaleBitwidth)
      .def_readwrite("sbqScales8", &QuantInfo::sbqScales8)
      .def_readwrite("sbqScales16", &QuantInfo::sbqScales16)
      .def_readwrite("laneAxis", &QuantInfo::laneAxis)
      .def_readwrite("laneEncodings", &QuantInfo::laneEncodings)
      .def_readwrite("laneCount", &QuantInfo::laneCount)
      .def_readwrite("laneStride", &QuantInfo::laneStride)
      .def_readwrite("laneFlags", &QuantInfo::laneFlags)
      .def_readwrite("arrayElementKind", &QuantInfo::arrayElementKind)
      .def_readwrite("arrayEncodings", &QuantInfo::arrayEncodings)
      .def_readwrite("arrayIndexTensor", &QuantInfo::arrayIndexTensor)
      .def_readwrite("tableKind", &QuantInfo::tableKind)
      .def_readwrite("tableCount", &QuantInfo::tableCount)
      .def_readwrite("tableDims", &QuantInfo::tableDims)
      .def_readwrite("tableValue0", &QuantInfo::tableValue0)
      .def_readwrite("tableValue1", &QuantInfo::tableValue1)
      .def_readwrite("tableBytes", &QuantInfo::tableBytes)
      .def_readwrite("tableWords", &QuantInfo::tableWords)
      .def(
          "__eq__", [](const QuantInfo& self, const QuantInfo& other) { return self == other; },
          py::is_operator())
      .def("__repr__", &quantInfoText);
}

}  // namespace

void bindQuantisation(py::module_& module, Classes& classes) {
  py::class_<EncodingInfo>(module, "EncodingInfo", "One scale and offset entry of a quantisation record.")
      .def(py::init([](std::uint32_t bitwidth, float minimum, float maximum, float scale, double offset,
                       bool isSymmetric, bool isFixedPoint, std::int32_t mappedWidth) {
             return EncodingInfo{bitwidth, minimum,     maximum,      scale,
                                 offset,   isSymmetric, isFixedPoint, mappedWidth};
           }),
           py::arg("bitwidth") = 0, py::arg("minimum") = 0.0f, py::arg("maximum") = 0.0f,
           py::arg("scale") = 0.0f, py::arg("offset") = 0.0, py::arg("isSymmetric") = false,
           py::arg("isFixedPoint") = true, py::arg("mappedWidth") = 0)
      .def_readwrite("bitwidth", &EncodingInfo::bitwidth)
      .def_readwrite("minimum", &EncodingInfo::minimum)
      .def_readwrite("maximum", &EncodingInfo::maximum)
      .def_readwrite("scale", &EncodingInfo::scale)
      .def_readwrite("offset", &EncodingInfo::offset)
      .def_readwrite("isSymmetric", &EncodingInfo::isSymmetric)
      .def_readwrite("isFixedPoint", &EncodingInfo::isFixedPoint)
      .def_readwrite("mappedWidth", &EncodingInfo::mappedWidth)
      .def(
          "__eq__", [](const EncodingInfo& self, const EncodingInfo& other) { return self == other; },
          py::is_operator())
      .def("__repr__", &encodingText);
  bindQuantInfo(classes);

  py::class_<SparseParams>(module, "SparseParams", "Sparse storage of a tensor; layout 0 is the one in use.")
      .def(py::init([](std::uint32_t layout, std::uint32_t numSpecifiedElements,
                       std::uint32_t numSparseDimensions) {
             return SparseParams{layout, numSpecifiedElements, numSparseDimensions};
           }),
           py::arg("layout") = 0x7FFFFFFF, py::arg("numSpecifiedElements") = 1,
           py::arg("numSparseDimensions") = 1)
      .def_readwrite("layout", &SparseParams::layout)
      .def_readwrite("numSpecifiedElements", &SparseParams::numSpecifiedElements)
      .def_readwrite("numSparseDimensions", &SparseParams::numSparseDimensions);

  py::class_<ExternalDataRef>(module, "ExternalDataRef",
                              "Where the bytes of a static tensor lie that has not been read yet.")
      .def(py::init([](const std::string& path, std::uint64_t offset, std::uint64_t length) {
             ExternalDataRef ref;
             ref.path = path;
             ref.offset = offset;
             ref.length = length;
             return ref;
           }),
           py::arg("path") = "", py::arg("offset") = 0, py::arg("length") = 0)
      .def_readwrite("path", &ExternalDataRef::path)
      .def_readwrite("offset", &ExternalDataRef::offset, "Bytes from the start of the file.")
      .def_readwrite("length", &ExternalDataRef::length, "Bytes in the file.")
      .def_readwrite("values", &ExternalDataRef::values)
      .def_readwrite("extra", &ExternalDataRef::extra);
}

}  // namespace netforge::bindings
