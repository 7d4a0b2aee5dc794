#include <limits>
#include "ir/IrTensor.h"
#include "ops/LayoutOps.h"
#include "ops/OpDefaults.h"
#include "ops/OpFailure.h"
#include "ops/OpInference.h"

namespace netforge::ops {

namespace {

using Dims = std::vector<std::uint32_t>;

/// Element count; 2^64-1 stands for everything above it.
std::uint64_t elementCount(const Dims& dims) {
  constexpr std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t count = 1;
  bool tooLarge = false;
  for (const std::uint32_t dim : dims) {
    if (dim == 0) return 0;
    tooLarge = tooLarge || count > most / dim;
    count *= dim;
  }
  return tooLarge ? most : count;
}

bool isSpatialFormat(AxisFormat format) {
  using enum AxisFormat;
  return format == NCDHW || format == NDHWC || format == NHWC || format == NCHW || format == NFC ||
         format == NCF;
}

/// The layout of a tensor of `dims` that came from rows of channels: the axes beside batch and channels must
/// all be 1. Channels in front win where both readings hold.
AxisFormat formatFromChannelRows(const Dims& dims, std::uint32_t rank) {
  using enum AxisFormat;
  if (rank < 3 || rank > 5 || dims.size() != rank) return NONTRIVIAL;
  const auto onesBetween = [&](std::size_t first, std::size_t last) {
    for (std::size_t i = first; i <= last; ++i) {
      if (dims[i] != 1) return false;
    }
    return true;
  };
  if (onesBetween(2, rank - 1)) return rank == 5 ? NCDHW : rank == 4 ? NCHW : NCF;
  if (onesBetween(1, rank - 2)) return rank == 5 ? NDHWC : rank == 4 ? NHWC : NFC;
  return NONTRIVIAL;
}

}  // namespace

ReshapeOp::ReshapeOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Reshape", attributes) {
  requireSupplemental(getAttributes(), "netforge::ops::ReshapeOp::ReshapeOp", "shape", "attr", name);
}
NETFORGE_OP_TENSOR_CONSTRUCTOR(ReshapeOp)

Dims ReshapeOp::calculateShape(const std::string& opName, const Dims& inputDims,
                               const std::vector<std::int32_t>& shape) {
  const char* const function = "netforge::ops::ReshapeOp::calculateShape";
  const std::uint64_t inputCount = elementCount(inputDims);
  std::uint64_t remaining = inputCount;
  std::size_t placeholder = shape.size();
  Dims result;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    auto dim = static_cast<std::uint32_t>(shape[i]);
    if (shape[i] == -1) {
      placeholder = i;
    } else {
      if (shape[i] == 0) {
        if (i >= inputDims.size()) {
          throwInvalidArgument(function, "Unable to calculate ReshapeOp output shape for op ", opName,
                               ": shape param has 0 at index ", i, ", but input shape has only ",
                               inputDims.size(), " dimensions");
        }
        dim = inputDims[i];
      }
      if (dim != 0) remaining /= dim;
    }
    result.push_back(dim);
  }
  if (placeholder < result.size()) result[placeholder] = static_cast<std::uint32_t>(remaining);

  const std::uint64_t outputCount = elementCount(result);
  if (inputCount == outputCount) return result;
  if (result.empty() || outputCount == 0 || inputCount % outputCount != 0) {
    throwInvalidArgument(function, "Unable to calculate ReshapeOp output shape for op ", opName,
                         ": input total element count (", inputCount, ") != output total element count (",
                         outputCount, ")");
  }
  result.front() *= static_cast<std::uint32_t>(inputCount / outputCount);
  return result;
}

std::vector<Dims> ReshapeOp::inferOutputShapes(const std::shared_ptr<AxisOrder>&, std::uint32_t) {
  refuseDynamicInputs(*this, "netforge::ops::ReshapeOp::inferOutputShapes");
  return {calculateShape(getName(), getInput(0)->getDims(),
                         readInt32Values(*getAttributes()->getStaticTensor("shape")))};
}

void ReshapeOp::populateOutputAxisFormats(const std::shared_ptr<AxisOrder>& axisOrder,
                                          const std::map<std::string, std::uint8_t>&, bool) {
  const Dims inputDims = getInput(0)->getDims();
  const Dims outputDims = inferOutputShapes(axisOrder, numOutputs()).front();
  const auto output = getOutput(0);
  const AxisFormat inputFormat = inputAxisFormats.at(0);
  AxisFormat format = AxisFormat::NONTRIVIAL;
  if (!inputDims.empty() && !outputDims.empty() && inputDims.front() == outputDims.front()) {
    if (inputFormat == AxisFormat::NC) {
      format = formatFromChannelRows(outputDims, output->getRank());
    } else if (isSpatialFormat(inputFormat) && output->getRank() == 2) {
      format = AxisFormat::NF;
    }
  }
  output->setAxisFormat(format);
}

}  // namespace netforge::ops
