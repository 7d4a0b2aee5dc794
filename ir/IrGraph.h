#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>
#include "ir/AxisOrder.h"
#include "ir/IrOp.h"
#include "ir/IrTensor.h"
#include "ir/Trace.h"
#include "metadata/CustomIOEntry.h"

namespace netforge {

class IrOrloTranslator;
class OpConfigValidator;

class ConversionNamePolicy {
 public:
  ConversionNamePolicy();
  explicit ConversionNamePolicy(const std::vector<std::string>& usedNames);  // the seed
  std::string generateUniqueName(const std::string& namePrefixStr, const std::string& opType);
  std::string generateOpName(const std::string& opType, const std::string& baseName,
                             bool prefixUnderscore, const std::string& namePrefix,
                             const std::string& nameSuffix, const std::string& altSuffix);
};

class IrGraph {
 public:
  using OpPtr = std::shared_ptr<ops::IrOp>;
  using TensorPtr = std::shared_ptr<IrTensor>;
  using OpSet = std::set<std::shared_ptr<ops::IrOp>>;
  using Names = std::vector<std::string>;
  using Dims = std::vector<std::uint32_t>;

  // A null axis order means SpatialFirstAxisOrder.
  explicit IrGraph(const std::string& name, const std::shared_ptr<AxisOrder>& axisOrder = nullptr);
  IrGraph(const IrGraph&) = delete;
  IrGraph& operator=(const IrGraph&) = delete;
  ~IrGraph();

  // Fields that the builder of a graph fills and this system only reads: public members.
  std::string name;
  std::map<std::string, std::uint8_t> inputLayoutCodes;
  std::shared_ptr<OpConfigValidator> opConfigValidator;  // null: addOp's `validate` checks nothing
  std::vector<std::string> sourceOpNames;
  std::vector<std::string> sourceTensorNames;
  std::vector<CustomIOEntry> customIOEntries;
  bool acceptsBiaslessFold = false;
  std::string transformMetadataPath;

  // --- adding tensors (mind: the parameter orders differ from the constructors') ---
  void addTensor(const TensorPtr& tensor);
  void addTensor(const std::string& name, const Dims& dims, DataType dataType, DataType srcDataType,
                 AxisFormat axisFormat, AxisFormat srcAxisFormat, bool quantizable,
                 const QuantInfo& quantInfo, TensorType tensorType, bool updateable,
                 const Dims& explicitPermuteOrder);
  void addTensor(const std::string& name, const Dims& dims, std::uint32_t dataSize, const void* data,
                 DataType dataType, DataType srcDataType, AxisFormat axisFormat,
                 AxisFormat srcAxisFormat, bool quantizable, const QuantInfo& quantInfo,
                 bool dataIsBorrowed, TensorType tensorType, bool updateable,
                 const Dims& explicitPermuteOrder);
  void addTensor(const std::string& name, const Dims& dims, DataType dataType, AxisFormat axisFormat,
                 AxisFormat srcAxisFormat, bool quantizable, const QuantInfo& quantInfo);
  void addTensor(const std::string& newName, const std::shared_ptr<IrStaticTensor>& sourceStaticTensor);

  // --- adding ops ---
  void addOp(const OpPtr& op, std::int32_t idx, bool validate);
  void addOp(const OpPtr& op, const Names& inputNames, const Names& outputNames,
             const std::vector<AxisFormat>& outputAxisFormats, std::int32_t idx, bool validate);
  void addOp(const OpPtr& op, const Names& inputNames, const Names& outputNames,
             const std::vector<IrTensorShape>& outputShapes,
             const std::vector<AxisFormat>& outputAxisFormats, std::int32_t idx, bool validate);

  // --- lookups ---
  TensorPtr getTensor(const std::string& name) const;
  std::shared_ptr<IrStaticTensor> getStaticTensor(const std::string& name) const;
  bool hasTensor(const std::string& name) const;
  OpPtr getOp(const std::string& name) const;
  bool hasOp(const std::string& name) const;
  const std::vector<OpPtr>& getOps() const;                    // by reference: copy before editing
  std::uint32_t getOpIndex(const OpPtr& op) const;
  std::vector<TensorPtr> getGraphInputs() const;
  std::vector<TensorPtr> getGraphOutputs() const;
  const std::map<std::string, TensorPtr>& getTensors() const;
  const std::shared_ptr<AxisOrder>& getAxisOrder() const;
  void removeTensor(const std::string& name);

  // --- order and names ---
  void moveOptoIndex(const OpPtr& op, std::uint32_t index);
  void updateTensorName(const std::string& oldName, const std::string& newName);
  void swapTensorNames(const std::string& nameA, const std::string& nameB);
  std::shared_ptr<ConversionNamePolicy> getNamePolicy();

  // --- edits ---
  void removeOpAsConsumer(const OpPtr& op, const TensorPtr& tensor);
  void transferConsumers(const TensorPtr& fromTensor, const TensorPtr& toTensor, const OpSet& consumers);
  OpSet getConsumers(const TensorPtr& tensor, const Names& consumerNames) const;
  void transferGraphOutputTensor(const TensorPtr& fromTensor, const TensorPtr& toTensor);
  void prune(const OpPtr& op, bool force = false);
  void replace(const OpPtr& oldOp, const OpPtr& replacementOp);
  void inject(const OpPtr& op, const std::string& inputName, const std::string& outputName,
              const Names& consumerNames, AxisFormat axisFormat = AxisFormat::NOT_YET_DEFINED,
              bool validate = false, bool inheritQuantizable = false);
  void injectAtIndex(const OpPtr& op, const std::string& inputName, const std::string& outputName,
                     std::uint32_t index, const Names& consumerNames,
                     AxisFormat axisFormat = AxisFormat::NOT_YET_DEFINED, bool validate = false,
                     bool inheritQuantizable = false);
  void injectImplicitPermute(const std::string& inputName, AxisFormat axisFormat, const Dims& order,
                             const Names& consumerNames);
  void squash(const OpPtr& op, const std::string& inputName, bool keepInput, bool transferQuant);
  void transferQuantInfo(const TensorPtr& output, const TensorPtr& input, bool copyFromInput);
  bool producesStaticGraphOutput(const OpPtr& op) const;

  // --- permutes to a target layout ---
  void injectPermuteToSpatialFirst(const TensorPtr& tensor, const OpPtr& op);
  void injectPermuteToSpatialLast(const TensorPtr& tensor, const OpPtr& op);
  void injectPermuteToFeatureFirst(const TensorPtr& tensor, const OpPtr& op);

  // --- trace and statistics ---
  std::vector<TraceSource> getTraceInfo(TraceKind kind, const std::string& name) const;
  void setTraceInfo(TraceKind kind, const std::string& name, const std::vector<TraceSource>& sources);
  void addTraceSources(TraceKind kind, const std::string& name, const std::vector<TraceSource>& sources);
  void addTraceSources(const Names& opNames, const Names& tensorNames, const std::vector<TraceSource>& sources);
  void removeTraceInfo(TraceKind kind, const std::string& name);
  void removeTraceInfo(const std::vector<OpPtr>& ops);
  std::vector<TraceSource> collectTraceSources(const std::vector<TraceKey>& keys) const;
  void updateTraceInfo(const std::vector<OpPtr>& targetOps, const std::vector<OpPtr>& sourceOps,
                       const std::vector<TensorPtr>& sourceTensors, bool removeSources);
  void updateTraceInfo(const std::vector<TensorPtr>& targetTensors,
                       const std::vector<TensorPtr>& sourceTensors,
                       const std::vector<OpPtr>& sourceOps, bool removeSources);
  void validateTraceInfoCompleteness(const std::string& stage);
  std::pair<std::uint64_t, std::uint64_t> reEvalMacsParams();
  const std::vector<TraceRecord>& getTraceRecords(TraceKind kind) const;  // opTraceInfo / tensorTraceInfo

  // --- dump and op config check ---
  void dumpJson(const std::string& fileName);
  void validateOrloOpConfig(const OpPtr& op, bool skipStaticData, const std::string& targetName);
  IrOrloTranslator& getTranslator();
};

}  // namespace netforge
