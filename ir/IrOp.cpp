#include "ir/IrOp.h"

#include <algorithm>
#include <stdexcept>

namespace netforge {

namespace ops {

namespace {

// Layout codes of graph inputs, as the builder of the graph gives them.
constexpr std::uint8_t kCodeTimeSeries = 7;
constexpr std::uint8_t kCodeNontrivial = 8;

std::vector<std::vector<std::uint32_t>> dimsOf(const IrOp::TensorList& tensors) {
  std::vector<std::vector<std::uint32_t>> dims;
  dims.reserve(tensors.size());
  for (const auto& tensor : tensors) dims.push_back(tensor->getDims());
  return dims;
}

// The first place of a tensor in a list, or the length of the list. A null tensor stands nowhere.
std::uint32_t findTensor(const std::vector<std::weak_ptr<IrTensor>>& list,
                         const std::shared_ptr<IrTensor>& tensor) {
  const auto place = std::find_if(list.begin(), list.end(), [&tensor](const auto& entry) {
    return tensor != nullptr && entry.lock() == tensor;
  });
  return static_cast<std::uint32_t>(place - list.begin());
}

}  // namespace

IrOp::IrOp(const std::string& name, const std::string& type, const std::shared_ptr<IrAttributes>& attributes)
    : opName(name), opType(type), opAttributes(attributes ? attributes : std::make_shared<IrAttributes>()) {
  const auto place = opAttributes->entries().find("quantizable");
  if (place == opAttributes->entries().end()) return;
  const IrAttribute& quantizable = place->second;
  if (quantizable.attrType != ORLO_PARAMTYPE_SCALAR || quantizable.dataType != ORLO_DATATYPE_BOOL_8) return;
  for (const auto& tensor : opAttributes->getStaticTensors()) {
    tensor->setQuantizable(quantizable.intValue != 0);
  }
}

IrOp::~IrOp() = default;

// --- protocol -------------------------------------------------------------------------------------------

std::uint64_t IrOp::macs(const std::shared_ptr<AxisOrder>&) {
  return 0;
}

std::uint32_t IrOp::paramsCount(const std::shared_ptr<AxisOrder>&) {
  return 0;
}

void IrOp::addOutput(const std::shared_ptr<IrTensor>& tensor, std::int32_t idx) {
  if (!tensor) {
    fail<std::invalid_argument>("netforge::ops::IrOp::addOutput",
                                "Invalid output tensor: received null pointer in op ", displayName());
  }
  addAtIdx(outputs, std::weak_ptr<IrTensor>(tensor), idx);
}

void IrOp::canonicalizeOp(std::uint32_t) {
  canonicalized = true;
}

std::vector<std::vector<std::uint32_t>> IrOp::inferOutputShapes(const std::shared_ptr<AxisOrder>&,
                                                                std::uint32_t) {
  const TensorList tensors = getInputs();
  for (const auto& tensor : tensors) {
    if (tensor->getShape().hasDynamicAxes()) {
      fail<std::invalid_argument>("netforge::ops::IrOp::inferOutputShapes", "IrOp ", opName, " of type ",
                                  opType, " has dynamic inputs. Use inferOutputTensorShapes instead.");
    }
  }
  return dimsOf(tensors);
}

std::vector<IrTensorShape> IrOp::inferOutputTensorShapes(const std::shared_ptr<AxisOrder>& axisOrder,
                                                         std::uint32_t numOutputs) {
  for (const auto& tensor : getInputs()) {
    if (tensor->getShape().hasDynamicAxes()) {
      fail<std::invalid_argument>("netforge::ops::IrOp::inferOutputTensorShapes",
                                  "Inputs with dynamic shape not supported for op type ", opType,
                                  ". Got Input tensor ", tensor->getName(), " with shape ",
                                  tensor->getShape(), " for op ", displayName(), ".");
    }
  }
  std::vector<IrTensorShape> shapes;
  for (const auto& dims : inferOutputShapes(axisOrder, numOutputs)) shapes.emplace_back(dims);
  return shapes;
}

std::vector<DataType> IrOp::inferOutputDataTypes(std::uint32_t numOutputs) {
  DataType dataType = inputs.empty() ? ORLO_DATATYPE_UNDEFINED : getInput(0)->getDataType();
  if (dataType == ORLO_DATATYPE_INT_64) dataType = ORLO_DATATYPE_INT_32;
  return std::vector<DataType>(numOutputs, dataType);
}

std::vector<DataType> IrOp::inferOutputSrcDataTypes(std::uint32_t numOutputs) {
  return std::vector<DataType>(numOutputs,
                               inputs.empty() ? ORLO_DATATYPE_UNDEFINED : getInput(0)->getSrcDataType());
}

void IrOp::overrideDataAxisFormats(const std::shared_ptr<AxisOrder>&) {}

void IrOp::populateOutputAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder,
                                     const std::map<std::string, std::uint8_t>& inputLayoutCodes,
                                     bool isTimeSeries) {
  if (outputs.empty()) {
    fail<std::runtime_error>("netforge::ops::IrOp::populateOutputAxisFormats",
                             "Cannot populate output axis format for op ", opName, " (type: ", opType,
                             "): no outputs set");
  }
  const auto hasCode = [&inputLayoutCodes](std::uint8_t code) {
    return std::any_of(inputLayoutCodes.begin(), inputLayoutCodes.end(),
                       [code](const auto& entry) { return entry.second == code; });
  };
  const bool anyNontrivial = hasCode(kCodeNontrivial);
  const bool anyTimeSeries = hasCode(kCodeTimeSeries);
  for (const auto& tensor : getOutputs()) {
    const std::uint32_t rank = tensor->getRank();
    if (anyNontrivial && (rank == 3 || rank == 4)) {
      tensor->setAxisFormat(AxisFormat::NONTRIVIAL);
    } else {
      tensor->setAxisFormat(axisOrder->getAxisFormat(rank, (anyTimeSeries && rank == 3) || isTimeSeries));
    }
  }
}

void IrOp::validateOp() {
  constexpr const char* kFunction = "netforge::ops::IrOp::validateOp";
  if (opName.empty()) {
    fail<std::invalid_argument>(kFunction, "Unable to create IrOp with empty name! (type: ", opType, ")");
  }
  if (opType.empty()) {
    fail<std::invalid_argument>(kFunction, "Unable to create IrOp ", opName, " with empty operation type!");
  }
  if (inputs.empty() && opType != "input" && opType != "constant") {
    fail<std::invalid_argument>(kFunction, "Unable to create IrOp ", opName, " (type: ", opType,
                                ") with no input tensor!");
  }
  if (outputs.empty()) {
    fail<std::invalid_argument>(kFunction, "Unable to create IrOp ", opName, " (type: ", opType,
                                ") with no output tensor!");
  }
}

void IrOp::resizeOp(const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t numOutputs) {
  const std::vector<IrTensorShape> shapes = inferOutputTensorShapes(axisOrder, numOutputs);
  if (shapes.size() != outputs.size()) {
    fail<std::invalid_argument>("netforge::ops::IrOp::resizeOp", "Number of output tensors for op ", opName,
                                " (type: ", opType,
                                ") differs from the number of output shapes calculated for resizing: current "
                                "outputs count: ",
                                outputs.size(), ", expected (inferred shapes count): ", shapes.size());
  }
  const TensorList tensors = getOutputs();
  for (std::size_t i = 0; i < tensors.size(); ++i) tensors[i]->setShape(shapes[i]);
}

// --- reads ----------------------------------------------------------------------------------------------

const std::string& IrOp::getName() const {
  return opName;
}

const std::string& IrOp::getType() const {
  return opType;
}

const std::shared_ptr<IrAttributes>& IrOp::getAttributes() const {
  return opAttributes;
}

bool IrOp::isCanonicalized() const {
  return canonicalized;
}

IrOp::TensorList IrOp::getInputs() const {
  return lockWeakPtr(inputs);
}

IrOp::TensorList IrOp::getOutputs() const {
  return lockWeakPtr(outputs);
}

std::shared_ptr<IrTensor> IrOp::getInput(std::uint32_t idx) const {
  if (idx >= inputs.size()) {
    fail<std::invalid_argument>("netforge::ops::IrOp::getInput", "Op ", displayName(), " has no input ", idx,
                                ", inputs count: ", inputs.size());
  }
  return lockWeakPtr({inputs[idx]}).front();
}

std::shared_ptr<IrTensor> IrOp::getOutput(std::uint32_t idx) const {
  if (idx >= outputs.size()) {
    fail<std::invalid_argument>("netforge::ops::IrOp::getOutput", "Op ", displayName(), " has no output ",
                                idx, ", outputs count: ", outputs.size());
  }
  return lockWeakPtr({outputs[idx]}).front();
}

std::vector<std::vector<std::uint32_t>> IrOp::getInputDims() const {
  return dimsOf(getInputs());
}

std::vector<std::vector<std::uint32_t>> IrOp::getOutputDims() const {
  return dimsOf(getOutputs());
}

std::vector<AxisFormat> IrOp::getInputAxisFormats() const {
  std::vector<AxisFormat> formats;
  formats.reserve(inputs.size());
  for (const auto& tensor : getInputs()) formats.push_back(tensor->getAxisFormat());
  return formats;
}

const std::vector<AxisFormat>& IrOp::getStoredInputAxisFormats() const {
  return inputAxisFormats;
}

std::set<std::shared_ptr<IrTensor>> IrOp::getInputSet() const {
  const TensorList tensors = getInputs();
  return {tensors.begin(), tensors.end()};
}

std::uint32_t IrOp::numInputs() const {
  return static_cast<std::uint32_t>(inputs.size());
}

std::uint32_t IrOp::numOutputs() const {
  return static_cast<std::uint32_t>(outputs.size());
}

std::string IrOp::displayName() const {
  return opName + "[" + opType + "]";
}

std::uint64_t IrOp::lastDimsProduct(const std::vector<std::uint32_t>& dims, std::uint32_t n) {
  std::uint64_t product = 1;
  if (dims.size() < n) return product;
  for (std::size_t i = dims.size() - n; i < dims.size(); ++i) product *= dims[i];
  return product;
}

IrOp::TensorList IrOp::lockWeakPtr(const std::vector<std::weak_ptr<IrTensor>>& list) const {
  TensorList tensors;
  tensors.reserve(list.size());
  for (const auto& entry : list) {
    tensors.push_back(entry.lock());
    if (!tensors.back()) {
      fail<std::runtime_error>("netforge::ops::IrOp::lockWeakPtr", "Tensor pointer for Op ", opName,
                               " not valid, unable to lock.");
    }
  }
  return tensors;
}

// --- list edits -----------------------------------------------------------------------------------------

void IrOp::addInput(const std::shared_ptr<IrTensor>& tensor, std::int32_t idx) {
  if (!tensor) {
    fail<std::invalid_argument>("netforge::ops::IrOp::addInput",
                                "Invalid input tensor: received null pointer in op ", displayName());
  }
  addAtIdx(inputs, std::weak_ptr<IrTensor>(tensor), idx);
  addAtIdx(inputAxisFormats, tensor->getAxisFormat(), idx);
}

void IrOp::rmInputAtIdx(std::uint32_t idx) {
  rmAtIdx(inputs, idx);
  rmAtIdx(inputAxisFormats, idx);
}

void IrOp::rmOutputAtIdx(std::uint32_t idx) {
  rmAtIdx(outputs, idx);
}

void IrOp::removeInput(const std::shared_ptr<IrTensor>& tensor) {
  for (auto idx = findTensor(inputs, tensor); idx < inputs.size(); idx = findTensor(inputs, tensor)) {
    rmInputAtIdx(idx);
  }
}

void IrOp::removeOutput(const std::shared_ptr<IrTensor>& tensor) {
  for (auto idx = findTensor(outputs, tensor); idx < outputs.size(); idx = findTensor(outputs, tensor)) {
    rmOutputAtIdx(idx);
  }
}

void IrOp::setInput(const std::shared_ptr<IrTensor>& tensor, std::uint32_t idx) {
  constexpr const char* kFunction = "netforge::ops::IrOp::setInput";
  if (!tensor) {
    fail<std::invalid_argument>(kFunction, "Invalid input tensor: received null pointer in op ",
                                displayName());
  }
  if (idx >= inputs.size()) {
    fail<std::invalid_argument>(kFunction, "Error set val to op", opName, ". Index specified invalid ", idx);
  }
  inputs[idx] = tensor;
  inputAxisFormats[idx] = tensor->getAxisFormat();
}

void IrOp::setOutput(const std::shared_ptr<IrTensor>& tensor, std::uint32_t idx) {
  constexpr const char* kFunction = "netforge::ops::IrOp::setOutput";
  if (!tensor) {
    fail<std::invalid_argument>(kFunction, "Invalid output tensor: received null pointer in op ",
                                displayName());
  }
  if (idx >= outputs.size()) {
    fail<std::invalid_argument>(kFunction, "Error set val to op", opName, ". Index specified invalid ", idx);
  }
  outputs[idx] = tensor;
}

void IrOp::setInputs(const TensorList& tensors) {
  inputs.clear();
  inputAxisFormats.clear();
  for (const auto& tensor : tensors) addInput(tensor);
}

void IrOp::setOutputs(const TensorList& tensors) {
  outputs.clear();
  for (const auto& tensor : tensors) addOutput(tensor, -1);
}

void IrOp::replaceInputTensor(const std::shared_ptr<IrTensor>& oldTensor,
                              const std::shared_ptr<IrTensor>& newTensor) {
  constexpr const char* kFunction = "netforge::ops::IrOp::replaceInputTensor";
  if (!oldTensor) {
    fail<std::invalid_argument>(kFunction, "Invalid old input tensor: received null pointer in op ", opName);
  }
  if (!newTensor) {
    fail<std::invalid_argument>(kFunction, "Invalid new input tensor: received null pointer in op ", opName);
  }
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    if (inputs[i].lock() != oldTensor) continue;
    inputs[i] = newTensor;
    inputAxisFormats[i] = newTensor->getAxisFormat();
  }
}

void IrOp::replaceOutputTensor(const std::shared_ptr<IrTensor>& oldTensor,
                               const std::shared_ptr<IrTensor>& newTensor) {
  constexpr const char* kFunction = "netforge::ops::IrOp::replaceOutputTensor";
  if (!oldTensor) {
    fail<std::invalid_argument>(kFunction, "Invalid old output tensor: received null pointer in op ", opName);
  }
  if (!newTensor) {
    fail<std::invalid_argument>(kFunction, "Invalid new output tensor: received null pointer in op ", opName);
  }
  for (auto& output : outputs) {
    if (output.lock() == oldTensor) output = newTensor;
  }
}

void IrOp::setInputAxisFormat(AxisFormat format, std::uint32_t idx) {
  getInput(idx)->setAxisFormat(format);
  inputAxisFormats[idx] = format;
}

}  // namespace ops

}  // namespace netforge
