// The constants of the Lstm expansion.
#include <cstring>
#include <iostream>
#include "GraphRefiner/src/passes/expansion/ExpandLstmOpStructure.h"
#include "ir/Failure.h"

namespace netforge::graphrefiner {

namespace {

using StaticPtr = std::shared_ptr<IrStaticTensor>;

template <class... Parts>
StaticPtr refuse(const Parts&... parts) {
  std::cout << "netforge::graphrefiner::ExpandLstmOpStructurePass::concatenateStaticTensors: "
            << concatText(parts...) << std::endl;
  return nullptr;
}

// The sizes of axis 0 together.
std::uint32_t joinedLength(const std::vector<std::shared_ptr<IrTensor>>& tensors) {
  std::uint32_t length = 0;
  for (const auto& tensor : tensors) length += tensor && tensor->getRank() > 0 ? tensor->getDims()[0] : 0;
  return length;
}

bool holdsJust(const StaticPtr& joined, const std::vector<std::shared_ptr<IrTensor>>& tensors) {
  std::uint64_t offset = 0;
  for (const auto& tensor : tensors) {
    const auto part = std::dynamic_pointer_cast<IrStaticTensor>(tensor);
    if (!part || part->getDataType() != joined->getDataType()) return false;
    const std::uint32_t size = part->getDataSize();
    if (offset + size > joined->getDataSize()) return false;
    if (size > 0 && std::memcmp(joined->getData() + offset, part->getData(), size) != 0) return false;
    offset += size;
  }
  return offset == joined->getDataSize();
}

}  // namespace

std::shared_ptr<IrStaticTensor> ExpandLstmOpStructurePass::concatenateStaticTensors(
    const std::shared_ptr<IrGraph>& graph, const std::vector<std::shared_ptr<IrTensor>>& tensors,
    const std::string& outputName) {
  if (graph->hasTensor(outputName)) {
    const auto cached = graph->getStaticTensor(outputName);
    if (!cached) return nullptr;
    if (cached->getRank() == 0 || joinedLength(tensors) != cached->getDims()[0]) {
      return refuse("Error: Cached tensor dimensions don't match expected concatenation result");
    }
    return holdsJust(cached, tensors) ? cached : nullptr;
  }
  if (tensors.empty()) return refuse("Error: Cannot concatenate empty tensor list");
  const auto first = std::dynamic_pointer_cast<IrStaticTensor>(tensors[0]);
  if (!first || first->getRank() == 0) return nullptr;

  std::uint32_t size = 0;
  for (std::size_t i = 0; i < tensors.size(); ++i) {
    const auto tensor = std::dynamic_pointer_cast<IrStaticTensor>(tensors[i]);
    if (!tensor) return refuse("Error: Cannot concatenate non-static tensor at index ", i);
    if (tensor->getDataType() != first->getDataType())
      return refuse("Error: Data type mismatch in concatenation");
    if (tensor->getRank() != first->getRank()) return refuse("Error: Rank mismatch in concatenation");
    if (tensor->isUpdateable() != first->isUpdateable()) {
      return refuse("Error: Updateable flag mismatch in concatenation at index ", i,
                    " (expected: ", first->isUpdateable(), ", got: ", tensor->isUpdateable(), ")");
    }
    for (std::size_t axis = 1; axis < first->getRank(); ++axis) {
      if (tensor->getDims()[axis] != first->getDims()[axis])
        return refuse("Error: Dimension mismatch at axis ", axis);
    }
    size += tensor->getDataSize();
  }
  auto bytes = std::make_unique<std::uint8_t[]>(size);
  std::uint32_t offset = 0;
  for (const auto& tensor : tensors) {
    const auto part = std::static_pointer_cast<IrStaticTensor>(tensor);
    if (part->getDataSize() > 0) std::memcpy(bytes.get() + offset, part->getData(), part->getDataSize());
    offset += part->getDataSize();
  }
  auto dims = first->getDims();
  dims[0] = joinedLength(tensors);
  const auto joined = std::make_shared<IrStaticTensor>(
      outputName, dims, size, nullptr, first->getDataType(), first->getSrcDataType(), first->isQuantizable(),
      first->getQuantInfo(), first->getAxisFormat(), first->getSrcAxisFormat(), false, TensorType::Static,
      first->isUpdateable(), first->getExplicitPermuteOrder(), nullptr);
  joined->updateData(bytes.release(), size, true);
  graph->addTensor(joined);
  return joined;
}

std::string ExpandLstmOpStructurePass::insertBeforeDirectionSuffix(const std::string& tensorName,
                                                                   const std::string& suffix) {
  for (const std::string direction : {"_backward", "_forward"}) {
    if (tensorName.size() < direction.size()) continue;
    const std::size_t stem = tensorName.size() - direction.size();
    if (tensorName.compare(stem, std::string::npos, direction) == 0) {
      return tensorName.substr(0, stem) + suffix + direction;
    }
  }
  return tensorName + suffix;
}

}  // namespace netforge::graphrefiner
