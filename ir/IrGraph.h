#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>
#include "ir/AxisOrder.h"
#include "ir/ConversionNamePolicy.h"
#include "ir/IrOp.h"
#include "ir/IrTensor.h"
#include "ir/NameIndex.h"
#include "ir/OpOrder.h"
#include "ir/Trace.h"
#include "ir/TraceTable.h"
#include "metadata/CustomIOEntry.h"

namespace netforge {

class IrOrloTranslator;
class OpConfigValidator;

/// One network: its tensors by name, its ops in execution order, the lists of graph inputs and outputs, the
/// axis order in force, trace records and the name policy.
///
/// Every public operation leaves these true (checkInvariants lists what isn't):
///  * names: a tensor is found under its name, an op of the order under its name; each name stands once.
///    Tensors and ops are separate name spaces.
///  * links: an op stands among the consumers of each of its inputs and is the producer of each output.
///  * every input and output of an op is a tensor of the graph.
///  * the execution order is topological. Nothing sorts it: whoever gives an index keeps this true.
///  * an op has as many stored input formats as inputs.
///
/// Ownership: the graph shares its tensors and ops with the caller; tensors hold ops strongly, ops hold
/// tensors weakly, so a graph never forms a cycle. When an operation throws halfway the graph stays as it is
/// at that moment; there is no undo. Op and tensor arguments are copied on entry, and names too where the
/// operation changes names, so a caller may hand in an element of what is edited.
///
/// Cost: lookups by name, and edits at any place of the order, take near-constant time whatever the size of
/// the graph. Not for use by several threads at a time.
class IrGraph {
 public:
  using OpPtr = std::shared_ptr<ops::IrOp>;
  using TensorPtr = std::shared_ptr<IrTensor>;
  using OpSet = std::set<std::shared_ptr<ops::IrOp>>;
  using Names = std::vector<std::string>;
  using Dims = std::vector<std::uint32_t>;

  /// A null axis order means SpatialFirstAxisOrder.
  explicit IrGraph(const std::string& name, const std::shared_ptr<AxisOrder>& axisOrder = nullptr);
  IrGraph(const IrGraph&) = delete;
  IrGraph& operator=(const IrGraph&) = delete;
  ~IrGraph();

  // What the builder of a graph fills in and the system only reads.
  std::string name;
  std::map<std::string, std::uint8_t>
      inputLayoutCodes;  // 8: outputs of rank 3 and 4 "NONTRIVIAL"; 7: time series
  std::shared_ptr<OpConfigValidator> opConfigValidator;  // null: addOp's `validate` checks nothing
  std::vector<std::string> sourceOpNames;                // of the source model, for trace validation
  std::vector<std::string> sourceTensorNames;
  std::vector<CustomIOEntry> customIOEntries;  // in file order
  bool acceptsBiaslessFold = false;
  std::string transformMetadataPath;  // empty: there is no such file

  // --- adding tensors (mind: the parameter orders differ from the constructors') ---
  // Each form enters a tensor under its name. TensorType 0 also appends it to the graph inputs, 1 to the
  // graph outputs, unless that very object is listed already.
  // Throw std::runtime_error for a null tensor and for a name that is taken.

  void addTensor(const TensorPtr& tensor);
  void addTensor(const std::string& name, const Dims& dims, DataType dataType, DataType srcDataType,
                 AxisFormat axisFormat, AxisFormat srcAxisFormat, bool quantizable,
                 const QuantInfo& quantInfo, TensorType tensorType, bool updateable,
                 const Dims& explicitPermuteOrder);
  /// A static tensor of `dataSize` bytes, row-major. Borrowed data must outlive the tensor; other data is
  /// copied.
  void addTensor(const std::string& name, const Dims& dims, std::uint32_t dataSize, const void* data,
                 DataType dataType, DataType srcDataType, AxisFormat axisFormat, AxisFormat srcAxisFormat,
                 bool quantizable, const QuantInfo& quantInfo, bool dataIsBorrowed, TensorType tensorType,
                 bool updateable, const Dims& explicitPermuteOrder);
  /// A native tensor. A quantised type needs `quantizable` and a defined encoding; another type with a
  /// defined encoding throws std::runtime_error.
  void addTensor(const std::string& name, const Dims& dims, DataType dataType, AxisFormat axisFormat,
                 AxisFormat srcAxisFormat, bool quantizable, const QuantInfo& quantInfo);
  /// A deep copy of a static tensor, which is loaded first. The copy owns its bytes and shares the
  /// transform manager, which the source gets when it has none.
  void addTensor(const std::string& newName, const std::shared_ptr<IrStaticTensor>& sourceStaticTensor);

  // --- adding ops ---
  // `idx` is a place in the execution order: -1 and -2 mean the end, 0 to the number of ops inserts before
  // that op, anything else throws before a change. With `validate` the op's configuration is checked for
  // the target, provided that the graph has an opConfigValidator. Failures are std::runtime_error, and
  // whatever the op's own protocol throws.

  /// Enters an op whose inputs and outputs are attached and in the graph; links are the caller's work.
  void addOp(const OpPtr& op, std::int32_t idx, bool validate);
  /// Attaches the inputs, canonicalises the op, infers the outputs' shapes and source types, makes the
  /// outputs that don't exist (native, with the axis format given or NOT_YET_DEFINED) and enters the op.
  /// A failure leaves the inputs marked as consumed: treat it as fatal for the graph.
  void addOp(const OpPtr& op, const Names& inputNames, const Names& outputNames,
             const std::vector<AxisFormat>& outputAxisFormats, std::int32_t idx, bool validate);
  /// The same with the output shapes given, one for each output name.
  void addOp(const OpPtr& op, const Names& inputNames, const Names& outputNames,
             const std::vector<IrTensorShape>& outputShapes, const std::vector<AxisFormat>& outputAxisFormats,
             std::int32_t idx, bool validate);

  // --- lookups ---
  TensorPtr getTensor(const std::string& name) const;  // null when absent
  std::shared_ptr<IrStaticTensor> getStaticTensor(
      const std::string& name) const;  // null also when not static
  bool hasTensor(const std::string& name) const;
  OpPtr getOp(const std::string& name) const;  // null when absent
  bool hasOp(const std::string& name) const;
  bool holdsOp(const OpPtr& op) const;  // this very op, whatever stands under its name; false for null
  /// The execution order. The reference and its elements are valid until the next edit of the graph: copy
  /// the vector before a walk that edits. Materialised at the call after edits in the middle, so prefer
  /// numOps and getOpAt in code that looks at one place between edits.
  const std::vector<OpPtr>& getOps() const;
  std::uint32_t numOps() const;
  /// The op at a position; throws std::out_of_range from numOps() on.
  OpPtr getOpAt(std::uint32_t index) const;
  /// The position of the op, the number of ops when it is absent.
  std::uint32_t getOpIndex(const OpPtr& op) const;
  std::uint32_t countOpsOfType(const std::string& type) const;
  /// The ops of a type in execution order. Costs nothing when there are none.
  std::vector<OpPtr> opsOfType(const std::string& type) const;
  std::vector<OpPtr> opsOfTypes(const std::set<std::string>& types) const;
  std::vector<TensorPtr> getGraphInputs() const;
  std::vector<TensorPtr> getGraphOutputs() const;
  /// All tensors in byte-wise order of their names. The reference is valid until the next edit; a tensor
  /// that is added later shows at the next call.
  const std::map<std::string, TensorPtr>& getTensors() const;
  std::size_t numTensors() const;
  const std::shared_ptr<AxisOrder>& getAxisOrder() const;
  /// Takes the tensor out; links and lists stay as they are. An absent name does nothing.
  void removeTensor(const std::string& name);

  // --- order and names ---
  /// Takes the op out of the order and inserts it before position `index` of the shortened order. Throws
  /// std::runtime_error for an absent op, and for an index beyond the end when the op is already out.
  void moveOptoIndex(const OpPtr& op, std::uint32_t index);
  /// Renames a tensor, which gets a new id, and its trace record. Equal names: nothing happens, even when
  /// there is no such tensor. Throws std::runtime_error for a taken new or an absent old name.
  void updateTensorName(const std::string& oldName, const std::string& newName);
  /// Exchanges the names of two tensors; both get new ids, trace records stay with the names. Throws
  /// std::runtime_error for an absent tensor.
  void swapTensorNames(const std::string& nameA, const std::string& nameB);
  /// Made at the first call, seeded with the names of all ops.
  std::shared_ptr<ConversionNamePolicy> getNamePolicy();

  // --- edits ---
  /// Takes the tensor out of the op's inputs, at every place, and the op out of its consumers.
  void removeOpAsConsumer(const OpPtr& op, const TensorPtr& tensor);
  /// Lets the consumers read `toTensor` wherever they read `fromTensor`, in execution order.
  void transferConsumers(const TensorPtr& fromTensor, const TensorPtr& toTensor, const OpSet& consumers);
  /// The consumers of those names, or all without names. Throws std::invalid_argument for a name that is no
  /// op or doesn't read the tensor.
  OpSet getConsumers(const TensorPtr& tensor, const Names& consumerNames) const;
  /// When `fromTensor` is a graph output, `toTensor` becomes one in its place; `fromTensor` keeps its type.
  void transferGraphOutputTensor(const TensorPtr& fromTensor, const TensorPtr& toTensor);
  /// Removes an op and its output tensors, not its inputs. Throws std::runtime_error when an output has a
  /// consumer, unless `force` cuts the consumers off. Graph lists and trace records stay as they are.
  void prune(const OpPtr& op, bool force = false);
  /// Puts a new op in the place of an old one: same inputs, outputs and position, shapes and formats
  /// inferred anew, trace sources handed over.
  void replace(const OpPtr& oldOp, const OpPtr& replacementOp);
  /// Puts a single-output op between a tensor and the named consumers, or all without names. The output is
  /// a native tensor with the inferred dims (without dynamic axes); the op stands right behind the producer
  /// of the input, else before the first moved consumer, else at the end.
  void inject(const OpPtr& op, const std::string& inputName, const std::string& outputName,
              const Names& consumerNames, AxisFormat axisFormat = AxisFormat::NOT_YET_DEFINED,
              bool validate = false, bool inheritQuantizable = false);
  /// The same at a position; one beyond the end means the end.
  void injectAtIndex(const OpPtr& op, const std::string& inputName, const std::string& outputName,
                     std::uint32_t index, const Names& consumerNames,
                     AxisFormat axisFormat = AxisFormat::NOT_YET_DEFINED, bool validate = false,
                     bool inheritQuantizable = false);
  /// Lets the consumers see a tensor in another layout through a Transpose "<tensor>.<format>", which calls
  /// for the same format and order share.
  void injectImplicitPermute(const std::string& inputName, AxisFormat axisFormat, const Dims& order,
                             const Names& consumerNames);
  /// Removes a single-output op that has become a no-op by merging its input and its output tensor. The
  /// output survives when the input is read by this op alone, has a producer, isn't a graph output, and
  /// `keepInput` is false; otherwise the input survives, provided that the output is read and isn't a graph
  /// output. Throws std::runtime_error, with the graph unchanged, when neither is possible.
  void squash(const OpPtr& op, const std::string& inputName, bool keepInput, bool transferQuant);
  /// Moves the encoding between the two tensors of a squash: the output's, when defined, to a quantizable
  /// input; else, with `copyFromInput`, the input's to a quantizable output.
  void transferQuantInfo(const TensorPtr& output, const TensorPtr& input, bool copyFromInput);
  /// True when the op copies a constant into a graph output of the same shape. A null op gives false.
  bool producesStaticGraphOutput(const OpPtr& op) const;

  // --- permutes to a target layout: a shared Transpose in front of one op; other formats are left alone ---
  void injectPermuteToSpatialFirst(const TensorPtr& tensor, const OpPtr& op);
  void injectPermuteToSpatialLast(const TensorPtr& tensor, const OpPtr& op);
  void injectPermuteToFeatureFirst(const TensorPtr& tensor, const OpPtr& op);

  // --- trace and statistics ---
  /// The sources of a record, none without a record.
  std::vector<TraceSource> getTraceInfo(TraceKind kind, const std::string& name) const;
  /// Replaces the sources of an existing record; without one, or with no sources, nothing happens.
  void setTraceInfo(TraceKind kind, const std::string& name, const std::vector<TraceSource>& sources);
  /// Puts sources in front of those of the record, which is made when there is none. No sources: nothing.
  void addTraceSources(TraceKind kind, const std::string& name, const std::vector<TraceSource>& sources);
  void addTraceSources(const Names& opNames, const Names& tensorNames,
                       const std::vector<TraceSource>& sources);
  void removeTraceInfo(TraceKind kind, const std::string& name);
  void removeTraceInfo(const std::vector<OpPtr>& ops);
  /// The sources of all keys' records, in order, without duplicates.
  std::vector<TraceSource> collectTraceSources(const std::vector<TraceKey>& keys) const;
  /// Hands the sources of the source ops and tensors to each target; `removeSources` then erases the
  /// records of the source ops and tensors. Null entries are skipped. Throw std::runtime_error for an empty
  /// target list, and for two empty source lists.
  void updateTraceInfo(const std::vector<OpPtr>& targetOps, const std::vector<OpPtr>& sourceOps,
                       const std::vector<TensorPtr>& sourceTensors, bool removeSources);
  void updateTraceInfo(const std::vector<TensorPtr>& targetTensors,
                       const std::vector<TensorPtr>& sourceTensors, const std::vector<OpPtr>& sourceOps,
                       bool removeSources);
  /// Compares the records with the graph and with the source model's names and reports differences on
  /// standard output. `stage` names the moment of the check.
  void validateTraceInfoCompleteness(const std::string& stage);
  /// Counts multiply-accumulates and parameters of all ops, prints and returns the totals. Ops of a type
  /// with a class are counted by that class; an op whose count fails is reported and counts nothing.
  std::pair<std::uint64_t, std::uint64_t> reEvalMacsParams();
  /// All records of a kind in order. The reference is valid until the next edit.
  const std::vector<TraceRecord>& getTraceRecords(TraceKind kind) const;

  // --- dump and op config check ---
  void dumpJson(const std::string& fileName);
  /// Translates the op to the target's record, which rewrites its attributes to the target's parameters, and
  /// lets the validator check it. `skipStaticData` leaves the data of static inputs out of the record.
  /// Throws std::runtime_error when the check fails, with all messages of the process so far, and without a
  /// validator; also what the translation throws.
  void validateOrloOpConfig(const OpPtr& op, bool skipStaticData, const std::string& targetName);
  /// The translator that keeps the records of this graph's ops.
  IrOrloTranslator& getTranslator();

  // --- self-check ---
  /// One line "<invariant>: <what is wrong>" for each violation, none for a sound graph. The invariants are
  /// called "names", "links", "known tensors", "topological order", "input formats" and "graph lists" (each
  /// graph input and output is a tensor of the graph). Walks the whole graph.
  std::vector<std::string> checkInvariants() const;

 private:
  void requireFreeName(const std::string& tensorName) const;
  void enterTensor(const TensorPtr& tensor);
  bool eraseTensor(const TensorPtr& tensor);  // when it is the graph's tensor of its name
  void checkIndex(const OpPtr& op, std::int32_t idx) const;
  void checkNewOp(const OpPtr& op, bool validate);
  void addOpByName(const OpPtr& op, const Names& inputNames, const Names& outputNames,
                   const std::vector<IrTensorShape>* outputShapes,
                   const std::vector<AxisFormat>& outputAxisFormats, std::int32_t idx, bool validate);
  OpSet putOnTensor(const OpPtr& op, const TensorPtr& input, const std::string& outputName,
                    const Names& consumerNames, AxisFormat axisFormat, bool inheritQuantizable);
  void squashIntoOutput(const OpPtr& op, const TensorPtr& input, const TensorPtr& output, bool transferQuant);
  void squashIntoInput(const OpPtr& op, const TensorPtr& input, const TensorPtr& output, bool transferQuant);
  TraceTable& traceTable(TraceKind kind);
  const TraceTable& traceTable(TraceKind kind) const;

  NameIndex<TensorPtr> tensors;
  std::vector<TensorPtr> graphInputs;
  std::vector<TensorPtr> graphOutputs;
  OpOrder opOrder;
  NameIndex<OpPtr> opsByName;
  std::shared_ptr<AxisOrder> axisOrder;
  TraceTable opTraceInfo;
  TraceTable tensorTraceInfo;
  std::shared_ptr<ConversionNamePolicy> namePolicy;
  std::shared_ptr<IrOrloTranslator> translator;  // made on first use; shared, for its type is unknown here
};

/// The ops of a set in execution order; ops that the graph doesn't hold come last, by name. Sets of ops are
/// ordered by address, so every walk whose result can show goes through this.
std::vector<IrGraph::OpPtr> consumersInGraphOrder(const IrGraph& graph, const IrGraph::OpSet& ops);

}  // namespace netforge
