#include <limits>
#include <optional>

#include "GraphRefiner/src/PythonOwner.h"
#include "ir/Failure.h"
#include "metadata/Transforms.h"
#include "python/bindings/Bindings.h"
#include "python/bindings/NumpyData.h"

namespace netforge::bindings {

namespace {

using Dims = std::vector<std::uint32_t>;
using StaticPtr = std::shared_ptr<IrStaticTensor>;

/// What a Python caller may say about a static tensor besides its data.
struct Properties {
  AxisFormat axisFormat;
  AxisFormat srcAxisFormat;
  TensorType tensorType;
  std::optional<DataType> srcDataType;
  std::optional<bool> quantizable;
  QuantInfo quantInfo;
  bool updateable;
  Dims explicitPermuteOrder;
};

/// A tensor on the bytes of a Python object. The tensor goes first.
struct BorrowingTensor {
  PythonOwner owner;
  IrStaticTensor tensor;

  template <class... Arguments>
  explicit BorrowingTensor(py::handle source, Arguments&&... arguments)
      : owner(source), tensor(std::forward<Arguments>(arguments)...) {}
};

DataType elementType(const std::string& name, const py::dtype& dtype, const std::optional<DataType>& given) {
  if (!given) return dataTypeOf(dtype);
  if (elementBytes(*given) != static_cast<std::uint32_t>(dtype.itemsize())) {
    throw py::type_error("data of tensor " + name + " is of dtype " + dtype.attr("name").cast<std::string>() +
                         ", and elements of " + getDataTypeName(*given) + " have another width");
  }
  return *given;
}

StaticPtr makeStaticTensor(const std::string& name, const py::array& source,
                           const std::optional<DataType>& dataType, const Properties& properties, bool copy) {
  const DataType type = elementType(name, source.dtype(), dataType);
  const py::array array = plainArray(source);
  const Dims dims = dimsOf(name, array);
  const std::uint32_t size = bytesOf(name, array);
  const bool isDefined = properties.quantInfo.encoding != QuantEncodingKind::Undefined;
  const auto make = [&](auto maker) {
    return maker(name, dims, size, array.data(), type, properties.srcDataType.value_or(type),
                 properties.quantizable.value_or(isFloatDataType(type) || isDefined), properties.quantInfo,
                 properties.axisFormat, properties.srcAxisFormat, !copy, properties.tensorType,
                 properties.updateable, properties.explicitPermuteOrder, std::shared_ptr<TransformManager>());
  };
  if (copy) {
    return make([](const auto&... arguments) { return std::make_shared<IrStaticTensor>(arguments...); });
  }
  return make([&](const auto&... arguments) {
    auto holder = std::make_shared<BorrowingTensor>(array, arguments...);
    return StaticPtr(holder, &holder->tensor);
  });
}

/// The tensor's size follows from its dims; half floats lie in the file as 32-bit floats.
StaticPtr makeExternalTensor(const std::string& name, const Dims& dims, DataType dataType,
                             const std::string& path, std::uint64_t offset, std::uint64_t length,
                             const Properties& properties) {
  std::uint64_t size = elementBytes(dataType);
  for (const std::uint32_t dim : dims) {
    if (__builtin_mul_overflow(size, dim, &size)) size = std::numeric_limits<std::uint64_t>::max();
  }
  const std::uint64_t inFile = dataType == ORLO_DATATYPE_FLOAT_16 ? length / 2 : length;
  if (size == 0 && elementBytes(dataType) == 0) size = inFile;
  if (size != inFile) {
    throw py::value_error(concatText("tensor ", name, " with dims ", dimsText(dims), " of ",
                                     getDataTypeName(dataType), " does not have ", length,
                                     " bytes in its file"));
  }
  if (size > std::numeric_limits<std::uint32_t>::max()) {
    throw py::value_error(concatText("data of tensor ", name, " is too large: ", size,
                                     " bytes, and a tensor holds less than 4 GiB"));
  }
  const bool isDefined = properties.quantInfo.encoding != QuantEncodingKind::Undefined;
  auto tensor = std::make_shared<IrStaticTensor>(
      name, dims, static_cast<std::uint32_t>(size), nullptr, dataType,
      properties.srcDataType.value_or(dataType),
      properties.quantizable.value_or(isFloatDataType(dataType) || isDefined), properties.quantInfo,
      properties.axisFormat, properties.srcAxisFormat, false, properties.tensorType, properties.updateable,
      properties.explicitPermuteOrder, nullptr);
  ExternalDataRef ref;
  ref.path = path;
  ref.offset = offset;
  ref.length = length;
  tensor->setExternalData(ref);
  return tensor;
}

void updateData(IrStaticTensor& tensor, const py::array& source) {
  const DataType type = tensor.getDataType();
  const bool isRaw = source.dtype().kind() == 'u' && source.dtype().itemsize() == 1;
  const bool isFitting = elementBytes(type) != 0 && source.dtype().equal(dtypeOf(type));
  if (!isRaw && !isFitting) {
    throw py::type_error("data of tensor " + tensor.getName() + " is of type " + getDataTypeName(type) +
                         ", which an array of dtype " + source.dtype().attr("name").cast<std::string>() +
                         " does not hold");
  }
  const py::array array = plainArray(source);
  tensor.updateData(array.data(), bytesOf(tensor.getName(), array), false);
}

std::vector<std::string> transformTexts(const IrStaticTensor& tensor) {
  std::vector<std::string> texts;
  if (const auto manager = tensor.getTransformManager()) {
    for (const auto& transform : manager->getTransforms()) texts.push_back(transform->serialize());
  }
  return texts;
}

void bindConstruction(Classes& classes) {
  const auto undefined = AxisFormat::NOT_YET_DEFINED;
  classes.staticTensor
      .def(
          py::init([](const std::string& name, const py::array& data, const std::optional<DataType>& dataType,
                      AxisFormat axisFormat, AxisFormat srcAxisFormat, TensorType tensorType, bool copy,
                      const std::optional<DataType>& srcDataType, const std::optional<bool>& quantizable,
                      const QuantInfo& quantInfo, bool updateable, const Dims& explicitPermuteOrder) {
            return makeStaticTensor(name, data, dataType,
                                    {axisFormat, srcAxisFormat, tensorType, srcDataType, quantizable,
                                     quantInfo, updateable, explicitPermuteOrder},
                                    copy);
          }),
          py::arg("name"), py::arg("data"), py::arg("dataType") = py::none(),
          py::arg("axisFormat") = undefined, py::arg("srcAxisFormat") = undefined,
          py::arg("tensorType") = TensorType::Static, py::arg("copy") = false,
          py::arg("srcDataType") = py::none(), py::arg("quantizable") = py::none(),
          py::arg("quantInfo") = QuantInfo(), py::arg("updateable") = false,
          py::arg("explicitPermuteOrder") = Dims(),
          "A tensor on the bytes of a NumPy array.\n\n"
          "The array is borrowed, not copied, and kept alive as long as the tensor lives; it may be "
          "read-only. "
          "The tensor never writes into it. With `copy`, and for an array that is not C-contiguous, the "
          "tensor "
          "has bytes of its own. The type follows from the dtype; another `dataType` of the same width may "
          "be "
          "given, such as a fixed-point type.")
      .def(py::init<const std::string&, const Dims&>(), py::arg("name"), py::arg("values"),
           "A small constant such as an axis list: rank 1, unsigned 32-bit.")
      .def_static(
          "fromExternal",
          [](const std::string& name, const Dims& dims, DataType dataType, const std::string& path,
             std::uint64_t offset, std::uint64_t length, AxisFormat axisFormat, AxisFormat srcAxisFormat,
             TensorType tensorType, const std::optional<DataType>& srcDataType,
             const std::optional<bool>& quantizable, const QuantInfo& quantInfo, bool updateable,
             const Dims& explicitPermuteOrder) {
            return makeExternalTensor(name, dims, dataType, path, offset, length,
                                      {axisFormat, srcAxisFormat, tensorType, srcDataType, quantizable,
                                       quantInfo, updateable, explicitPermuteOrder});
          },
          py::arg("name"), py::arg("dims"), py::arg("dataType"), py::arg("path"), py::arg("offset"),
          py::arg("length"), py::arg("axisFormat") = undefined, py::arg("srcAxisFormat") = undefined,
          py::arg("tensorType") = TensorType::Static, py::arg("srcDataType") = py::none(),
          py::arg("quantizable") = py::none(), py::arg("quantInfo") = QuantInfo(),
          py::arg("updateable") = false, py::arg("explicitPermuteOrder") = Dims(),
          "A tensor whose bytes stay in a file until they are first read. `offset` and `length` are in "
          "bytes. "
          "For FLOAT_16 the file holds 32-bit floats, which are converted on reading. Raises ValueError when "
          "`length` is not what the dims ask for.");
}

}  // namespace

void bindStaticTensors(Classes& classes) {
  bindConstruction(classes);
  classes.staticTensor
      .def("numpy", &viewOf,
           "The data as an array, without a copy. The array keeps the tensor alive, and is writable when the "
           "tensor owns its bytes. Use it before the data is next replaced, as passes may do: take a copy to "
           "keep the values. Fixed-point types show as integers of their width.")
      .def("getData", &bytesView, "The bytes as a flat uint8 array, under the terms of numpy().")
      .def("updateData", &updateData, py::arg("data"),
           "Replaces the bytes by those of an array of the tensor's own dtype, or of raw uint8 bytes. A "
           "borrowed array is left alone. Raises ValueError when the size differs.")
      .def("getDataSize", &IrStaticTensor::getDataSize, "Bytes.")
      .def("getElement", &IrStaticTensor::getElement, py::arg("index"),
           "The raw 32-bit word; never reads the file. Raises IndexError beyond the end.")
      .def("isDataBorrowed", &IrStaticTensor::isDataBorrowed)
      .def("isDataLoaded", &IrStaticTensor::isDataLoaded)
      .def("getExternalData", [](const IrStaticTensor& self) { return self.getExternalData(); })
      .def("setExternalData", &IrStaticTensor::setExternalData, py::arg("ref"),
           "The bytes lie in this file from now on, and are read on first use.")
      .def("getTransforms", &transformTexts, "What was recorded as done to the data, as JSON texts.");
}

}  // namespace netforge::bindings
