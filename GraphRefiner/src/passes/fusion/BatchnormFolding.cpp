#include "GraphRefiner/src/passes/fusion/BatchnormFolding.h"

#include <map>
#include <utility>
#include "GraphRefiner/src/RawData.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

namespace {

using Dims = std::vector<std::uint32_t>;

// Channel-first weights to (spatial..., input, output channels), and back.
const std::pair<Permutation, Permutation>* channelFirstOrders(const std::string& opType) {
  static const std::map<std::string, std::pair<Permutation, Permutation>> orders = {
      {"Conv2d", {{2, 3, 1, 0}, {3, 2, 0, 1}}},
      {"DepthWiseConv2d", {{2, 3, 1, 0}, {3, 2, 0, 1}}},
      {"Conv3d", {{2, 3, 4, 1, 0}, {4, 3, 0, 1, 2}}},
      {"TransposeConv2d", {{2, 3, 0, 1}, {2, 3, 0, 1}}},
      {"TransposeConv3d", {{2, 3, 4, 0, 1}, {3, 4, 0, 1, 2}}},
  };
  const auto entry = orders.find(opType);
  return entry == orders.end() ? nullptr : &entry->second;
}

std::uint32_t groupsOf(const std::shared_ptr<ops::IrOp>& op) {
  const auto& attributes = op->getAttributes()->entries();
  const auto entry = attributes.find("group");
  return entry == attributes.end() ? 1 : static_cast<std::uint32_t>(entry->second.intValue);
}

}  // namespace

bool isQuantizedOrOverridden(const std::shared_ptr<IrTensor>& tensor) {
  return isQuantizedType(tensor->getDataType()) || tensor->getQuantInfo().isOverridden;
}

bool isFloatConstant(const StaticTensorPtr& tensor) {
  if (!tensor || tensor->isUpdateable() || tensor->getDataType() != ORLO_DATATYPE_FLOAT_32 ||
      tensor->getShape().hasDynamicAxes()) {
    return false;
  }
  const std::uint64_t count = tensor->elements();
  return count != 0 && tensor->getDataSize() == count * sizeof(float);
}

bool isPerChannel(const StaticTensorPtr& tensor, std::uint64_t channels) {
  const std::uint64_t count = tensor->elements();
  return count == 1 || (count == channels && tensor->getDims().back() == channels);
}

ConvWeights readConvWeights(const std::shared_ptr<ops::IrOp>& op, bool isSpatialLast) {
  ConvWeights weights;
  const auto tensor = std::dynamic_pointer_cast<IrStaticTensor>(op->getInput(1));
  const auto* orders = channelFirstOrders(op->getType());
  if (!tensor || !orders || tensor->getRank() != orders->first.size()) return weights;
  if (isSpatialLast) {
    weights.toIr = orders->first;
    weights.fromIr = orders->second;
  }
  const auto irDim = [&](std::size_t axis) {
    return tensor->getDims()[isSpatialLast ? weights.toIr[axis] : axis];
  };
  const std::size_t rank = tensor->getRank();
  weights.channels = irDim(rank - 1);
  weights.isTransposed = op->getType() == "TransposeConv2d" || op->getType() == "TransposeConv3d";
  if (weights.isTransposed) {
    weights.group = groupsOf(op);
    if (weights.group == 0 || irDim(rank - 2) % weights.group != 0) return weights;
  }
  weights.tensor = tensor;
  return weights;
}

StaticTensorPtr multiplyGroupedWeights(const StaticTensorPtr& weights, const StaticTensorPtr& gamma,
                                       const std::vector<std::uint32_t>& spatialDims,
                                       std::uint32_t inChannels, std::uint32_t outChannels,
                                       std::uint32_t group, const std::string& name) {
  const std::uint32_t size = weights->getDataSize();
  std::vector<float> products(size / sizeof(float), 0.0f);
  if (spatialDims.size() == 2 || spatialDims.size() == 3) {
    std::uint64_t positions = 1;
    for (const std::uint32_t dim : spatialDims) positions *= dim;
    const std::uint64_t inPerGroup = inChannels / group;
    const std::uint8_t* source = weights->getData();
    const std::uint8_t* factors = gamma->getData();
    const bool isScalar = gamma->elements() == 1;
    for (std::uint64_t p = 0; p < positions; ++p) {
      for (std::uint64_t channel = 0; channel < group * inPerGroup; ++channel) {
        for (std::uint64_t o = 0; o < outChannels; ++o) {
          const std::uint64_t index = (p * inChannels + channel) * outChannels + o;
          products[index] = loadElement<float>(source, index) * loadElement<float>(factors, isScalar ? 0 : o);
        }
      }
    }
  }
  return std::make_shared<IrStaticTensor>(
      name, weights->getDims(), size, products.data(), weights->getDataType(), weights->getSrcDataType(),
      weights->isQuantizable(), weights->getQuantInfo(), weights->getAxisFormat(),
      weights->getSrcAxisFormat(), false, weights->getTensorType(), weights->isUpdateable(),
      weights->getExplicitPermuteOrder(), weights->getTransformManager());
}

StaticTensorPtr scaleConvWeights(const ConvWeights& weights, const StaticTensorPtr& gamma) {
  const StaticTensorPtr& tensor = weights.tensor;
  if (weights.toIr.empty()) return multiplyStaticTensors(tensor, gamma, tensor->getName() + "_fused");
  StaticTensorPtr inIr = transposeStaticTensor(tensor, weights.toIr, tensor->getName() + "_to_ir");
  const std::string name = inIr->getName() + "_fused";
  StaticTensorPtr scaled;
  if (weights.isTransposed) {
    const Dims& dims = inIr->getDims();
    scaled = multiplyGroupedWeights(inIr, gamma, Dims(dims.begin(), dims.end() - 2), dims[dims.size() - 2],
                                    dims.back(), weights.group, name);
  } else {
    scaled = multiplyStaticTensors(inIr, gamma, name);
  }
  inIr.reset();  // large, and not needed while the next one is made
  return transposeStaticTensor(scaled, weights.fromIr, scaled->getName() + "_from_ir");
}

StaticTensorPtr scaleMatrix(const StaticTensorPtr& matrix, const Permutation& order,
                            const StaticTensorPtr& gamma) {
  StaticTensorPtr oriented =
      order.empty() ? matrix : transposeStaticTensor(matrix, order, matrix->getName() + "_transposed");
  const StaticTensorPtr scaled = multiplyStaticTensors(oriented, gamma, oriented->getName() + "_fused");
  oriented.reset();
  return order.empty() ? scaled : transposeStaticTensor(scaled, order, "temp_transposed_back");
}

StaticTensorPtr foldBias(const StaticTensorPtr& bias, const StaticTensorPtr& gamma,
                         const StaticTensorPtr& beta) {
  const StaticTensorPtr scaled = multiplyStaticTensors(bias, gamma, bias->getName() + "_scaled");
  return addStaticTensors(scaled, beta, bias->getName() + "_fused");
}

void overwrite(const StaticTensorPtr& target, const StaticTensorPtr& values) {
  target->updateData(values->getData(), values->getDataSize(), false);
}

}  // namespace netforge::graphrefiner
