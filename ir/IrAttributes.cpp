#include "ir/IrAttributes.h"

#include <stdexcept>
#include <utility>

#include "ir/Failure.h"
#include "ir/IrTensor.h"

namespace netforge {

namespace {

IrAttribute makeScalar(DataType type, AttrClass attrClass) {
  IrAttribute attribute;
  attribute.dataType = type;
  attribute.attrClass = attrClass;
  return attribute;
}

IrAttribute makeInteger(DataType type, std::int64_t value, AttrClass attrClass) {
  IrAttribute attribute = makeScalar(type, attrClass);
  attribute.intValue = value;
  return attribute;
}

}  // namespace

bool IrAttribute::isFloatType() const {
  return isFloatDataType(dataType);
}

bool IrAttribute::isIntegerType() const {
  switch (dataType) {
    case ORLO_DATATYPE_INT_8:
    case ORLO_DATATYPE_INT_16:
    case ORLO_DATATYPE_INT_32:
    case ORLO_DATATYPE_INT_64:
    case ORLO_DATATYPE_UINT_8:
    case ORLO_DATATYPE_UINT_16:
    case ORLO_DATATYPE_UINT_32:
    case ORLO_DATATYPE_UINT_64:
    case ORLO_DATATYPE_BOOL_8:
      return true;
    default:
      return false;
  }
}

bool IrAttribute::isString() const {
  return dataType == ORLO_DATATYPE_STRING && attrType == ORLO_PARAMTYPE_SCALAR;
}

void IrAttributes::add(const std::string& name, std::uint8_t value, AttrClass attrClass) {
  attributes.insert_or_assign(name, makeInteger(ORLO_DATATYPE_UINT_8, value, attrClass));
}

void IrAttributes::add(const std::string& name, std::int32_t value, AttrClass attrClass) {
  attributes.insert_or_assign(name, makeInteger(ORLO_DATATYPE_INT_32, value, attrClass));
}

void IrAttributes::add(const std::string& name, std::uint32_t value, AttrClass attrClass) {
  attributes.insert_or_assign(name, makeInteger(ORLO_DATATYPE_UINT_32, value, attrClass));
}

void IrAttributes::add(const std::string& name, float value, AttrClass attrClass) {
  IrAttribute attribute = makeScalar(ORLO_DATATYPE_FLOAT_32, attrClass);
  attribute.floatValue = value;
  attributes.insert_or_assign(name, std::move(attribute));
}

void IrAttributes::add(const std::string& name, bool value, AttrClass attrClass) {
  attributes.insert_or_assign(name, makeInteger(ORLO_DATATYPE_BOOL_8, value ? 1 : 0, attrClass));
}

void IrAttributes::add(const std::string& name, const std::string& value, AttrClass attrClass) {
  IrAttribute attribute = makeScalar(ORLO_DATATYPE_STRING, attrClass);
  attribute.stringValue = value;
  attributes.insert_or_assign(name, std::move(attribute));
}

void IrAttributes::add(const std::string& name, const char* value, AttrClass attrClass) {
  if (value == nullptr) {
    fail<std::invalid_argument>("netforge::IrAttributes::add", "Attribute '", name, "' was given no text.");
  }
  add(name, std::string(value), attrClass);
}

void IrAttributes::add(const std::string& name, const std::shared_ptr<IrStaticTensor>& value,
                       AttrClass attrClass) {
  if (!value) {
    fail<std::invalid_argument>("netforge::IrAttributes::add", "Attribute '", name, "' was given no tensor.");
  }
  IrAttribute attribute = makeScalar(value->getDataType(), attrClass);
  attribute.attrType = ORLO_PARAMTYPE_TENSOR;
  attribute.tensorValue = value;
  attributes.insert_or_assign(name, std::move(attribute));
}

bool IrAttributes::hasAttr(const std::string& name) const {
  return attributes.count(name) != 0;
}

void IrAttributes::assertAttrExists(const std::string& name) const {
  require(name);
}

const IrAttribute& IrAttributes::require(const std::string& name) const {
  const auto place = attributes.find(name);
  if (place == attributes.end()) {
    fail<std::runtime_error>("netforge::IrAttributes::assertAttrExists", "Attribute '", name,
                             "' not present. Available attributes count: ", attributes.size());
  }
  return place->second;
}

const IrAttribute& IrAttributes::requireScalar(const std::string& name, DataType requested) const {
  const IrAttribute& attribute = require(name);
  if (attribute.attrType != ORLO_PARAMTYPE_SCALAR) {
    fail<std::runtime_error>("netforge::IrAttributes::getAttr", "Attribute ", name, " is not a scalar type");
  }
  if (attribute.dataType != requested) {
    fail<std::runtime_error>("netforge::IrAttributes::getAttr",
                             "Invalid requested type: ", getDataTypeName(requested), " for attr: ", name,
                             " with type: ", getDataTypeName(attribute.dataType));
  }
  return attribute;
}

template <>
std::uint8_t IrAttributes::getAttr<std::uint8_t>(const std::string& name) const {
  return static_cast<std::uint8_t>(requireScalar(name, ORLO_DATATYPE_UINT_8).intValue);
}

template <>
std::int32_t IrAttributes::getAttr<std::int32_t>(const std::string& name) const {
  return static_cast<std::int32_t>(requireScalar(name, ORLO_DATATYPE_INT_32).intValue);
}

template <>
std::uint32_t IrAttributes::getAttr<std::uint32_t>(const std::string& name) const {
  return static_cast<std::uint32_t>(requireScalar(name, ORLO_DATATYPE_UINT_32).intValue);
}

template <>
float IrAttributes::getAttr<float>(const std::string& name) const {
  return requireScalar(name, ORLO_DATATYPE_FLOAT_32).floatValue;
}

template <>
bool IrAttributes::getAttr<bool>(const std::string& name) const {
  return requireScalar(name, ORLO_DATATYPE_BOOL_8).intValue != 0;
}

template <>
const std::string& IrAttributes::getAttr<std::string>(const std::string& name) const {
  return requireScalar(name, ORLO_DATATYPE_STRING).stringValue;
}

std::shared_ptr<IrStaticTensor> IrAttributes::getStaticTensor(const std::string& name) const {
  const IrAttribute& attribute = require(name);
  if (attribute.attrType != ORLO_PARAMTYPE_TENSOR) {
    fail<std::runtime_error>("netforge::IrAttributes::getStaticTensor", "Attribute '", name,
                             "' is not a tensor, actual attrType=", attribute.attrType,
                             " (expected ORLO_PARAMTYPE_TENSOR)");
  }
  return attribute.tensorValue;
}

std::string IrAttributes::getStaticTensorName(const std::string& name) const {
  return getStaticTensor(name)->getName();
}

std::vector<std::shared_ptr<IrStaticTensor>> IrAttributes::getStaticTensors() const {
  std::vector<std::shared_ptr<IrStaticTensor>> tensors;
  for (const auto& [name, attribute] : attributes) {
    if (attribute.attrType == ORLO_PARAMTYPE_TENSOR) tensors.push_back(attribute.tensorValue);
  }
  return tensors;
}

bool IrAttributes::isSupplemental(const std::string& name) const {
  return require(name).attrClass == ATTR_SUPPLEMENTAL;
}

void IrAttributes::remove(const std::string& name) {
  const auto place = attributes.find(name);
  if (place == attributes.end()) {
    fail<std::invalid_argument>(
        "netforge::IrAttributes::remove", "Unable to remove attribute '", name,
        "': attribute does not exist. Available attributes count: ", attributes.size());
  }
  attributes.erase(place);
}

std::size_t IrAttributes::size() const {
  return attributes.size();
}

const std::map<std::string, IrAttribute>& IrAttributes::entries() const {
  return attributes;
}

}  // namespace netforge
