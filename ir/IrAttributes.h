#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>
#include "ir/IrTypes.h"

namespace netforge {

class IrStaticTensor;

enum AttrType : std::uint32_t { ORLO_PARAMTYPE_SCALAR = 0, ORLO_PARAMTYPE_TENSOR = 1 };

// Unscoped with an 8-bit base so that a literal cast AttrClass(2) reads well.
enum AttrClass : std::uint8_t { ATTR_ORDINARY = 1, ATTR_SUPPLEMENTAL = 2, ATTR_EXTRA = 3 };

struct IrAttribute {
  DataType dataType = ORLO_DATATYPE_UNDEFINED;
  AttrType attrType = ORLO_PARAMTYPE_SCALAR;
  AttrClass attrClass = ATTR_ORDINARY;
  std::int64_t intValue = 0;  // sign-extended for signed values, zero-extended for the others
  float floatValue = 0.0f;
  std::string stringValue;
  std::shared_ptr<IrStaticTensor> tensorValue;
  bool isFloatType() const;
  bool isIntegerType() const;
  bool isString() const;
};

template <class T>
struct AttrResult { using type = T; };
template <>
struct AttrResult<std::string> { using type = const std::string&; };

class IrAttributes {
 public:
  void add(const std::string& name, std::uint8_t value, AttrClass attrClass);
  void add(const std::string& name, std::int32_t value, AttrClass attrClass);
  void add(const std::string& name, std::uint32_t value, AttrClass attrClass);
  void add(const std::string& name, float value, AttrClass attrClass);
  void add(const std::string& name, bool value, AttrClass attrClass);
  void add(const std::string& name, const std::string& value, AttrClass attrClass);
  void add(const std::string& name, const char* value, AttrClass attrClass);  // else a literal becomes bool
  void add(const std::string& name, const std::shared_ptr<IrStaticTensor>& value, AttrClass attrClass);
  void add(const std::string& name, double value, AttrClass attrClass) = delete;

  bool hasAttr(const std::string& name) const;
  void assertAttrExists(const std::string& name) const;
  template <class T>
  typename AttrResult<T>::type getAttr(const std::string& name) const;  // the six scalar types
  std::shared_ptr<IrStaticTensor> getStaticTensor(const std::string& name) const;
  std::string getStaticTensorName(const std::string& name) const;
  std::vector<std::shared_ptr<IrStaticTensor>> getStaticTensors() const;
  bool isSupplemental(const std::string& name) const;
  void remove(const std::string& name);
  std::size_t size() const;
  const std::map<std::string, IrAttribute>& entries() const;  // map order
};
template <> std::uint8_t IrAttributes::getAttr<std::uint8_t>(const std::string&) const;
template <> std::int32_t IrAttributes::getAttr<std::int32_t>(const std::string&) const;
template <> std::uint32_t IrAttributes::getAttr<std::uint32_t>(const std::string&) const;
template <> float IrAttributes::getAttr<float>(const std::string&) const;
template <> bool IrAttributes::getAttr<bool>(const std::string&) const;
template <> const std::string& IrAttributes::getAttr<std::string>(const std::string&) const;

}  // namespace netforge
