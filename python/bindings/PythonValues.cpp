#include "python/bindings/PythonValues.h"

#include <pybind11/numpy.h>

#include <limits>
#include <optional>
#include <variant>
#include <vector>

#include "ir/Failure.h"
#include "ir/IrTensor.h"
#include "python/bindings/NumpyData.h"

namespace netforge::bindings {

namespace {

struct UntypedInt {  // a Python int: what it becomes depends on its sign
  std::int64_t value;
};
using Scalar = std::variant<bool, float, std::uint8_t, std::int32_t, std::uint32_t, std::string, UntypedInt>;

[[noreturn]] void refuseType(const std::string& name, py::handle value) {
  throw py::type_error("value of '" + name + "' can't be of type " +
                       py::type::handle_of(value).attr("__name__").cast<std::string>());
}

[[noreturn]] void refuseRange(const std::string& name, py::handle value) {
  throw py::value_error("value of '" + name +
                        "' does not fit 32 bits: " + py::repr(value).cast<std::string>());
}

std::int64_t integerOf(const std::string& name, py::handle value) {
  const auto number = py::reinterpret_steal<py::object>(PyNumber_Index(value.ptr()));
  if (!number) throw py::error_already_set();
  int overflow = 0;
  const long long result = PyLong_AsLongLongAndOverflow(number.ptr(), &overflow);
  if (overflow != 0 || result < std::numeric_limits<std::int32_t>::min() ||
      result > std::numeric_limits<std::uint32_t>::max()) {
    refuseRange(name, value);
  }
  return result;
}

Scalar typedInteger(const std::string& name, py::handle value, const py::dtype& dtype) {
  const std::int64_t number = integerOf(name, value);
  if (dtype.itemsize() == 8) return UntypedInt{number};
  if (dtype.kind() == 'i') return static_cast<std::int32_t>(number);
  if (dtype.itemsize() == 1) return static_cast<std::uint8_t>(number);
  return static_cast<std::uint32_t>(number);
}

bool isNumpyScalar(py::handle value) {
  return py::isinstance(value, py::module_::import("numpy").attr("generic"));
}

/// Nothing for a value that is no scalar.
std::optional<Scalar> scalarOf(const std::string& name, py::handle value) {
  if (py::isinstance<py::str>(value)) return value.cast<std::string>();
  if (isNumpyScalar(value)) {
    const auto dtype = value.attr("dtype").cast<py::dtype>();
    if (dtype.kind() == 'b') return py::bool_(py::reinterpret_borrow<py::object>(value)).cast<bool>();
    if (dtype.kind() == 'f') return static_cast<float>(py::float_(py::reinterpret_borrow<py::object>(value)));
    if (dtype.kind() == 'i' || dtype.kind() == 'u') return typedInteger(name, value, dtype);
    refuseType(name, value);
  }
  if (py::isinstance<py::bool_>(value)) return value.cast<bool>();
  if (py::isinstance<py::float_>(value)) return static_cast<float>(value.cast<double>());
  const bool isArray = py::isinstance<py::array>(value);
  if (!isArray && PyIndex_Check(value.ptr()) != 0) return UntypedInt{integerOf(name, value)};
  return std::nullopt;
}

/// The array of a list (nested lists included) or array value; TypeError for anything else.
py::array arrayOf(const std::string& name, py::handle value) {
  const bool isList = py::isinstance<py::sequence>(value) && !py::isinstance<py::bytes>(value);
  if (!isList && !py::isinstance<py::array>(value)) refuseType(name, value);
  py::array array = py::module_::import("numpy").attr("asarray")(value);
  if (array.size() == 0 && array.dtype().kind() == 'f' && isList) array = array.attr("astype")("u4");
  if (array.ndim() == 0) array = array.attr("reshape")(1);
  return array;
}

/// The 32-bit words of an integer array.
py::array_t<std::uint32_t> wordsOf(const std::string& name, const py::array& array) {
  const char kind = array.dtype().kind();
  if (kind != 'i' && kind != 'u') {
    throw py::type_error("value of '" + name + "' must hold integers, not " +
                         py::str(array.dtype()).cast<std::string>());
  }
  if (array.size() > 0) {
    integerOf(name, array.attr("min")());
    integerOf(name, array.attr("max")());
  }
  return array.attr("astype")("u4", py::arg("order") = "C");
}

void addTensor(IrAttributes& attributes, const std::string& name, const py::array& values,
               AttrClass attrClass, const std::string& opName) {
  const bool isWide = values.dtype().kind() != 'f' && values.dtype().itemsize() == 8;
  const py::array array = isWide ? wordsOf(name, values) : plainArray(values);
  const std::string tensorName = opName.empty() ? name : opName + "_" + name;
  attributes.add(name,
                 std::make_shared<IrStaticTensor>(
                     tensorName, dimsOf(tensorName, array), bytesOf(tensorName, array), array.data(),
                     dataTypeOf(array.dtype()), AxisFormat::NOT_YET_DEFINED, AxisFormat::NOT_YET_DEFINED,
                     false, TensorType::Static, std::vector<std::uint32_t>()),
                 attrClass);
}

}  // namespace

graphrefiner::OpParam paramOf(const std::string& name, py::handle value) {
  using graphrefiner::OpParam;
  const std::optional<Scalar> scalar = scalarOf(name, value);
  if (!scalar) {
    const auto words = wordsOf(name, arrayOf(name, value));
    return OpParam(std::vector<std::uint32_t>(words.data(), words.data() + words.size()));
  }
  const auto* untyped = std::get_if<UntypedInt>(&*scalar);
  if (untyped == nullptr) {
    return std::visit(
        [](const auto& typed) {
          if constexpr (std::is_same_v<std::decay_t<decltype(typed)>, UntypedInt>) {
            return OpParam();
          } else {
            return OpParam(typed);
          }
        },
        *scalar);
  }
  OpParam param;
  param.tag = untyped->value >= 0 ? OpParam::Uint32 : OpParam::Int32;
  param.boolValue = untyped->value != 0;
  param.floatValue = static_cast<float>(untyped->value);
  param.uint8Value = static_cast<std::uint8_t>(untyped->value);
  param.int32Value = static_cast<std::int32_t>(untyped->value);
  param.uint32Value = static_cast<std::uint32_t>(untyped->value);
  return param;
}

graphrefiner::OpParams paramsOf(const py::dict& values) {
  graphrefiner::OpParams params;
  for (const auto& [key, value] : values) {
    if (!py::isinstance<py::str>(key)) throw py::type_error("names of parameters are strings");
    const auto name = key.cast<std::string>();
    params.emplace(name, paramOf(name, value));
  }
  return params;
}

void addAttribute(IrAttributes& attributes, const std::string& name, py::handle value, AttrClass attrClass,
                  const std::string& opName) {
  if (py::isinstance<IrStaticTensor>(value)) {
    attributes.add(name, value.cast<std::shared_ptr<IrStaticTensor>>(), attrClass);
    return;
  }
  const std::optional<Scalar> scalar = scalarOf(name, value);
  if (!scalar) {
    addTensor(attributes, name, arrayOf(name, value), attrClass, opName);
    return;
  }
  std::visit(
      [&](const auto& typed) {
        if constexpr (std::is_same_v<std::decay_t<decltype(typed)>, UntypedInt>) {
          if (typed.value >= 0) {
            attributes.add(name, static_cast<std::uint32_t>(typed.value), attrClass);
          } else {
            attributes.add(name, static_cast<std::int32_t>(typed.value), attrClass);
          }
        } else {
          attributes.add(name, typed, attrClass);
        }
      },
      *scalar);
}

std::shared_ptr<IrAttributes> attributesOf(py::handle values, const std::string& opName) {
  if (values.is_none()) return std::make_shared<IrAttributes>();
  if (py::isinstance<IrAttributes>(values)) return values.cast<std::shared_ptr<IrAttributes>>();
  if (!py::isinstance<py::dict>(values)) refuseType("attributes", values);
  auto attributes = std::make_shared<IrAttributes>();
  for (const auto& [key, value] : py::reinterpret_borrow<py::dict>(values)) {
    if (!py::isinstance<py::str>(key)) throw py::type_error("names of attributes are strings");
    addAttribute(*attributes, key.cast<std::string>(), value, ATTR_ORDINARY, opName);
  }
  return attributes;
}

py::object valueOf(const IrAttribute& attribute) {
  if (attribute.attrType == ORLO_PARAMTYPE_TENSOR) return py::cast(attribute.tensorValue);
  switch (attribute.dataType) {
    case ORLO_DATATYPE_FLOAT_32:
      return py::float_(attribute.floatValue);
    case ORLO_DATATYPE_STRING:
      return py::str(attribute.stringValue);
    case ORLO_DATATYPE_BOOL_8:
      return py::bool_(attribute.intValue != 0);
    default:
      return py::int_(attribute.intValue);
  }
}

AttrClass attrClassOf(int number) {
  if (number < ATTR_ORDINARY || number > ATTR_EXTRA) {
    throw py::value_error("an attribute's class is 1, 2 or 3, not " + std::to_string(number));
  }
  return static_cast<AttrClass>(number);
}

}  // namespace netforge::bindings
