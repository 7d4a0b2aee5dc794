#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>
#include "ir/AxisOrder.h"
#include "ir/Failure.h"
#include "ir/IrAttributes.h"
#include "ir/IrTensor.h"
#include "ir/IrTensorShape.h"
#include "ir/IrTypes.h"

namespace netforge {

class OpOrder;

namespace ops {

/// One op of the graph, and the base of all op classes.
///
/// An op's parameters live in its attributes; it refers to its tensors weakly. A plain IrOp is a working op:
/// a type without a class counts as shape-preserving and free of cost. Ops are told apart by the type string
/// alone. The links between ops and tensors are changed through the graph's edits: the list edits here change
/// this op alone and touch neither producers nor consumers.
class IrOp {
 public:
  using TensorList = std::vector<std::shared_ptr<IrTensor>>;

  /// A null table is replaced by an empty one. A bool attribute "quantizable" is applied to every
  /// tensor-valued attribute, so true throws std::invalid_argument when one of them isn't float.
  IrOp(const std::string& name, const std::string& type, const std::shared_ptr<IrAttributes>& attributes);
  IrOp(const IrOp&) = delete;
  IrOp& operator=(const IrOp&) = delete;

  // The protocol between the graph and its ops. Not const: inference may write attributes back.

  virtual ~IrOp();
  /// Multiply-accumulate operations; 0 by default.
  virtual std::uint64_t macs(const std::shared_ptr<AxisOrder>& axisOrder);
  /// Trained parameters; 0 by default.
  virtual std::uint32_t paramsCount(const std::shared_ptr<AxisOrder>& axisOrder);
  /// Puts an output before place `idx`; -1 or the number of outputs appends.
  virtual void addOutput(const std::shared_ptr<IrTensor>& tensor, std::int32_t idx = -1);
  /// Brings the attributes to normal form. The inputs are attached, the outputs are not.
  virtual void canonicalizeOp(std::uint32_t numOutputs);
  /// Dims of the outputs. The default gives the dims of each input, and throws std::invalid_argument for an
  /// input with dynamic axes.
  virtual std::vector<std::vector<std::uint32_t>> inferOutputShapes(
      const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t numOutputs);
  /// Shapes of the outputs, dynamic axes included. The default throws std::invalid_argument for an input
  /// with dynamic axes, and is `inferOutputShapes` otherwise.
  virtual std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                             std::uint32_t numOutputs);
  /// Types of the outputs as they stand now. The default is the type of input 0, INT_64 as INT_32; UNDEFINED
  /// without inputs.
  virtual std::vector<DataType> inferOutputDataTypes(std::uint32_t numOutputs);
  /// Types of the outputs in the source model, with which new tensors start. The default is the source type
  /// of input 0; UNDEFINED without inputs.
  virtual std::vector<DataType> inferOutputSrcDataTypes(std::uint32_t numOutputs);
  /// Sets the layouts that the op demands of its inputs; nothing by default.
  virtual void overrideDataAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder);
  /// Sets the layout of every output. `inputLayoutCodes` are the codes of the graph's inputs by name; 8 marks
  /// an input without a layout, 7 a time series. Throws std::runtime_error without outputs.
  virtual void populateOutputAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder,
                                         const std::map<std::string, std::uint8_t>& inputLayoutCodes,
                                         bool isTimeSeries);
  /// Throws std::invalid_argument for an empty name or type, and for an op without inputs (types "input" and
  /// "constant" need none) or without outputs.
  virtual void validateOp();
  /// Infers the shapes anew and gives them to the outputs. Throws std::invalid_argument when their number
  /// differs.
  virtual void resizeOp(const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t numOutputs);

  const std::string& getName() const;
  const std::string& getType() const;
  const std::shared_ptr<IrAttributes>& getAttributes() const;  ///< never null
  bool isCanonicalized() const;

  // Every read of tensors throws std::runtime_error when one of them is gone.

  TensorList getInputs() const;
  TensorList getOutputs() const;
  std::shared_ptr<IrTensor> getInput(std::uint32_t idx) const;   ///< std::invalid_argument beyond the end
  std::shared_ptr<IrTensor> getOutput(std::uint32_t idx) const;  ///< std::invalid_argument beyond the end
  std::vector<std::vector<std::uint32_t>> getInputDims() const;
  std::vector<std::vector<std::uint32_t>> getOutputDims() const;
  std::vector<AxisFormat> getInputAxisFormats() const;  ///< the layouts of the input tensors as they are now
  const std::vector<AxisFormat>& getStoredInputAxisFormats() const;  ///< as they were on attaching
  std::set<std::shared_ptr<IrTensor>> getInputSet() const;           ///< the distinct inputs
  std::uint32_t numInputs() const;
  std::uint32_t numOutputs() const;
  std::string displayName() const;  ///< "<name>[<type>]"

  // List edits. An index that does not fit and a null tensor throw std::invalid_argument.

  void addInput(const std::shared_ptr<IrTensor>& tensor, std::int32_t idx = -1);  ///< as `addOutput`
  void rmInputAtIdx(std::uint32_t idx);
  void rmOutputAtIdx(std::uint32_t idx);
  void removeInput(const std::shared_ptr<IrTensor>& tensor);   ///< every place; nothing when it is none
  void removeOutput(const std::shared_ptr<IrTensor>& tensor);  ///< every place; nothing when it is none
  void setInput(const std::shared_ptr<IrTensor>& tensor, std::uint32_t idx);
  void setOutput(const std::shared_ptr<IrTensor>& tensor, std::uint32_t idx);
  void setInputs(const TensorList& tensors);
  void setOutputs(const TensorList& tensors);
  /// Puts the new tensor, and its layout, at every place that holds the old one.
  void replaceInputTensor(const std::shared_ptr<IrTensor>& oldTensor,
                          const std::shared_ptr<IrTensor>& newTensor);
  void replaceOutputTensor(const std::shared_ptr<IrTensor>& oldTensor,
                           const std::shared_ptr<IrTensor>& newTensor);
  /// Sets the stored layout of input `idx` and the layout of the tensor itself.
  void setInputAxisFormat(AxisFormat format, std::uint32_t idx);

  /// Product of the last n dims in 64 bits; 1 when there are fewer than n.
  static std::uint64_t lastDimsProduct(const std::vector<std::uint32_t>& dims, std::uint32_t n);

  /// Inserts before place `idx`; -1 or the length of the list appends. Any other index throws
  /// std::invalid_argument.
  template <class T>
  void addAtIdx(std::vector<T>& list, const T& value, std::int32_t idx) const {
    if (idx == -1) idx = static_cast<std::int32_t>(list.size());
    if (idx < 0 || static_cast<std::size_t>(idx) > list.size()) {
      fail<std::invalid_argument>("netforge::ops::IrOp::addAtIdx", "Error adding val to op", opName,
                                  ". Index to insert invalid ", idx);
    }
    list.insert(list.begin() + idx, value);
  }
  /// Throws std::invalid_argument for an index beyond the end.
  template <class T>
  void rmAtIdx(std::vector<T>& list, std::uint32_t idx) const {
    if (idx >= list.size()) {
      fail<std::invalid_argument>("netforge::ops::IrOp::rmAtIdx", "Error remove val to op", opName,
                                  ". Index specified invalid ", idx);
    }
    list.erase(list.begin() + static_cast<std::ptrdiff_t>(idx));
  }
  /// Throws std::runtime_error when a tensor is gone: then the graph is broken.
  TensorList lockWeakPtr(const std::vector<std::weak_ptr<IrTensor>>& list) const;

 protected:
  bool canonicalized = false;
  std::vector<AxisFormat> inputAxisFormats;  // as long as `inputs`
  std::vector<std::weak_ptr<IrTensor>> inputs;
  std::vector<std::weak_ptr<IrTensor>> outputs;

 private:
  // The op's place in the execution order of the graph that holds it, kept by that order alone.
  friend class ::netforge::OpOrder;
  void* orderChunk = nullptr;
  const void* orderOwner = nullptr;

  // Not `name` and `attributes`, which the parameters of the op classes' constructors would shadow.
  std::string opName;
  std::string opType;
  std::shared_ptr<IrAttributes> opAttributes;
};

}  // namespace ops

}  // namespace netforge
