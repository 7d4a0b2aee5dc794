#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>
#include "ir/IrTensorShape.h"
#include "ir/IrTypes.h"

namespace netforge {

class TransformManager;
namespace ops {
class IrOp;
}

class IrTensor {
 public:
  using ConsumerSet = std::set<std::shared_ptr<ops::IrOp>>;

  // Full form, without and with `updateable`.
  IrTensor(const std::string& name, const std::vector<std::uint32_t>& dims, DataType dataType,
           DataType srcDataType, bool quantizable, const QuantInfo& quantInfo, AxisFormat axisFormat,
           AxisFormat srcAxisFormat, TensorType tensorType,
           const std::vector<std::uint32_t>& explicitPermuteOrder);
  IrTensor(const std::string& name, const std::vector<std::uint32_t>& dims, DataType dataType,
           DataType srcDataType, bool quantizable, const QuantInfo& quantInfo, AxisFormat axisFormat,
           AxisFormat srcAxisFormat, TensorType tensorType, bool updateable,
           const std::vector<std::uint32_t>& explicitPermuteOrder);
  // Short forms.
  IrTensor(const std::string& name, const std::vector<std::uint32_t>& dims, DataType dataType,
           AxisFormat axisFormat, AxisFormat srcAxisFormat, TensorType tensorType,
           const std::vector<std::uint32_t>& explicitPermuteOrder);
  IrTensor(const std::string& name, const std::vector<std::uint32_t>& dims, DataType dataType,
           AxisFormat axisFormat, TensorType tensorType,
           const std::vector<std::uint32_t>& explicitPermuteOrder);
  // Shape form, for op outputs.
  IrTensor(const std::string& name, const IrTensorShape& shape,
           const std::shared_ptr<ops::IrOp>& producer, DataType dataType, AxisFormat axisFormat,
           AxisFormat srcAxisFormat, TensorType tensorType);

  IrTensor(const IrTensor&) = delete;
  IrTensor& operator=(const IrTensor&) = delete;
  virtual ~IrTensor();
  virtual bool isStatic() const;

  const std::string& getName() const;
  void setName(const std::string& name);  // draws a fresh id, also for an equal name
  std::uint32_t getId() const;
  const IrTensorShape& getShape() const;
  void setShape(const IrTensorShape& shape);
  const std::vector<std::uint32_t>& getDims() const;
  std::uint32_t getRank() const;
  DataType getDataType() const;
  void setDataType(DataType dataType);      
  DataType getSrcDataType() const;
  void setSrcDataType(DataType dataType);
  AxisFormat getAxisFormat() const;
  void setAxisFormat(AxisFormat format);
  AxisFormat getSrcAxisFormat() const;
  void setSrcAxisFormat(AxisFormat format);
  TensorType getTensorType() const;
  void setTensorType(TensorType type);        // never edits the graph's lists
  std::uint32_t getRuntimeTensorType() const;
  bool isGraphInput() const;                  // TensorType 0
  bool isGraphOutput() const;                 // TensorType 1
  bool isOptional() const;                    // 11, 12 or 13
  bool isQuantizable() const;
  void setQuantizable(bool quantizable);
  bool isQuantized() const;
  const QuantInfo& getQuantInfo() const;
  void setQInfo(DataType dataType, const QuantInfo& quantInfo);
  void setFloatQInfo(DataType dataType, const QuantInfo& quantInfo);
  const SparseParams& getSparseParams() const;
  void setSparseParams(const SparseParams& params);
  bool isUpdateable() const;
  void setUpdateable(bool updateable);
  std::shared_ptr<ops::IrOp> getProducer() const;  // by value: safe while it is cleared
  void setProducer(const std::shared_ptr<ops::IrOp>& producer);
  void clearProducer();
  const ConsumerSet& getConsumers() const;         // take a copy before editing
  void addConsumer(const std::shared_ptr<ops::IrOp>& op);
  void removeConsumer(const std::shared_ptr<ops::IrOp>& op);
  void clearConsumers();                           // squash, replaceAllUsers clear the set
  std::uint64_t elements() const;
  std::vector<std::uint32_t> getPermuteOrder() const;
  const std::vector<std::uint32_t>& getExplicitPermuteOrder() const;
  void setExplicitPermuteOrder(const std::vector<std::uint32_t>& order);

  bool operator==(const IrTensor& other) const;
  bool operator!=(const IrTensor& other) const;
};

class IrStaticTensor : public IrTensor {
 public:
  IrStaticTensor(const std::string& name, const std::vector<std::uint32_t>& dims,
                 std::uint32_t dataSize, const void* data, DataType dataType, DataType srcDataType,
                 bool quantizable, const QuantInfo& quantInfo, AxisFormat axisFormat,
                 AxisFormat srcAxisFormat, bool dataIsBorrowed, TensorType tensorType,
                 bool updateable, const std::vector<std::uint32_t>& explicitPermuteOrder,
                 const std::shared_ptr<TransformManager>& transformManager);
  IrStaticTensor(const std::string& name, const std::vector<std::uint32_t>& dims,
                 std::uint32_t dataSize, const void* data, DataType dataType, AxisFormat axisFormat,
                 AxisFormat srcAxisFormat, bool dataIsBorrowed, TensorType tensorType,
                 const std::vector<std::uint32_t>& explicitPermuteOrder);
  IrStaticTensor(const std::string& name, const std::vector<std::uint32_t>& values);
  ~IrStaticTensor() override;
  bool isStatic() const override;

  std::uint8_t* getData();  // loads on first use; the only operation that loads
  template <class T>
  T* getDataAs() { return reinterpret_cast<T*>(getData()); }
  std::uint32_t getDataSize() const;
  std::uint32_t getElement(std::uint64_t index) const;  // never loads; the raw 32-bit word
  // takeOwnership true: `data` must come from new std::uint8_t[size]; it is released with delete[].
  void updateData(const void* data, std::uint32_t size, bool takeOwnership);
  bool isDataBorrowed() const;
  bool isDataLoaded() const;
  const ExternalDataRef& getExternalData() const;
  void setExternalData(const ExternalDataRef& ref);   // for builders and tests; clears dataLoaded
  std::shared_ptr<TransformManager> getTransformManager() const;                   // may be null
  void setTransformManager(const std::shared_ptr<TransformManager>& manager);
  std::shared_ptr<TransformManager> getOrCreateTransformManager();
};

// binary32 -> binary16, round to nearest even, any NaN to 0x7E00 with the sign.
std::uint16_t floatToHalf(float value);

}  // namespace netforge
