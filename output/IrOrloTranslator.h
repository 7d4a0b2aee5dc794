#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>
#include "ir/IrOp.h"
#include "ir/IrTensor.h"
#include "ir/IrTypes.h"
#include "output/OrloTypes.h"

namespace netforge {

/// Turns ops and tensors into the records of the target runtime.
///
/// Records are cached by name and never updated: the first form in which a name is translated stays, whatever
/// becomes of the op or tensor. They live as long as the translator, and all that they point to is owned or
/// kept alive by it, so they outlast the ops, the tensors and the graph. (Data that a tensor borrows stays
/// with its owner.)
///
/// Throws std::invalid_argument for what the runtime has no form for; reading an attribute that is absent or
/// of another type throws as IrAttributes does.
class IrOrloTranslator {
 public:
  using KeepAlive = std::vector<std::shared_ptr<std::vector<Orlo_ScaleOffset_t>>>;

  IrOrloTranslator();
  ~IrOrloTranslator();
  IrOrloTranslator(const IrOrloTranslator&) = delete;
  IrOrloTranslator& operator=(const IrOrloTranslator&) = delete;

  /// The record of an op, never null. The first translation of a name chooses the runtime's op type and
  /// rewrites the op's own attributes to the runtime's parameters; the op keeps them, also when this throws
  /// later on. With `skipStaticData` the static inputs come without their data; tensor parameters always
  /// bring theirs.
  const Orlo_OpConfig_t* getOrloOp(const std::shared_ptr<ops::IrOp>& op, bool skipStaticData,
                                   const std::string& targetName);
  /// The record of a tensor, without data. A record whose tensor has taken another name since is replaced.
  const Orlo_Tensor_t* translateTensor(const std::shared_ptr<IrTensor>& tensor);
  /// The record of a constant, with its bytes (read from their file when need be) unless `skipStaticData`.
  /// Any record that the name has already is returned as it is.
  const Orlo_Tensor_t* translateStaticTensor(const std::shared_ptr<IrStaticTensor>& tensor,
                                             bool skipStaticData);
  /// Fills `params` from the tensor's quantisation record; a float tensor has none. Arrays of scales and
  /// offsets that `params` points to are appended to `keepAlive`; the others are the translator's. A kind
  /// that the runtime doesn't know gets a line on standard output. Changes nothing when it throws.
  void translateQuantEncoding(const std::shared_ptr<IrTensor>& tensor, Orlo_QuantizeParams_t& params,
                              KeepAlive& keepAlive);

 private:
  struct TensorEntry;
  struct OpEntry;
  using Storage = std::vector<std::shared_ptr<void>>;  // arrays and records that others point to

  const Orlo_Tensor_t* enterTensor(const std::shared_ptr<IrTensor>& tensor, std::uint32_t type,
                                   const std::shared_ptr<std::uint8_t[]>& data, std::uint32_t dataSize);
  void addParam(OpEntry& entry, const std::string& name, const IrAttribute& attribute);
  void fillQuantEncoding(const IrTensor& tensor, Orlo_QuantizeParams_t& params, KeepAlive& keepAlive,
                         Storage& storage);
  void fillArray(const QuantInfo& info, Orlo_QuantizeParams_t& params, KeepAlive& keepAlive,
                 Storage& storage);

  std::map<std::string, std::shared_ptr<TensorEntry>> tensors;  // by name
  std::map<std::string, std::shared_ptr<OpEntry>> opConfigs;    // by name
  // Entries that were replaced or failed halfway; records that were made meanwhile point into them.
  std::vector<std::shared_ptr<TensorEntry>> retiredTensors;
  Storage quantArrays;  // of translateQuantEncoding
};

/// The constant of an element type. Throws std::runtime_error for a type that has none here.
template <class T>
DataType getOrloDataType() {
  throw std::runtime_error("getOrloDataType: Unsupported type in getOrloDataType");
}
template <>
inline DataType getOrloDataType<std::uint32_t>() {
  return ORLO_DATATYPE_UINT_32;
}
template <>
inline DataType getOrloDataType<std::int32_t>() {
  return ORLO_DATATYPE_INT_32;
}
template <>
inline DataType getOrloDataType<std::int8_t>() {
  return ORLO_DATATYPE_INT_8;
}
template <>
inline DataType getOrloDataType<std::uint8_t>() {
  return ORLO_DATATYPE_UINT_8;
}
template <>
inline DataType getOrloDataType<float>() {
  return ORLO_DATATYPE_FLOAT_32;
}
template <>
inline DataType getOrloDataType<std::uint16_t>() {
  return ORLO_DATATYPE_UINT_16;
}
template <>
inline DataType getOrloDataType<std::int16_t>() {
  return ORLO_DATATYPE_INT_16;
}

}  // namespace netforge
