#include "ir/IrTensor.h"

#include <algorithm>
#include <atomic>
#include <numeric>
#include <stdexcept>

#include "ir/Failure.h"
#include "ir/IrOp.h"

namespace netforge {

namespace {

std::uint32_t drawId() {
  static std::atomic<std::uint32_t> next{0};
  return next.fetch_add(1, std::memory_order_relaxed);
}

const QuantInfo& defaultQuantInfo() {
  static const QuantInfo record;
  return record;
}

// What the runtime gets for a tensor type that it has no number for.
constexpr std::uint32_t kUndefinedRuntimeType = 0x7FFFFFFF;

}  // namespace

IrTensor::IrTensor(const std::string& tensorName, const std::vector<std::uint32_t>& dims, DataType type,
                   DataType srcType, bool mayBeQuantized, const QuantInfo& record, AxisFormat format,
                   AxisFormat srcFormat, TensorType role, bool mayBeUpdated,
                   const std::vector<std::uint32_t>& permuteOrder)
    : name(tensorName),
      shape(dims),
      explicitPermuteOrder(permuteOrder),
      id(drawId()),
      dataType(type),
      srcDataType(srcType),
      axisFormat(format),
      srcAxisFormat(srcFormat),
      tensorType(role),
      quantizable(mayBeQuantized),
      updateable(mayBeUpdated) {
  if (record.encoding == QuantEncodingKind::Undefined) {
    storeQuantInfo(record);
  } else {
    setQInfo(type, record);
  }
}

IrTensor::IrTensor(const std::string& tensorName, const std::vector<std::uint32_t>& dims, DataType type,
                   DataType srcType, bool mayBeQuantized, const QuantInfo& record, AxisFormat format,
                   AxisFormat srcFormat, TensorType role, const std::vector<std::uint32_t>& permuteOrder)
    : IrTensor(tensorName, dims, type, srcType, mayBeQuantized, record, format, srcFormat, role, false,
               permuteOrder) {}

IrTensor::IrTensor(const std::string& tensorName, const std::vector<std::uint32_t>& dims, DataType type,
                   AxisFormat format, AxisFormat srcFormat, TensorType role,
                   const std::vector<std::uint32_t>& permuteOrder)
    : IrTensor(tensorName, dims, type, type, isFloatDataType(type), defaultQuantInfo(), format, srcFormat,
               role, false, permuteOrder) {}

IrTensor::IrTensor(const std::string& tensorName, const std::vector<std::uint32_t>& dims, DataType type,
                   AxisFormat format, TensorType role, const std::vector<std::uint32_t>& permuteOrder)
    : IrTensor(tensorName, dims, type, format, AxisFormat::NOT_YET_DEFINED, role, permuteOrder) {}

IrTensor::IrTensor(const std::string& tensorName, const IrTensorShape& fullShape,
                   const std::shared_ptr<ops::IrOp>& op, DataType type, AxisFormat format,
                   AxisFormat srcFormat, TensorType role)
    : name(tensorName),
      producer(op),
      shape(fullShape),
      id(drawId()),
      dataType(type),
      srcDataType(type),
      axisFormat(format),
      srcAxisFormat(srcFormat),
      tensorType(role),
      quantizable(isFloatDataType(type)) {}

IrTensor::~IrTensor() = default;

bool IrTensor::isStatic() const {
  return false;
}

const std::string& IrTensor::getName() const {
  return name;
}

void IrTensor::setName(const std::string& newName) {
  name = newName;
  id = drawId();
}

std::uint32_t IrTensor::getId() const {
  return id;
}

const IrTensorShape& IrTensor::getShape() const {
  return shape;
}

void IrTensor::setShape(const IrTensorShape& newShape) {
  shape = newShape;
}

const std::vector<std::uint32_t>& IrTensor::getDims() const {
  return shape.dims;
}

std::uint32_t IrTensor::getRank() const {
  return shape.rank();
}

DataType IrTensor::getDataType() const {
  return dataType;
}

void IrTensor::setDataType(DataType type) {
  dataType = type;
}

DataType IrTensor::getSrcDataType() const {
  return srcDataType;
}

void IrTensor::setSrcDataType(DataType type) {
  srcDataType = type;
}

AxisFormat IrTensor::getAxisFormat() const {
  return axisFormat;
}

void IrTensor::setAxisFormat(AxisFormat format) {
  axisFormat = format;
}

AxisFormat IrTensor::getSrcAxisFormat() const {
  return srcAxisFormat;
}

void IrTensor::setSrcAxisFormat(AxisFormat format) {
  srcAxisFormat = format;
}

TensorType IrTensor::getTensorType() const {
  return tensorType;
}

void IrTensor::setTensorType(TensorType type) {
  tensorType = type;
}

std::uint32_t IrTensor::getRuntimeTensorType() const {
  switch (tensorType) {
    case TensorType::GraphInput:
      return updateable ? 8 : 0;
    case TensorType::GraphOutput:
      return updateable ? 9 : 1;
    case TensorType::GraphInputOutput:
      return updateable ? 10 : 2;
    case TensorType::Native:
      return updateable ? 7 : 3;
    case TensorType::Static:
      return updateable ? 6 : 4;
    case TensorType::Null:
    case TensorType::OptionalInput:
    case TensorType::OptionalOutput:
    case TensorType::OptionalInputOutput:
      return updateable ? kUndefinedRuntimeType : static_cast<std::uint32_t>(tensorType);
    case TensorType::StaticOwnNumbering:
      return updateable ? kUndefinedRuntimeType : 4;
  }
  return kUndefinedRuntimeType;
}

bool IrTensor::isGraphInput() const {
  return tensorType == TensorType::GraphInput;
}

bool IrTensor::isGraphOutput() const {
  return tensorType == TensorType::GraphOutput;
}

bool IrTensor::isOptional() const {
  return tensorType == TensorType::OptionalInput || tensorType == TensorType::OptionalOutput ||
         tensorType == TensorType::OptionalInputOutput;
}

bool IrTensor::isQuantizable() const {
  return quantizable;
}

void IrTensor::setQuantizable(bool flag) {
  if (flag && !isFloatDataType(dataType)) {
    fail<std::invalid_argument>(
        "netforge::IrTensor::setQuantizable", "Tensor: ", name,
        " must be of type float to be quantizable, but it's: ", getDataTypeName(dataType));
  }
  quantizable = flag;
  if (!flag) undefineEncoding();
}

bool IrTensor::isQuantized() const {
  return isQuantizedType(dataType) && getQuantInfo().encoding != QuantEncodingKind::Undefined;
}

const QuantInfo& IrTensor::getQuantInfo() const {
  return quantInfo ? *quantInfo : defaultQuantInfo();
}

void IrTensor::setQInfo(DataType type, const QuantInfo& record) {
  const bool isDefined = record.encoding != QuantEncodingKind::Undefined;
  if (quantizable && !isDefined && isQuantizedType(type)) {
    fail<std::invalid_argument>(
        "netforge::IrTensor::setQInfo", "Must set valid quantization info for tensor ", name,
        " with quantized data type ", type, ", but got undefined quantization encoding.");
  }
  if (!quantizable || !isDefined) {
    fail<std::invalid_argument>("netforge::IrTensor::setQInfo",
                                "Can't set quantization data with data type: ", type, " for: ", name,
                                " with quantizable flag ", quantizable);
  }
  storeQuantInfo(record);
  dataType = type;
}

void IrTensor::setFloatQInfo(DataType type, const QuantInfo& record) {
  QuantInfo copy(record);  // may be the tensor's own record, which changes next
  quantizable = false;
  undefineEncoding();
  if (!isFloatDataType(type)) {
    fail<std::invalid_argument>("netforge::IrTensor::setFloatQInfo",
                                "Datatype provided to setFloatQInfo should be float but got ", type);
  }
  copy.encoding = QuantEncodingKind::Undefined;
  copy.scaleOffset.isFixedPoint = false;
  copy.isOverridden = true;
  storeQuantInfo(copy);
  dataType = type;
}

void IrTensor::storeQuantInfo(const QuantInfo& record) {
  if (quantInfo) {
    *quantInfo = record;
  } else if (record != defaultQuantInfo()) {
    quantInfo = std::make_unique<QuantInfo>(record);
  }
}

void IrTensor::undefineEncoding() {
  if (quantInfo) quantInfo->encoding = QuantEncodingKind::Undefined;
}

const SparseParams& IrTensor::getSparseParams() const {
  return sparseParams;
}

void IrTensor::setSparseParams(const SparseParams& params) {
  sparseParams = params;
}

bool IrTensor::isUpdateable() const {
  return updateable;
}

void IrTensor::setUpdateable(bool flag) {
  updateable = flag;
}

std::shared_ptr<ops::IrOp> IrTensor::getProducer() const {
  return producer;
}

void IrTensor::setProducer(const std::shared_ptr<ops::IrOp>& op) {
  producer = op;
}

void IrTensor::clearProducer() {
  producer.reset();
}

const IrTensor::ConsumerSet& IrTensor::getConsumers() const {
  return consumers;
}

void IrTensor::addConsumer(const std::shared_ptr<ops::IrOp>& op) {
  consumers.insert(op);
}

void IrTensor::removeConsumer(const std::shared_ptr<ops::IrOp>& op) {
  const auto place = consumers.find(op);
  if (place == consumers.end()) {
    fail<std::invalid_argument>("netforge::IrTensor::removeConsumer", "Op ",
                                op ? op->getName() : std::string(), " is not a consumer of tensor ", name);
  }
  consumers.erase(place);
}

void IrTensor::clearConsumers() {
  consumers.clear();
}

std::uint64_t IrTensor::elements() const {
  if (shape.hasDynamicAxes()) {
    fail<std::invalid_argument>("netforge::IrTensor::elements",
                                "Cannot get number of elements for tensor named ", name,
                                " with dynamic shape ", shape);
  }
  if (shape.dims.empty()) return 0;
  std::uint32_t product = 1;
  for (std::uint32_t dim : shape.dims) product *= dim;
  return product;
}

const std::vector<std::uint32_t>& IrTensor::getExplicitPermuteOrder() const {
  return explicitPermuteOrder;
}

void IrTensor::setExplicitPermuteOrder(const std::vector<std::uint32_t>& order) {
  explicitPermuteOrder = order;
}

std::vector<std::uint32_t> IrTensor::getPermuteOrder() const {
  if (!explicitPermuteOrder.empty()) return explicitPermuteOrder;
  if (axisFormat == AxisFormat::NOT_YET_DEFINED || srcAxisFormat == AxisFormat::NOT_YET_DEFINED) return {};

  if (axisFormat == AxisFormat::NONTRIVIAL || axisFormat == srcAxisFormat) {
    std::vector<std::uint32_t> identity(getRank());
    std::iota(identity.begin(), identity.end(), 0u);
    return identity;
  }

  const bool lettersNameAxes = srcAxisFormat != AxisFormat::ANY && srcAxisFormat != AxisFormat::NONTRIVIAL &&
                               axisFormat != AxisFormat::ANY;
  if (lettersNameAxes) {
    const std::string present = axisFormatToString(axisFormat);
    const std::string source = axisFormatToString(srcAxisFormat);
    if (std::is_permutation(present.begin(), present.end(), source.begin(), source.end())) {
      if (getRank() > source.size()) return {};
      std::vector<std::uint32_t> order;
      for (std::uint32_t i = 0; i < getRank(); ++i) {
        order.push_back(static_cast<std::uint32_t>(present.find(source[i])));
      }
      return order;
    }
  }

  // Spatial layouts of other ranks that were laid out over two spatial axes.
  if (srcAxisFormat == AxisFormat::NCF || srcAxisFormat == AxisFormat::NCDHW) {
    if (axisFormat == AxisFormat::NCHW) return {0, 1, 2, 3};
    if (axisFormat == AxisFormat::NHWC) return {0, 3, 1, 2};
  }
  return {};
}

bool IrTensor::operator==(const IrTensor& other) const {
  if (name != other.name || dataType != other.dataType || srcDataType != other.srcDataType ||
      shape != other.shape || quantizable != other.quantizable || updateable != other.updateable ||
      getQuantInfo() != other.getQuantInfo() || sparseParams.layout != other.sparseParams.layout ||
      isStatic() != other.isStatic()) {
    return false;
  }
  if (sparseParams.layout == 0 &&
      (sparseParams.numSpecifiedElements != other.sparseParams.numSpecifiedElements ||
       sparseParams.numSparseDimensions != other.sparseParams.numSparseDimensions)) {
    return false;
  }
  if (!isStatic()) return true;
  return static_cast<const IrStaticTensor&>(*this).dataEquals(static_cast<const IrStaticTensor&>(other));
}

bool IrTensor::operator!=(const IrTensor& other) const {
  return !(*this == other);
}

}  // namespace netforge
