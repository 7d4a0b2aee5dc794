#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>
#include "ir/HalfFloat.h"
#include "ir/IrTensorShape.h"
#include "ir/IrTypes.h"

namespace netforge {

class TransformManager;
namespace ops {
class IrOp;
}

/// A tensor of the graph: name, shape, types, layout, quantisation, and its links to the ops around it.
///
/// Shared and mutable. The graph owns tensors; a tensor keeps its producer and its consumers alive, ops
/// refer back weakly. Links, names and the graph's lists are changed through the graph's edits: the setters
/// here change this record alone.
class IrTensor {
 public:
  /// Ordered by pointer value: never let a result depend on the order of a walk over it. An op that reads
  /// the tensor at two inputs stands here once.
  using ConsumerSet = std::set<std::shared_ptr<ops::IrOp>>;

  // Every constructor draws a fresh id. `explicitPermuteOrder`, when not empty, is what `getPermuteOrder`
  // answers.

  /// Full form. A record with a defined encoding goes through `setQInfo` and may throw; any other is kept
  /// as it is.
  IrTensor(const std::string& name, const std::vector<std::uint32_t>& dims, DataType dataType,
           DataType srcDataType, bool quantizable, const QuantInfo& quantInfo, AxisFormat axisFormat,
           AxisFormat srcAxisFormat, TensorType tensorType,
           const std::vector<std::uint32_t>& explicitPermuteOrder);
  IrTensor(const std::string& name, const std::vector<std::uint32_t>& dims, DataType dataType,
           DataType srcDataType, bool quantizable, const QuantInfo& quantInfo, AxisFormat axisFormat,
           AxisFormat srcAxisFormat, TensorType tensorType, bool updateable,
           const std::vector<std::uint32_t>& explicitPermuteOrder);
  /// Short forms: the source type is `dataType`, quantizable when that is a float type, and without
  /// `srcAxisFormat` the source layout is NOT_YET_DEFINED.
  IrTensor(const std::string& name, const std::vector<std::uint32_t>& dims, DataType dataType,
           AxisFormat axisFormat, AxisFormat srcAxisFormat, TensorType tensorType,
           const std::vector<std::uint32_t>& explicitPermuteOrder);
  IrTensor(const std::string& name, const std::vector<std::uint32_t>& dims, DataType dataType,
           AxisFormat axisFormat, TensorType tensorType,
           const std::vector<std::uint32_t>& explicitPermuteOrder);
  /// Form for op outputs: keeps the dynamic axes of `shape`; otherwise as the short forms.
  IrTensor(const std::string& name, const IrTensorShape& shape, const std::shared_ptr<ops::IrOp>& producer,
           DataType dataType, AxisFormat axisFormat, AxisFormat srcAxisFormat, TensorType tensorType);

  IrTensor(const IrTensor&) = delete;
  IrTensor& operator=(const IrTensor&) = delete;
  virtual ~IrTensor();
  virtual bool isStatic() const;  ///< true exactly for an IrStaticTensor

  const std::string& getName() const;
  void setName(const std::string& name);  ///< draws a fresh id, also for an equal name
  std::uint32_t getId() const;            ///< unique among the tensors of the process
  const IrTensorShape& getShape() const;
  void setShape(const IrTensorShape& shape);
  const std::vector<std::uint32_t>& getDims() const;
  std::uint32_t getRank() const;
  DataType getDataType() const;
  void setDataType(DataType dataType);
  DataType getSrcDataType() const;  ///< the type in the source model
  void setSrcDataType(DataType dataType);
  AxisFormat getAxisFormat() const;
  void setAxisFormat(AxisFormat format);
  AxisFormat getSrcAxisFormat() const;  ///< the layout in the source model
  void setSrcAxisFormat(AxisFormat format);
  TensorType getTensorType() const;
  void setTensorType(TensorType type);  ///< never edits the graph's lists of inputs and outputs
  /// The number that the runtime gets: the tensor type, or its updateable variant (3 gives 7, 0 gives 8,
  /// 1 gives 9, 2 gives 10, 4 gives 6); 0x7FFFFFFF for what has none.
  std::uint32_t getRuntimeTensorType() const;
  bool isGraphInput() const;   ///< tensor type 0
  bool isGraphOutput() const;  ///< tensor type 1
  bool isOptional() const;     ///< tensor type 11, 12 or 13

  bool isQuantizable() const;  ///< may hold a quantisation record
  /// Throws std::invalid_argument for true on a type that is not float. False also undefines the encoding.
  void setQuantizable(bool quantizable);
  bool isQuantized() const;               ///< a fixed-point type and a defined encoding
  const QuantInfo& getQuantInfo() const;  ///< valid until the record is set again
  /// Stores both. Throws std::invalid_argument, and changes nothing, unless the tensor is quantizable and
  /// the record's encoding is defined.
  void setQInfo(DataType dataType, const QuantInfo& quantInfo);
  /// Makes this a float tensor with the user's own range: not quantizable, encoding undefined, record marked
  /// as overridden. Throws std::invalid_argument for a type that is not float; the quantisation is gone then.
  void setFloatQInfo(DataType dataType, const QuantInfo& quantInfo);

  const SparseParams& getSparseParams() const;
  void setSparseParams(const SparseParams& params);
  bool isUpdateable() const;  ///< a weight that can be replaced after compilation
  void setUpdateable(bool updateable);

  std::shared_ptr<ops::IrOp> getProducer() const;  ///< by value: safe while it is cleared; may be null
  void setProducer(const std::shared_ptr<ops::IrOp>& producer);
  void clearProducer();
  const ConsumerSet& getConsumers() const;  ///< take a copy before editing
  void addConsumer(const std::shared_ptr<ops::IrOp>& op);
  void removeConsumer(const std::shared_ptr<ops::IrOp>& op);  ///< std::invalid_argument when it is none
  void clearConsumers();

  /// Product of the dims, multiplied modulo 2^32; 0 for rank 0. Throws std::invalid_argument for a shape with
  /// dynamic axes.
  std::uint64_t elements() const;

  /// The order that takes the present layout to the layout of the source model: source axis i is present
  /// axis order[i]. The explicit order when there is one; empty when no order is known.
  std::vector<std::uint32_t> getPermuteOrder() const;
  const std::vector<std::uint32_t>& getExplicitPermuteOrder() const;
  void setExplicitPermuteOrder(const std::vector<std::uint32_t>& order);

  /// Equal in name, types, shape, flags, quantisation, sparse parameters and, for static tensors, data.
  /// Layout, tensor type and links take no part. Compares bytes last, and only then loads them.
  bool operator==(const IrTensor& other) const;
  bool operator!=(const IrTensor& other) const;

 private:
  void storeQuantInfo(const QuantInfo& record);
  void undefineEncoding();

  std::string name;
  std::shared_ptr<ops::IrOp> producer;
  ConsumerSet consumers;
  IrTensorShape shape;
  // Null while the record has its defaults, as it has in most tensors: a record is larger than all the rest.
  std::unique_ptr<QuantInfo> quantInfo;
  std::vector<std::uint32_t> explicitPermuteOrder;
  SparseParams sparseParams;
  std::uint32_t id;
  DataType dataType;
  DataType srcDataType;
  AxisFormat axisFormat;
  AxisFormat srcAxisFormat;
  TensorType tensorType;
  bool quantizable;
  bool updateable = false;
};

/// A tensor with constant data, row-major in the order of its dims.
///
/// The bytes are borrowed (somebody else's buffer, which must outlive the tensor and is never freed), owned
/// (from new[], freed with the tensor), or still in a file, from where `getData` reads them on first use.
class IrStaticTensor : public IrTensor {
 public:
  // `dataSize` is in bytes. With `dataIsBorrowed` the tensor keeps the pointer `data`, which it never writes
  // through by itself; else it copies the bytes. A null `data` allocates nothing.

  IrStaticTensor(const std::string& name, const std::vector<std::uint32_t>& dims, std::uint32_t dataSize,
                 const void* data, DataType dataType, DataType srcDataType, bool quantizable,
                 const QuantInfo& quantInfo, AxisFormat axisFormat, AxisFormat srcAxisFormat,
                 bool dataIsBorrowed, TensorType tensorType, bool updateable,
                 const std::vector<std::uint32_t>& explicitPermuteOrder,
                 const std::shared_ptr<TransformManager>& transformManager);
  /// Throws std::invalid_argument for data without dims.
  IrStaticTensor(const std::string& name, const std::vector<std::uint32_t>& dims, std::uint32_t dataSize,
                 const void* data, DataType dataType, AxisFormat axisFormat, AxisFormat srcAxisFormat,
                 bool dataIsBorrowed, TensorType tensorType,
                 const std::vector<std::uint32_t>& explicitPermuteOrder);
  /// A small constant such as an axis list: rank 1, unsigned 32-bit, layouts not defined.
  IrStaticTensor(const std::string& name, const std::vector<std::uint32_t>& values);
  ~IrStaticTensor() override;
  bool isStatic() const override;

  /// The bytes; null when there are none. The only operation that reads the file, on first use; throws
  /// std::runtime_error when that fails, and the next call tries again. Whoever writes through the pointer
  /// must know that the tensor owns its bytes: see `updateData`.
  std::uint8_t* getData();
  /// The same with a hold on them: an owned buffer outlives its tensor, and its replacement by another
  /// buffer, as long as somebody holds it. Borrowed bytes stay with their owner.
  std::shared_ptr<std::uint8_t[]> shareData();
  template <class T>
  T* getDataAs() {
    return reinterpret_cast<T*>(getData());
  }
  std::uint32_t getDataSize() const;  ///< bytes

  /// The 32-bit word at `index`, never loads. Throws std::out_of_range beyond the elements or the bytes in
  /// memory.
  std::uint32_t getElement(std::uint64_t index) const;

  /// Replaces the bytes. Throws std::invalid_argument, and changes nothing, unless `size` is the data size.
  /// With `takeOwnership`, `data` must come from new std::uint8_t[size] and is the tensor's from then on;
  /// else the bytes are copied into a buffer that the tensor owns, never into a borrowed one. `data` may
  /// be the tensor's own buffer or overlap it.
  void updateData(const void* data, std::uint32_t size, bool takeOwnership);
  bool isDataBorrowed() const;
  bool isDataLoaded() const;
  const ExternalDataRef& getExternalData() const;
  /// The bytes lie in this file from now on: what the tensor held is let go, and `getData` reads them.
  void setExternalData(const ExternalDataRef& ref);

  std::shared_ptr<TransformManager> getTransformManager() const;  ///< null until something was recorded
  void setTransformManager(const std::shared_ptr<TransformManager>& manager);
  std::shared_ptr<TransformManager> getOrCreateTransformManager();

 private:
  friend class IrTensor;  // compares bytes

  void copyIn(const void* source);
  void load();
  bool dataEquals(const IrStaticTensor& other) const;

  std::shared_ptr<std::uint8_t[]> data;           // without a count when borrowed
  std::unique_ptr<ExternalDataRef> externalData;  // null when there is none
  std::shared_ptr<TransformManager> transformManager;
  std::uint32_t dataSize;
  bool dataIsBorrowed;
  bool dataLoaded = true;
};

}  // namespace netforge
