#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>
#include "ir/AxisOrder.h"
#include "ir/IrAttributes.h"
#include "ir/IrTensor.h"
#include "ir/IrTensorShape.h"
#include "ir/IrTypes.h"

namespace netforge {

namespace ops {

class IrOp {
 public:
  using TensorList = std::vector<std::shared_ptr<IrTensor>>;

  // A null table is replaced by an empty one.
  IrOp(const std::string& name, const std::string& type, const std::shared_ptr<IrAttributes>& attributes);

  // The thirteen virtual operations, in slot order.
  virtual ~IrOp();
  virtual std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder);
  virtual std::uint32_t paramsCount(const std::shared_ptr<AxisOrder>& axisOrder);
  virtual void addOutput(const std::shared_ptr<IrTensor>& tensor, std::int32_t idx = -1);
  virtual void canonicalizeOp(std::uint32_t numOutputs);
  virtual std::vector<std::vector<std::uint32_t>> inferOutputShapes(
      const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t numOutputs);
  virtual std::vector<IrTensorShape> inferOutputTensorShapes(
      const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t numOutputs);
  virtual std::vector<DataType> inferOutputDataTypes(std::uint32_t numOutputs);
  virtual std::vector<DataType> inferOutputSrcDataTypes(std::uint32_t numOutputs);
  virtual void overrideDataAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder);
  virtual void populateOutputAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder,
                                         const std::map<std::string, std::uint8_t>& inputLayoutCodes,
                                         bool isTimeSeries);
  virtual void validateOp();
  virtual void resizeOp(const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t numOutputs);

  // Non-virtual.
  const std::string& getName() const;
  const std::string& getType() const;
  const std::shared_ptr<IrAttributes>& getAttributes() const;
  bool isCanonicalized() const;
  TensorList getInputs() const;
  TensorList getOutputs() const;
  std::shared_ptr<IrTensor> getInput(std::uint32_t idx) const;
  std::shared_ptr<IrTensor> getOutput(std::uint32_t idx) const;
  std::vector<std::vector<std::uint32_t>> getInputDims() const;
  std::vector<std::vector<std::uint32_t>> getOutputDims() const;
  std::vector<AxisFormat> getInputAxisFormats() const;                // live formats of the tensors
  const std::vector<AxisFormat>& getStoredInputAxisFormats() const;   // the field inputAxisFormats
  std::set<std::shared_ptr<IrTensor>> getInputSet() const;
  std::uint32_t numInputs() const;
  std::uint32_t numOutputs() const;
  std::string displayName() const;  // "<name>[<type>]"

  void addInput(const std::shared_ptr<IrTensor>& tensor, std::int32_t idx = -1);
  void rmInputAtIdx(std::uint32_t idx);
  void rmOutputAtIdx(std::uint32_t idx);
  void removeInput(const std::shared_ptr<IrTensor>& tensor);
  void removeOutput(const std::shared_ptr<IrTensor>& tensor);
  void setInput(const std::shared_ptr<IrTensor>& tensor, std::uint32_t idx);
  void setOutput(const std::shared_ptr<IrTensor>& tensor, std::uint32_t idx);
  void setInputs(const TensorList& tensors);
  void setOutputs(const TensorList& tensors);
  void replaceInputTensor(const std::shared_ptr<IrTensor>& oldTensor, const std::shared_ptr<IrTensor>& newTensor);
  void replaceOutputTensor(const std::shared_ptr<IrTensor>& oldTensor, const std::shared_ptr<IrTensor>& newTensor);
  void setInputAxisFormat(AxisFormat format, std::uint32_t idx);  // format first, index second

  static std::uint64_t lastDimsProduct(const std::vector<std::uint32_t>& dims, std::uint32_t n);

  // addAtIdx, rmAtIdx and lockWeakPtr; public.
  template <class T>
  void addAtIdx(std::vector<T>& list, const T& value, std::int32_t idx) const;
  template <class T>
  void rmAtIdx(std::vector<T>& list, std::uint32_t idx) const;
  TensorList lockWeakPtr(const std::vector<std::weak_ptr<IrTensor>>& list) const;

 protected:
  bool canonicalized = false;
  std::vector<AxisFormat> inputAxisFormats;
  std::vector<std::weak_ptr<IrTensor>> inputs;
  std::vector<std::weak_ptr<IrTensor>> outputs;
};

}  // namespace ops

}  // namespace netforge
