#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>
#include "ir/IrTypes.h"

namespace netforge {

class IrStaticTensor;

enum AttrType : std::uint32_t { ORLO_PARAMTYPE_SCALAR = 0, ORLO_PARAMTYPE_TENSOR = 1 };

/// 2 marks supplemental attributes ("packageName", the "eltwise_type" family), 3 what the factories give to
/// strings such as "activation" and to some flags. Unscoped with an 8-bit base so that AttrClass(2) reads
/// well.
enum AttrClass : std::uint8_t { ATTR_ORDINARY = 1, ATTR_SUPPLEMENTAL = 2, ATTR_EXTRA = 3 };

/// One named value of an op: a scalar of one of six types (unsigned 8-bit, signed and unsigned 32-bit, float,
/// bool, string) or a constant tensor.
struct IrAttribute {
  DataType dataType = ORLO_DATATYPE_UNDEFINED;  ///< of the scalar, or of the tensor's elements
  AttrType attrType = ORLO_PARAMTYPE_SCALAR;
  AttrClass attrClass = ATTR_ORDINARY;
  std::int64_t intValue = 0;  ///< sign-extended for signed values, zero-extended for the others
  float floatValue = 0.0f;
  std::string stringValue;
  std::shared_ptr<IrStaticTensor> tensorValue;

  bool isFloatType() const;    ///< FLOAT_16 or FLOAT_32
  bool isIntegerType() const;  ///< signed and unsigned integers of 8 to 64 bits, and bool
  bool isString() const;       ///< a scalar string
};

/// How `getAttr<T>` hands a value out: by value, strings by reference.
template <class T>
struct AttrResult {
  using type = T;
};
template <>
struct AttrResult<std::string> {
  using type = const std::string&;
};

/// The named values of an op, in the order in which they are translated and dumped: by name. Each value has
/// one fixed type; a read with another type throws.
class IrAttributes {
 public:
  // An attribute of that name is replaced: value, type and class. A null tensor or text throws
  // std::invalid_argument.
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
  /// Throws std::runtime_error for an absent attribute, as all readers below do.
  void assertAttrExists(const std::string& name) const;
  /// The scalar of exactly this type. Throws std::runtime_error for a tensor and for any other type: a value
  /// stored as signed can't be read as unsigned.
  template <class T>
  typename AttrResult<T>::type getAttr(const std::string& name) const;
  /// Throws std::runtime_error for a scalar.
  std::shared_ptr<IrStaticTensor> getStaticTensor(const std::string& name) const;
  std::string getStaticTensorName(const std::string& name) const;
  std::vector<std::shared_ptr<IrStaticTensor>> getStaticTensors() const;  ///< in the order of names
  bool isSupplemental(const std::string& name) const;
  /// Throws std::invalid_argument for an absent attribute.
  void remove(const std::string& name);
  std::size_t size() const;
  const std::map<std::string, IrAttribute>& entries() const;

 private:
  const IrAttribute& require(const std::string& name) const;
  const IrAttribute& requireScalar(const std::string& name, DataType requested) const;

  std::map<std::string, IrAttribute> attributes;
};
template <>
std::uint8_t IrAttributes::getAttr<std::uint8_t>(const std::string&) const;
template <>
std::int32_t IrAttributes::getAttr<std::int32_t>(const std::string&) const;
template <>
std::uint32_t IrAttributes::getAttr<std::uint32_t>(const std::string&) const;
template <>
float IrAttributes::getAttr<float>(const std::string&) const;
template <>
bool IrAttributes::getAttr<bool>(const std::string&) const;
template <>
const std::string& IrAttributes::getAttr<std::string>(const std::string&) const;

}  // namespace netforge
