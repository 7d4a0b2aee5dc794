#include "output/IrOrloTranslator.h"

#include <cstring>
#include <deque>
#include <optional>
#include "ir/Failure.h"
#include "output/OrloOpTypes.h"
#include "output/ZeroedRecord.h"

namespace netforge {

namespace {

constexpr const char* kGetOrloOp = "netforge::IrOrloTranslator::getOrloOp";
constexpr std::uint32_t kUndefined = 0x7FFFFFFF;
constexpr std::uint32_t kNullTensor = 5;

template <class T>
T* dataOrNull(std::vector<T>& list) {
  return list.empty() ? nullptr : list.data();
}

void requireTensor(const std::shared_ptr<IrTensor>& tensor, const char* function) {
  if (tensor != nullptr) return;
  fail<std::invalid_argument>(function,
                              "Invalid tensor: received null tensor pointer, expected a valid tensor");
}

/// The place of an absent operand.
bool isNullTensor(const IrTensor& tensor) {
  return tensor.getName().empty() || tensor.getDims() == std::vector<std::uint32_t>{0};
}

std::uint32_t recordTypeOf(const IrTensor& tensor) {
  if (isNullTensor(tensor)) return kNullTensor;
  if (tensor.isStatic() || tensor.getProducer() != nullptr) return tensor.getRuntimeTensorType();
  constexpr std::uint32_t kUpdateableInput = 8;
  if (tensor.isUpdateable()) return kUpdateableInput;
  const bool isOptional = tensor.getTensorType() == TensorType::OptionalInput;
  return static_cast<std::uint32_t>(isOptional ? TensorType::OptionalInput : TensorType::GraphInput);
}

/// How a scalar stands in its record. Nothing for a type that no parameter can have.
std::optional<Orlo_ScalarValue_t> scalarOf(const IrAttribute& attribute, const char* text) {
  auto value = zeroedRecord<Orlo_ScalarValue_t>();
  switch (attribute.dataType) {
    case ORLO_DATATYPE_INT_8:
    case ORLO_DATATYPE_UINT_8:
    case ORLO_DATATYPE_SFIXED_POINT_8:
    case ORLO_DATATYPE_UFIXED_POINT_8:
    case ORLO_DATATYPE_BOOL_8:
      value.uint8Value = static_cast<std::uint8_t>(attribute.intValue);
      return value;
    case ORLO_DATATYPE_INT_16:
    case ORLO_DATATYPE_UINT_16:
    case ORLO_DATATYPE_SFIXED_POINT_16:
    case ORLO_DATATYPE_UFIXED_POINT_16:
      value.uint16Value = static_cast<std::uint16_t>(attribute.intValue);
      return value;
    case ORLO_DATATYPE_INT_32:
    case ORLO_DATATYPE_UINT_32:
    case ORLO_DATATYPE_INT_64:
    case ORLO_DATATYPE_UINT_64:
    case ORLO_DATATYPE_SFIXED_POINT_32:
    case ORLO_DATATYPE_UFIXED_POINT_32:
      value.uint32Value = static_cast<std::uint32_t>(attribute.intValue);
      return value;
    case ORLO_DATATYPE_FLOAT_16:
    case ORLO_DATATYPE_FLOAT_32:
      value.floatValue = attribute.floatValue;
      return value;
    case ORLO_DATATYPE_STRING:
      value.stringValue = text;
      return value;
    default:
      return std::nullopt;
  }
}

}  // namespace

struct IrOrloTranslator::TensorEntry {
  Orlo_Tensor_t record = zeroedRecord<Orlo_Tensor_t>();
  std::shared_ptr<IrTensor> tensor;  // says whether the record's name still is the tensor's
  // What the record points to.
  std::string name;
  std::vector<std::uint32_t> dims;
  std::vector<std::uint8_t> dynamicBytes;
  std::shared_ptr<std::uint8_t[]> data;
  KeepAlive keepAlive;
  Storage storage;
};

struct IrOrloTranslator::OpEntry {
  Orlo_OpConfig_t config = zeroedRecord<Orlo_OpConfig_t>();
  // What the config points to; further tensors are those of the tensor entries.
  std::string name;
  std::string packageName;
  std::optional<std::string> typeName;
  std::deque<std::string> texts;  // names and string values of parameters: a deque never moves them
  std::vector<Orlo_Param_t> params;
  std::vector<Orlo_Tensor_t> inputs;
  std::vector<Orlo_Tensor_t> outputs;
};

IrOrloTranslator::IrOrloTranslator() = default;
IrOrloTranslator::~IrOrloTranslator() = default;

const Orlo_OpConfig_t* IrOrloTranslator::getOrloOp(const std::shared_ptr<ops::IrOp>& op, bool skipStaticData,
                                                   const std::string& targetName) {
  if (op == nullptr) {
    fail<std::invalid_argument>(kGetOrloOp, "Invalid op: received null op pointer, expected a valid op");
  }
  const auto found = opConfigs.find(op->getName());
  if (found != opConfigs.end()) return &found->second->config;

  const auto entry = std::make_shared<OpEntry>();
  IrAttributes& attributes = *op->getAttributes();
  entry->name = op->getName();
  entry->packageName =
      attributes.hasAttr("packageName") ? attributes.getAttr<std::string>("packageName") : "orlo.base";
  entry->typeName = chooseOrloType(*op, targetName);
  for (const auto& [name, attribute] : attributes.entries()) {
    if (attribute.attrClass == ATTR_ORDINARY) addParam(*entry, name, attribute);
  }
  for (const auto& input : op->getInputs()) {
    const auto constant = std::dynamic_pointer_cast<IrStaticTensor>(input);
    entry->inputs.push_back(constant != nullptr ? *translateStaticTensor(constant, skipStaticData)
                                                : *translateTensor(input));
  }
  for (const auto& output : op->getOutputs()) entry->outputs.push_back(*translateTensor(output));

  Orlo_OpConfig_t& config = entry->config;
  config.version = 1;
  config.name = entry->name.c_str();
  config.packageName = entry->packageName.c_str();
  config.typeName = entry->typeName ? entry->typeName->c_str() : nullptr;
  config.numOfParams = static_cast<std::uint32_t>(entry->params.size());
  config.params = dataOrNull(entry->params);
  config.numOfInputs = static_cast<std::uint32_t>(entry->inputs.size());
  config.inputTensors = dataOrNull(entry->inputs);
  config.numOfOutputs = static_cast<std::uint32_t>(entry->outputs.size());
  config.outputTensors = dataOrNull(entry->outputs);
  opConfigs.emplace(entry->name, entry);
  return &config;
}

void IrOrloTranslator::addParam(OpEntry& entry, const std::string& name, const IrAttribute& attribute) {
  auto param = zeroedRecord<Orlo_Param_t>();
  param.paramType = attribute.attrType;
  param.name = entry.texts.emplace_back(name).c_str();
  if (attribute.attrType == ORLO_PARAMTYPE_TENSOR) {
    param.tensor = *translateStaticTensor(attribute.tensorValue, false);
  } else if (attribute.attrType == ORLO_PARAMTYPE_SCALAR) {
    const bool isText = attribute.dataType == ORLO_DATATYPE_STRING;
    const auto value =
        scalarOf(attribute, isText ? entry.texts.emplace_back(attribute.stringValue).c_str() : nullptr);
    if (!value) {
      fail<std::invalid_argument>(kGetOrloOp,
                                  "IrOrloTranslator::getOrloOp DataType unsupported for attribute: ", name);
    }
    param.scalar.dataType = attribute.dataType;
    param.scalar.value = *value;
  } else {
    fail<std::invalid_argument>(kGetOrloOp,
                                "IrOrloTranslator::getOrloOp AttrType undefined for attribute: ", name);
  }
  entry.params.push_back(param);
}

const Orlo_Tensor_t* IrOrloTranslator::translateTensor(const std::shared_ptr<IrTensor>& tensor) {
  requireTensor(tensor, "netforge::IrOrloTranslator::translateTensor");
  const auto found = tensors.find(tensor->getName());
  if (found != tensors.end() && found->second->tensor->getName() == tensor->getName()) {
    return &found->second->record;
  }
  return enterTensor(tensor, recordTypeOf(*tensor), nullptr, 0);
}

const Orlo_Tensor_t* IrOrloTranslator::translateStaticTensor(const std::shared_ptr<IrStaticTensor>& tensor,
                                                             bool skipStaticData) {
  requireTensor(tensor, "netforge::IrOrloTranslator::translateStaticTensor");
  const auto found = tensors.find(tensor->getName());
  if (found != tensors.end()) return &found->second->record;
  return enterTensor(tensor, isNullTensor(*tensor) ? kNullTensor : tensor->getRuntimeTensorType(),
                     skipStaticData ? nullptr : tensor->shareData(), tensor->getDataSize());
}

const Orlo_Tensor_t* IrOrloTranslator::enterTensor(const std::shared_ptr<IrTensor>& tensor,
                                                   std::uint32_t type,
                                                   const std::shared_ptr<std::uint8_t[]>& data,
                                                   std::uint32_t dataSize) {
  const auto entry = std::make_shared<TensorEntry>();
  entry->tensor = tensor;
  entry->name = tensor->getName();
  entry->dims = tensor->getDims();
  entry->dynamicBytes = tensor->getShape().dynamicBytes;
  entry->data = data;

  Orlo_Tensor_t& record = entry->record;
  record.version = 2;
  record.id = tensor->getId();
  record.name = entry->name.c_str();
  record.type = type;
  record.dataType = tensor->getDataType();
  record.quantizeParams.encodingDefinition = kUndefined;
  record.quantizeParams.quantizationEncoding = kUndefined;
  record.rank = tensor->getRank();
  record.dimensions = dataOrNull(entry->dims);
  record.clientBuf.data = dataSize != 0 ? data.get() : nullptr;
  record.clientBuf.dataSize = dataSize;
  record.isDynamicDimensions = dataOrNull(entry->dynamicBytes);
  const SparseParams& sparse = tensor->getSparseParams();
  record.sparseParams.layout = sparse.layout;
  if (sparse.layout == 0) {
    record.dataFormat = 1;
    record.sparseParams.numSpecifiedElements = sparse.numSpecifiedElements;
    record.sparseParams.numSparseDimensions = sparse.numSparseDimensions;
  }

  // Entered first: the encoding may refer to an index tensor whose own encoding leads back here.
  std::shared_ptr<TensorEntry>& slot = tensors[entry->name];
  if (slot != nullptr) retiredTensors.push_back(slot);
  slot = entry;
  try {
    fillQuantEncoding(*tensor, record.quantizeParams, entry->keepAlive, entry->storage);
  } catch (...) {
    retiredTensors.push_back(entry);
    tensors.erase(entry->name);
    throw;
  }
  return &record;
}

}  // namespace netforge
