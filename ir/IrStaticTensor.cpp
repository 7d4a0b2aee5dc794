#include <algorithm>
#include <cstring>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <vector>

#include "ir/Failure.h"
#include "ir/IrTensor.h"
#include "metadata/Transforms.h"

namespace netforge {

namespace {

using Buffer = std::unique_ptr<std::uint8_t[]>;

// Bytes left indeterminate, so that a large buffer costs nothing before it is filled.
Buffer makeBuffer(std::uint64_t size) {
  return Buffer(new std::uint8_t[size]);  // NOLINT(modernize-make-unique): that would write zeros
}

// Data without dims is a slip of the builder: hands `dims` on unless it is that.
const std::vector<std::uint32_t>& checkedDims(const std::string& name, const std::vector<std::uint32_t>& dims,
                                              std::uint32_t size, const void* source) {
  if (dims.empty() && source != nullptr && size != 0) {
    fail<std::invalid_argument>("netforge::IrStaticTensor::IrStaticTensor", "IrStaticTensor (", name,
                                ") has empty dims but non-null data with dataSize=", size,
                                ". Must specify correct dims!");
  }
  return dims;
}

// `bytes` holds 32-bit floats; the result holds as many halves.
Buffer convertToHalf(const Buffer& bytes, std::uint64_t count, std::uint64_t capacity) {
  Buffer halves = makeBuffer(capacity);
  for (std::uint64_t i = 0; i < count; ++i) {
    float value;
    std::memcpy(&value, bytes.get() + i * sizeof value, sizeof value);
    const std::uint16_t half = floatToHalf(value);
    std::memcpy(halves.get() + i * sizeof half, &half, sizeof half);
  }
  return halves;
}

}  // namespace

IrStaticTensor::IrStaticTensor(const std::string& tensorName, const std::vector<std::uint32_t>& dims,
                               std::uint32_t size, const void* source, DataType type, DataType srcType,
                               bool mayBeQuantized, const QuantInfo& quantRecord, AxisFormat format,
                               AxisFormat srcFormat, bool isBorrowed, TensorType role, bool mayBeUpdated,
                               const std::vector<std::uint32_t>& permuteOrder,
                               const std::shared_ptr<TransformManager>& manager)
    : IrTensor(tensorName, dims, type, srcType, mayBeQuantized, quantRecord, format, srcFormat, role,
               mayBeUpdated, permuteOrder),
      transformManager(manager),
      dataSize(size),
      dataIsBorrowed(isBorrowed) {
  if (isBorrowed) {
    auto* bytes = const_cast<std::uint8_t*>(static_cast<const std::uint8_t*>(source));
    data = std::shared_ptr<std::uint8_t[]>(std::shared_ptr<std::uint8_t[]>(), bytes);
  } else if (source != nullptr && size != 0) {
    copyIn(source);
  }
}

IrStaticTensor::IrStaticTensor(const std::string& tensorName, const std::vector<std::uint32_t>& dims,
                               std::uint32_t size, const void* source, DataType type, AxisFormat format,
                               AxisFormat srcFormat, bool isBorrowed, TensorType role,
                               const std::vector<std::uint32_t>& permuteOrder)
    : IrStaticTensor(tensorName, checkedDims(tensorName, dims, size, source), size, source, type, type,
                     isFloatDataType(type), QuantInfo(), format, srcFormat, isBorrowed, role, false,
                     permuteOrder, nullptr) {}

IrStaticTensor::IrStaticTensor(const std::string& tensorName, const std::vector<std::uint32_t>& values)
    : IrStaticTensor(tensorName, {static_cast<std::uint32_t>(values.size())},
                     static_cast<std::uint32_t>(values.size() * sizeof(std::uint32_t)), values.data(),
                     ORLO_DATATYPE_UINT_32, AxisFormat::NOT_YET_DEFINED, AxisFormat::NOT_YET_DEFINED, false,
                     TensorType::Static, {}) {}

IrStaticTensor::~IrStaticTensor() = default;

bool IrStaticTensor::isStatic() const {
  return true;
}

std::uint8_t* IrStaticTensor::getData() {
  if (!dataLoaded) load();
  return data.get();
}

std::shared_ptr<std::uint8_t[]> IrStaticTensor::shareData() {
  if (!dataLoaded) load();
  return data;
}

void IrStaticTensor::load() {
  constexpr const char* kFunction = "netforge::IrStaticTensor::getData";
  const ExternalDataRef& ref = getExternalData();
  std::ifstream file(ref.path, std::ios::binary);
  if (!file) fail<std::runtime_error>(kFunction, "Failed to open the file: ", ref.path);

  constexpr auto kLargest = static_cast<std::uint64_t>(std::numeric_limits<std::streamoff>::max());
  file.seekg(0, std::ios::end);
  const std::streamoff fileSize = file.tellg();
  if (fileSize < 0 || ref.offset > kLargest || !file.seekg(static_cast<std::streamoff>(ref.offset))) {
    fail<std::runtime_error>(kFunction, "Failed to seek to offset in the file.");
  }
  // Before anything is allocated: a damaged length must not ask for all memory.
  const auto available = static_cast<std::uint64_t>(fileSize);
  if (ref.offset > available || ref.length > available - ref.offset) {
    fail<std::runtime_error>(kFunction, "Failed to read the file.");
  }

  // A range in the file that is shorter than the tensor leaves zeros, never bytes beyond the buffer.
  std::uint64_t filled = ref.length;
  std::uint64_t capacity = std::max<std::uint64_t>(filled, dataSize);
  Buffer buffer = makeBuffer(capacity);
  if (!file.read(reinterpret_cast<char*>(buffer.get()), static_cast<std::streamsize>(ref.length))) {
    fail<std::runtime_error>(kFunction, "Failed to read the file.");
  }
  if (getDataType() == ORLO_DATATYPE_FLOAT_16) {
    const std::uint64_t count = filled / sizeof(float);
    filled = count * sizeof(std::uint16_t);
    capacity = std::max<std::uint64_t>(filled, dataSize);
    buffer = convertToHalf(buffer, count, capacity);
  }
  std::memset(buffer.get() + filled, 0, capacity - filled);

  data = std::move(buffer);
  dataIsBorrowed = false;
  dataLoaded = true;
}

std::uint32_t IrStaticTensor::getDataSize() const {
  return dataSize;
}

std::uint32_t IrStaticTensor::getElement(std::uint64_t index) const {
  std::uint32_t word;
  if (index >= elements() || data == nullptr || (index + 1) * sizeof word > dataSize) {
    throw std::out_of_range("Index out of bounds for IrStaticTensor");
  }
  std::memcpy(&word, data.get() + index * sizeof word, sizeof word);
  return word;
}

void IrStaticTensor::updateData(const void* source, std::uint32_t size, bool takeOwnership) {
  constexpr const char* kFunction = "netforge::IrStaticTensor::updateData";
  if (size != dataSize) {
    fail<std::invalid_argument>(kFunction, "Data sizes do not match; existing data size: ", dataSize,
                                " provided data size: ", size);
  }
  if (source == nullptr && size != 0) {
    fail<std::invalid_argument>(kFunction, "No data provided for tensor ", getName());
  }
  if (takeOwnership) {
    auto* buffer = const_cast<std::uint8_t*>(static_cast<const std::uint8_t*>(source));
    if (buffer != data.get() || dataIsBorrowed) data.reset(buffer);
    dataIsBorrowed = false;
  } else {
    copyIn(source);
  }
  dataLoaded = true;
}

void IrStaticTensor::copyIn(const void* source) {
  if (dataIsBorrowed || data == nullptr) {
    data = dataSize != 0 ? makeBuffer(dataSize) : nullptr;
    dataIsBorrowed = false;
  }
  if (dataSize != 0) std::memmove(data.get(), source, dataSize);
}

bool IrStaticTensor::isDataBorrowed() const {
  return dataIsBorrowed;
}

bool IrStaticTensor::isDataLoaded() const {
  return dataLoaded;
}

const ExternalDataRef& IrStaticTensor::getExternalData() const {
  static const ExternalDataRef none;
  return externalData ? *externalData : none;
}

void IrStaticTensor::setExternalData(const ExternalDataRef& ref) {
  externalData = std::make_unique<ExternalDataRef>(ref);
  data.reset();
  dataLoaded = false;
}

std::shared_ptr<TransformManager> IrStaticTensor::getTransformManager() const {
  return transformManager;
}

void IrStaticTensor::setTransformManager(const std::shared_ptr<TransformManager>& manager) {
  transformManager = manager;
}

std::shared_ptr<TransformManager> IrStaticTensor::getOrCreateTransformManager() {
  if (!transformManager) transformManager = std::make_shared<TransformManager>();
  return transformManager;
}

bool IrStaticTensor::dataEquals(const IrStaticTensor& other) const {
  if (dataSize != other.dataSize) return false;
  if (this == &other) return true;
  if (!dataLoaded && !other.dataLoaded) {
    const ExternalDataRef& mine = getExternalData();
    const ExternalDataRef& theirs = other.getExternalData();
    if (mine.path == theirs.path && mine.offset == theirs.offset && mine.length == theirs.length) return true;
  }
  // Loading on first use is no change of the value, so it is allowed on a constant tensor.
  const std::uint8_t* myBytes = const_cast<IrStaticTensor*>(this)->getData();
  const std::uint8_t* theirBytes = const_cast<IrStaticTensor&>(other).getData();
  if (myBytes == theirBytes || dataSize == 0) return true;
  if (myBytes == nullptr || theirBytes == nullptr) return false;
  return std::memcmp(myBytes, theirBytes, dataSize) == 0;
}

}  // namespace netforge
