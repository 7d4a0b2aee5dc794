#include "python/bindings/NumpyData.h"

#include <limits>
#include <string>

#include "ir/Failure.h"

namespace netforge::bindings {

namespace {

struct TypeRow {
  DataType type;
  const char* dtype;
  bool isDefault;  // the type that the dtype stands for
};

// dtypes in NumPy's kind-and-width form, in the machine's byte order.
constexpr TypeRow kTypes[] = {
    {ORLO_DATATYPE_INT_8, "i1", true},
    {ORLO_DATATYPE_INT_16, "i2", true},
    {ORLO_DATATYPE_INT_32, "i4", true},
    {ORLO_DATATYPE_INT_64, "i8", true},
    {ORLO_DATATYPE_UINT_8, "u1", true},
    {ORLO_DATATYPE_UINT_16, "u2", true},
    {ORLO_DATATYPE_UINT_32, "u4", true},
    {ORLO_DATATYPE_UINT_64, "u8", true},
    {ORLO_DATATYPE_FLOAT_16, "f2", true},
    {ORLO_DATATYPE_FLOAT_32, "f4", true},
    {ORLO_DATATYPE_FLOAT_64, "f8", true},
    {ORLO_DATATYPE_BOOL_8, "b1", true},
    {ORLO_DATATYPE_INT_2, "i1", false},
    {ORLO_DATATYPE_INT_4, "i1", false},
    {ORLO_DATATYPE_UINT_2, "u1", false},
    {ORLO_DATATYPE_UINT_4, "u1", false},
    {ORLO_DATATYPE_FLOAT_4, "u1", false},
    {ORLO_DATATYPE_FLOAT_8, "u1", false},
    {ORLO_DATATYPE_BFLOAT_16, "u2", false},
    {ORLO_DATATYPE_SFIXED_POINT_2, "i1", false},
    {ORLO_DATATYPE_SFIXED_POINT_4, "i1", false},
    {ORLO_DATATYPE_SFIXED_POINT_8, "i1", false},
    {ORLO_DATATYPE_SFIXED_POINT_16, "i2", false},
    {ORLO_DATATYPE_SFIXED_POINT_32, "i4", false},
    {ORLO_DATATYPE_UFIXED_POINT_2, "u1", false},
    {ORLO_DATATYPE_UFIXED_POINT_4, "u1", false},
    {ORLO_DATATYPE_UFIXED_POINT_8, "u1", false},
    {ORLO_DATATYPE_UFIXED_POINT_16, "u2", false},
    {ORLO_DATATYPE_UFIXED_POINT_32, "u4", false},
};

const TypeRow* rowOf(DataType type) {
  for (const TypeRow& row : kTypes) {
    if (row.type == type) return &row;
  }
  return nullptr;
}

// Base of the view: the Python object of the tensor, so that its bytes outlive the view.
py::array viewWith(const std::shared_ptr<IrStaticTensor>& tensor, const py::dtype& dtype,
                   const std::vector<py::ssize_t>& shape) {
  const std::uint8_t* data = tensor->getData();
  if (data == nullptr && tensor->getDataSize() != 0) {
    throw py::value_error("tensor " + tensor->getName() + " has no data");
  }
  // A view needs an address, also when there is nothing behind it.
  static const std::uint64_t nothing = 0;
  py::array view(dtype, shape, {}, data != nullptr ? static_cast<const void*>(data) : &nothing,
                 py::cast(tensor));
  if (tensor->isDataBorrowed() || data == nullptr) view.attr("setflags")(py::arg("write") = false);
  return view;
}

}  // namespace

DataType dataTypeOf(const py::dtype& dtype) {
  for (const TypeRow& row : kTypes) {
    if (row.isDefault && dtype.kind() == row.dtype[0] && dtype.itemsize() == row.dtype[1] - '0')
      return row.type;
  }
  // The dtype that packages for machine learning register; NumPy has none of its own.
  const auto name = dtype.attr("name").cast<std::string>();
  if (name == "bfloat16") return ORLO_DATATYPE_BFLOAT_16;
  throw py::type_error("arrays of dtype " + name + " have no data type here");
}

py::dtype dtypeOf(DataType type) {
  const TypeRow* row = rowOf(type);
  if (row == nullptr)
    throw py::type_error("elements of type " + getDataTypeName(type) + " have no NumPy dtype");
  return py::dtype(std::string(row->dtype));
}

std::uint32_t elementBytes(DataType type) {
  const TypeRow* row = rowOf(type);
  return row != nullptr ? static_cast<std::uint32_t>(row->dtype[1] - '0') : 0;
}

py::array plainArray(const py::array& array) {
  const bool isContiguous = (array.flags() & py::array::c_style) != 0;
  const bool isAligned = (array.flags() & py::detail::npy_api::NPY_ARRAY_ALIGNED_) != 0;
  const bool isNative = array.dtype().attr("isnative").cast<bool>();
  if (isContiguous && isAligned && isNative) return array;
  const py::object native = array.dtype().attr("newbyteorder")("=");
  return array.attr("astype")(native, py::arg("order") = "C", py::arg("copy") = true);
}

std::vector<std::uint32_t> dimsOf(const std::string& name, const py::array& array) {
  if (array.ndim() == 0) {
    throw py::value_error("data of tensor " + name +
                          " has rank 0, and a tensor with data needs dims: give an array of rank 1");
  }
  std::vector<std::uint32_t> dims;
  for (py::ssize_t axis = 0; axis < array.ndim(); ++axis) {
    if (array.shape(axis) > std::numeric_limits<std::uint32_t>::max()) {
      throw py::value_error(
          concatText("axis ", axis, " of tensor ", name, " is too long: ", array.shape(axis)));
    }
    dims.push_back(static_cast<std::uint32_t>(array.shape(axis)));
  }
  return dims;
}

std::uint32_t bytesOf(const std::string& name, const py::array& array) {
  if (array.nbytes() > std::numeric_limits<std::uint32_t>::max()) {
    throw py::value_error(concatText("data of tensor ", name, " is too large: ", array.nbytes(),
                                     " bytes, and a tensor holds less than 4 GiB"));
  }
  return static_cast<std::uint32_t>(array.nbytes());
}

py::array viewOf(const std::shared_ptr<IrStaticTensor>& tensor) {
  const py::dtype dtype = dtypeOf(tensor->getDataType());
  std::vector<py::ssize_t> shape;
  std::uint64_t bytes = elementBytes(tensor->getDataType());
  for (const std::uint32_t dim : tensor->getDims()) {
    shape.push_back(static_cast<py::ssize_t>(dim));
    // Dims whose product overflows can't be those of the data: any product that differs tells so.
    if (__builtin_mul_overflow(bytes, dim, &bytes)) bytes = std::numeric_limits<std::uint64_t>::max();
  }
  if (bytes != tensor->getDataSize()) {
    throw py::value_error(concatText("tensor ", tensor->getName(), " with dims ", dimsText(tensor->getDims()),
                                     " has ", tensor->getDataSize(),
                                     " bytes of data: read them with getData()"));
  }
  return viewWith(tensor, dtype, shape);
}

py::array bytesView(const std::shared_ptr<IrStaticTensor>& tensor) {
  return viewWith(tensor, py::dtype("u1"), {static_cast<py::ssize_t>(tensor->getDataSize())});
}

}  // namespace netforge::bindings
