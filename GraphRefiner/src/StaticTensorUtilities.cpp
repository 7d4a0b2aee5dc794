// Rewrite utilities that compute new constants.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <stdexcept>
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/Failure.h"
#include "ir/IrTensor.h"
#include "metadata/Transforms.h"

namespace netforge::graphrefiner {

namespace {

using Dims = std::vector<std::uint32_t>;

std::uint64_t product(const Dims& dims) {
  std::uint64_t result = 1;
  for (const std::uint32_t dim : dims) result *= dim;
  return result;
}

// Walks the axes of row-major dims like a counter, the last axis fastest, and keeps one offset per operand:
// the steps say how far an offset goes for one step on an axis.
template <std::size_t N>
class StridedWalk {
 public:
  StridedWalk(const Dims& walkedDims, const std::array<std::vector<std::uint64_t>, N>& walkedSteps)
      : dims(walkedDims), steps(walkedSteps), position(walkedDims.size(), 0) {}

  const std::array<std::uint64_t, N>& offsets() const { return current; }

  void advance() {
    for (std::size_t axis = dims.size(); axis-- > 0;) {
      if (++position[axis] < dims[axis]) {
        for (std::size_t i = 0; i < N; ++i) current[i] += steps[i][axis];
        return;
      }
      for (std::size_t i = 0; i < N; ++i) current[i] -= steps[i][axis] * (dims[axis] - 1);
      position[axis] = 0;
    }
  }

 private:
  const Dims& dims;
  std::array<std::vector<std::uint64_t>, N> steps;
  std::vector<std::uint32_t> position;
  std::array<std::uint64_t, N> current{};
};

// How far one step on each output axis goes in an operand: 0 where the operand has size 1 or lacks the axis.
std::vector<std::uint64_t> broadcastSteps(const Dims& dims, std::size_t outRank) {
  std::vector<std::uint64_t> steps(outRank, 0);
  std::uint64_t stride = 1;
  for (std::size_t back = 1; back <= std::min(dims.size(), outRank); ++back) {
    const std::uint32_t dim = dims[dims.size() - back];
    if (dim != 1) steps[outRank - back] = stride;
    stride *= dim;
  }
  return steps;
}

std::uint32_t dimFromTheEnd(const Dims& dims, std::size_t back) {
  return back <= dims.size() ? dims[dims.size() - back] : 1;
}

void checkBroadcast(const Dims& dimsA, const Dims& dimsB, const Dims& dimsOut) {
  const std::size_t rank = std::max({dimsA.size(), dimsB.size(), dimsOut.size()});
  for (std::size_t back = 1; back <= rank; ++back) {
    const std::uint32_t a = dimFromTheEnd(dimsA, back);
    const std::uint32_t b = dimFromTheEnd(dimsB, back);
    if (a != b && a != 1 && b != 1) throw std::runtime_error("Error in the input dimensions");
    if (dimFromTheEnd(dimsOut, back) != std::max(a, b))
      throw std::runtime_error("Error in the output dimensions");
  }
}

template <class Operation>
void computeBroadcast(const Dims& dimsA, const Dims& dimsB, const Dims& dimsOut, const float* a,
                      const float* b, float* out, Operation operation) {
  StridedWalk<2> walk(dimsOut,
                      {broadcastSteps(dimsA, dimsOut.size()), broadcastSteps(dimsB, dimsOut.size())});
  const std::uint64_t count = product(dimsOut);
  for (std::uint64_t i = 0; i < count; ++i, walk.advance())
    out[i] = operation(a[walk.offsets()[0]], b[walk.offsets()[1]]);
}

// One kernel per element width: the bits are moved, whatever they mean.
template <class Word>
void transposeElements(const std::uint8_t* source, const Dims& dims, const Permutation& perm,
                       const Dims& outDims, std::uint8_t* target) {
  std::vector<std::uint64_t> strides(dims.size(), 1);
  for (std::size_t axis = dims.size(); axis-- > 1;) strides[axis - 1] = strides[axis] * dims[axis];
  std::vector<std::uint64_t> steps;
  for (const std::uint32_t axis : perm) steps.push_back(strides[axis]);
  StridedWalk<1> walk(outDims, {steps});
  const std::uint64_t count = product(outDims);
  for (std::uint64_t i = 0; i < count; ++i, walk.advance()) {
    std::memcpy(target + i * sizeof(Word), source + walk.offsets()[0] * sizeof(Word), sizeof(Word));
  }
}

std::uint32_t transposableWidth(DataType type) {
  switch (type) {
    case ORLO_DATATYPE_INT_8:
    case ORLO_DATATYPE_UINT_8:
    case ORLO_DATATYPE_SFIXED_POINT_8:
    case ORLO_DATATYPE_UFIXED_POINT_8:
    case ORLO_DATATYPE_BOOL_8:
      return 1;
    case ORLO_DATATYPE_INT_16:
    case ORLO_DATATYPE_UINT_16:
    case ORLO_DATATYPE_FLOAT_16:
    case ORLO_DATATYPE_BFLOAT_16:
    case ORLO_DATATYPE_SFIXED_POINT_16:
    case ORLO_DATATYPE_UFIXED_POINT_16:
      return 2;
    case ORLO_DATATYPE_INT_32:
    case ORLO_DATATYPE_UINT_32:
    case ORLO_DATATYPE_FLOAT_32:
    case ORLO_DATATYPE_SFIXED_POINT_32:
    case ORLO_DATATYPE_UFIXED_POINT_32:
      return 4;
    default:
      return 0;
  }
}

std::unique_ptr<std::uint8_t[]> dispatchTransposeTensorRefImpl(IrStaticTensor& tensor,
                                                               const Permutation& perm, const Dims& outDims) {
  constexpr const char* kFunction = "dispatchTransposeTensorRefImpl";
  const std::uint32_t width = transposableWidth(tensor.getDataType());
  if (width == 0) fail<std::runtime_error>(kFunction, "Unsupported data type");
  const std::uint8_t* source = tensor.getData();
  const std::uint64_t bytes = product(outDims) * width;
  if (tensor.getDataSize() < bytes || (source == nullptr && bytes != 0)) {
    fail<std::runtime_error>(kFunction, "Tensor ", tensor.getName(), " has less data than its dims ask for");
  }
  auto buffer = std::make_unique<std::uint8_t[]>(tensor.getDataSize());
  switch (width) {
    case 1:
      transposeElements<std::uint8_t>(source, tensor.getDims(), perm, outDims, buffer.get());
      break;
    case 2:
      transposeElements<std::uint16_t>(source, tensor.getDims(), perm, outDims, buffer.get());
      break;
    default:
      transposeElements<std::uint32_t>(source, tensor.getDims(), perm, outDims, buffer.get());
  }
  return buffer;
}

std::string resultName(const std::string& name, const StaticTensorPtr& tensor) {
  return name.empty() ? tensor->getName() + "_tensorOut_0" : name;
}

// A constant like `tensor` but for name, dims and bytes. The bytes are the result's; null leaves it without.
StaticTensorPtr makeLike(const StaticTensorPtr& tensor, const std::string& name, const Dims& dims,
                         std::unique_ptr<std::uint8_t[]> data, std::uint32_t dataSize,
                         const std::vector<std::uint32_t>& explicitPermuteOrder) {
  auto result = std::make_shared<IrStaticTensor>(
      resultName(name, tensor), dims, dataSize, nullptr, tensor->getDataType(), tensor->getSrcDataType(),
      tensor->isQuantizable(), tensor->getQuantInfo(), tensor->getAxisFormat(), tensor->getSrcAxisFormat(),
      false, tensor->getTensorType(), tensor->isUpdateable(), explicitPermuteOrder,
      tensor->getTransformManager());
  if (data) result->updateData(data.release(), dataSize, true);
  return result;
}

const float* floatData(const StaticTensorPtr& tensor, const char* function) {
  const std::uint8_t* data = tensor->getData();
  if (data == nullptr || tensor->getDataSize() < product(tensor->getDims()) * sizeof(float)) {
    fail<std::runtime_error>(function, "Tensor ", tensor->getName(), " does not hold 32-bit floats");
  }
  return reinterpret_cast<const float*>(data);
}

StaticTensorPtr combine(std::uint32_t operation, const StaticTensorPtr& a, const StaticTensorPtr& b,
                        const std::string& name, const char* function) {
  const Dims& dims = a->getDims();
  const float* dataA = floatData(a, function);
  const float* dataB = floatData(b, function);
  const auto bytes = static_cast<std::uint32_t>(product(dims) * sizeof(float));
  auto buffer = std::make_unique<std::uint8_t[]>(bytes);
  broadcastBinaryFloat(operation, dims, b->getDims(), dims, dataA, dataB,
                       reinterpret_cast<float*>(buffer.get()));
  return makeLike(a, name, dims, std::move(buffer), bytes, a->getExplicitPermuteOrder());
}

}  // namespace

bool isTransposableType(DataType type) {
  return transposableWidth(type) != 0;
}

void broadcastBinaryFloat(std::uint32_t operation, const std::vector<std::uint32_t>& dimsA,
                          const std::vector<std::uint32_t>& dimsB, const std::vector<std::uint32_t>& dimsOut,
                          const float* a, const float* b, float* out) {
  checkBroadcast(dimsA, dimsB, dimsOut);
  const auto compute = [&](auto function) { computeBroadcast(dimsA, dimsB, dimsOut, a, b, out, function); };
  switch (operation) {
    case 0:
      return compute([](float x, float y) { return x + y; });
    case 2:
      return compute([](float x, float y) { return x / y; });
    case 13:
      return compute([](float x, float y) { return x * y; });
    case 16:
      return compute([](float x, float y) { return std::pow(x, y); });
    case 18:
      return compute([](float x, float y) { return x - y; });
    default:
      throw std::runtime_error("Unsupported ORLO ElementWise operation");
  }
}

StaticTensorPtr addStaticTensors(const StaticTensorPtr& a, const StaticTensorPtr& b,
                                 const std::string& name) {
  return combine(0, a, b, name, "addStaticTensors");
}

StaticTensorPtr multiplyStaticTensors(const StaticTensorPtr& a, const StaticTensorPtr& b,
                                      const std::string& name) {
  return combine(13, a, b, name, "multiplyStaticTensors");
}

StaticTensorPtr reshapeStaticTensor(const StaticTensorPtr& tensor, const std::vector<std::uint32_t>& dims,
                                    const std::string& name) {
  const std::uint32_t size = tensor->getDataSize();
  std::unique_ptr<std::uint8_t[]> bytes;
  if (const std::uint8_t* data = tensor->getData()) {
    bytes = std::make_unique<std::uint8_t[]>(size);
    std::copy(data, data + size, bytes.get());
  }
  const auto manager = tensor->getOrCreateTransformManager();
  manager->addTransform(std::make_shared<ReshapeTransform>(dims));
  return makeLike(tensor, name, dims, std::move(bytes), size, {});
}

StaticTensorPtr transposeStaticTensor(const StaticTensorPtr& tensor, const Permutation& perm,
                                      const std::string& name) {
  const Dims& dims = tensor->getDims();
  Dims outDims;
  for (const std::uint32_t axis : perm) {
    if (axis >= dims.size()) break;
    outDims.push_back(dims[axis]);
  }
  if (outDims.size() != dims.size() || perm.size() != dims.size()) {
    fail<std::runtime_error>("transposeStaticTensor", "Invalid permutation ", perm, " for tensor ",
                             tensor->getName(), " of rank ", dims.size());
  }
  auto bytes = dispatchTransposeTensorRefImpl(*tensor, perm, outDims);
  const auto manager = tensor->getOrCreateTransformManager();
  manager->addTransform(std::make_shared<TransposeTransform>(perm));
  return makeLike(tensor, name, outDims, std::move(bytes), tensor->getDataSize(), {});
}

}  // namespace netforge::graphrefiner
