// Tensors, lookups and names of a graph.

#include <algorithm>
#include <stdexcept>
#include <utility>
#include "ir/Failure.h"
#include "ir/GraphArguments.h"
#include "ir/IrGraph.h"

namespace netforge {

namespace {
constexpr const char* kAddTensor = "netforge::IrGraph::addTensor";
constexpr const char* kUpdateTensorName = "netforge::IrGraph::updateTensorName";
constexpr const char* kSwapTensorNames = "netforge::IrGraph::swapTensorNames";
}  // namespace

IrGraph::IrGraph(const std::string& graphName, const std::shared_ptr<AxisOrder>& givenAxisOrder)
    : name(graphName),
      axisOrder(givenAxisOrder != nullptr ? givenAxisOrder : std::make_shared<SpatialFirstAxisOrder>()) {}

IrGraph::~IrGraph() = default;

void IrGraph::requireFreeName(const std::string& tensorName) const {
  if (tensors.contains(tensorName)) {
    fail<std::runtime_error>(kAddTensor, "Tensor ", tensorName, " already exists!");
  }
}

void IrGraph::enterTensor(const TensorPtr& tensor) {
  if (!tensors.insert(tensor->getName(), tensor)) requireFreeName(tensor->getName());
  const TensorType type = tensor->getTensorType();
  if (type != TensorType::GraphInput && type != TensorType::GraphOutput) return;
  std::vector<TensorPtr>& list = type == TensorType::GraphInput ? graphInputs : graphOutputs;
  // A tensor that was taken out of the graph kept its place in the list.
  if (std::find(list.begin(), list.end(), tensor) == list.end()) list.push_back(tensor);
}

bool IrGraph::eraseTensor(const TensorPtr& tensor) {
  const TensorPtr* held = tensors.find(tensor->getName());
  if (held == nullptr || *held != tensor) return false;
  tensors.take(tensor->getName());
  return true;
}

void IrGraph::addTensor(const TensorPtr& given) {
  const TensorPtr tensor = given;
  requireTensor(tensor, kAddTensor);
  enterTensor(tensor);
}

void IrGraph::addTensor(const std::string& tensorName, const Dims& dims, DataType dataType,
                        DataType srcDataType, AxisFormat axisFormat, AxisFormat srcAxisFormat,
                        bool quantizable, const QuantInfo& quantInfo, TensorType tensorType, bool updateable,
                        const Dims& explicitPermuteOrder) {
  requireFreeName(tensorName);
  enterTensor(std::make_shared<IrTensor>(tensorName, dims, dataType, srcDataType, quantizable, quantInfo,
                                         axisFormat, srcAxisFormat, tensorType, updateable,
                                         explicitPermuteOrder));
}

void IrGraph::addTensor(const std::string& tensorName, const Dims& dims, std::uint32_t dataSize,
                        const void* data, DataType dataType, DataType srcDataType, AxisFormat axisFormat,
                        AxisFormat srcAxisFormat, bool quantizable, const QuantInfo& quantInfo,
                        bool dataIsBorrowed, TensorType tensorType, bool updateable,
                        const Dims& explicitPermuteOrder) {
  requireFreeName(tensorName);
  enterTensor(std::make_shared<IrStaticTensor>(
      tensorName, dims, dataSize, data, dataType, srcDataType, quantizable, quantInfo, axisFormat,
      srcAxisFormat, dataIsBorrowed, tensorType, updateable, explicitPermuteOrder, nullptr));
}

void IrGraph::addTensor(const std::string& tensorName, const Dims& dims, DataType dataType,
                        AxisFormat axisFormat, AxisFormat srcAxisFormat, bool quantizable,
                        const QuantInfo& quantInfo) {
  requireFreeName(tensorName);
  const bool quantized = isQuantizedType(dataType);
  // Only a float tensor can be made quantizable, and only a quantizable one takes an encoding, so a tensor of
  // a quantised type starts out as float.
  const auto tensor =
      std::make_shared<IrTensor>(tensorName, dims, quantized ? ORLO_DATATYPE_FLOAT_32 : dataType, axisFormat,
                                 srcAxisFormat, TensorType::Native, Dims{});
  tensor->setQuantizable(quantizable);
  if (quantized) {
    tensor->setQInfo(dataType, quantInfo);
    tensor->setSrcDataType(dataType);
  } else if (quantInfo.encoding != QuantEncodingKind::Undefined) {
    fail<std::runtime_error>(kAddTensor, "Tensor ", tensorName, " has unquantized dataType ", dataType,
                             " but the QuantInfo has been set to ", quantInfo.encoding);
  }
  enterTensor(tensor);
}

void IrGraph::addTensor(const std::string& newName,
                        const std::shared_ptr<IrStaticTensor>& sourceStaticTensor) {
  const std::shared_ptr<IrStaticTensor> source = sourceStaticTensor;
  requireTensor(source, kAddTensor);
  requireFreeName(newName);
  const std::uint8_t* data = source->getData();  // from its file, when the bytes still lie there
  const auto copy = std::make_shared<IrStaticTensor>(
      newName, source->getDims(), source->getDataSize(), data, source->getDataType(),
      source->getSrcDataType(), source->isQuantizable(), source->getQuantInfo(), source->getAxisFormat(),
      source->getSrcAxisFormat(), false, source->getTensorType(), source->isUpdateable(),
      source->getPermuteOrder(), source->getOrCreateTransformManager());
  copy->setSparseParams(source->getSparseParams());
  enterTensor(copy);
}

IrGraph::TensorPtr IrGraph::getTensor(const std::string& tensorName) const {
  const TensorPtr* found = tensors.find(tensorName);
  return found == nullptr ? nullptr : *found;
}

std::shared_ptr<IrStaticTensor> IrGraph::getStaticTensor(const std::string& tensorName) const {
  const TensorPtr* found = tensors.find(tensorName);
  return found == nullptr ? nullptr : std::dynamic_pointer_cast<IrStaticTensor>(*found);
}

bool IrGraph::hasTensor(const std::string& tensorName) const {
  return tensors.contains(tensorName);
}

IrGraph::OpPtr IrGraph::getOp(const std::string& opName) const {
  const OpPtr* found = opsByName.find(opName);
  return found == nullptr ? nullptr : *found;
}

bool IrGraph::hasOp(const std::string& opName) const {
  return opsByName.contains(opName);
}

const std::vector<IrGraph::OpPtr>& IrGraph::getOps() const {
  return opOrder.asVector();
}

std::uint32_t IrGraph::numOps() const {
  return opOrder.size();
}

IrGraph::OpPtr IrGraph::getOpAt(std::uint32_t index) const {
  if (index >= opOrder.size()) {
    fail<std::out_of_range>("netforge::IrGraph::getOpAt", "Index ", index, " out of range, the graph has ",
                            opOrder.size(), " ops");
  }
  return opOrder.at(index);
}

std::uint32_t IrGraph::getOpIndex(const OpPtr& op) const {
  return opOrder.indexOf(op.get());
}

std::uint32_t IrGraph::countOpsOfType(const std::string& type) const {
  return opOrder.countOfType(type);
}

std::vector<IrGraph::OpPtr> IrGraph::opsOfType(const std::string& type) const {
  return opOrder.ofType(type);
}

std::vector<IrGraph::TensorPtr> IrGraph::getGraphInputs() const {
  return graphInputs;
}

std::vector<IrGraph::TensorPtr> IrGraph::getGraphOutputs() const {
  return graphOutputs;
}

const std::map<std::string, IrGraph::TensorPtr>& IrGraph::getTensors() const {
  return tensors.sorted();
}

std::size_t IrGraph::numTensors() const {
  return tensors.size();
}

const std::shared_ptr<AxisOrder>& IrGraph::getAxisOrder() const {
  return axisOrder;
}

void IrGraph::removeTensor(const std::string& tensorName) {
  tensors.take(tensorName);
}

void IrGraph::updateTensorName(const std::string& givenOldName, const std::string& givenNewName) {
  if (givenOldName == givenNewName) return;
  const std::string oldName = givenOldName;  // either may be the tensor's own name, which is overwritten
  const std::string newName = givenNewName;
  if (tensors.contains(newName)) {
    fail<std::runtime_error>(kUpdateTensorName, "Tensor with name: ", newName, " already exists!");
  }
  const TensorPtr tensor = tensors.take(oldName);
  if (tensor == nullptr) {
    fail<std::runtime_error>(kUpdateTensorName, "Tensor ", oldName, " does not exist!");
  }
  tensor->setName(newName);
  tensors.insert(newName, tensor);

  const std::vector<TraceSource> sources = getTraceInfo(TraceKind::Tensor, oldName);
  removeTraceInfo(TraceKind::Tensor, oldName);
  addTraceSources(TraceKind::Tensor, newName, sources);
}

void IrGraph::swapTensorNames(const std::string& givenA, const std::string& givenB) {
  const std::string nameA = givenA;  // either may be a tensor's own name, which is overwritten
  const std::string nameB = givenB;
  const TensorPtr tensorA = getTensor(nameA);
  const TensorPtr tensorB = getTensor(nameB);
  if (tensorA == nullptr) fail<std::runtime_error>(kSwapTensorNames, "Tensor ", nameA, " does not exist!");
  if (tensorB == nullptr) fail<std::runtime_error>(kSwapTensorNames, "Tensor ", nameB, " does not exist!");
  tensorA->setName(nameB);
  tensorB->setName(nameA);
  tensors.set(nameB, tensorA);
  tensors.set(nameA, tensorB);
}

std::shared_ptr<ConversionNamePolicy> IrGraph::getNamePolicy() {
  if (namePolicy == nullptr) {
    Names used;
    used.reserve(opOrder.size());
    for (const OpPtr& op : opOrder.asVector()) used.push_back(op->getName());
    namePolicy = std::make_shared<ConversionNamePolicy>(used);
  }
  return namePolicy;
}

}  // namespace netforge
