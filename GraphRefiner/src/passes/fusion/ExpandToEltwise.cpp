#include "GraphRefiner/src/passes/fusion/ExpandToEltwise.h"

#include <limits>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/OperationCodes.h"
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/IrGraph.h"
#include "ops/OpFactory.h"

namespace netforge::graphrefiner {

using Dims = std::vector<std::uint32_t>;
using Bytes = std::vector<std::uint8_t>;

namespace {

// The bytes of a 1, lowest first; none for a type that has no exact one.
Bytes encodeOne(DataType type) {
  switch (type) {
    case ORLO_DATATYPE_BOOL_8:
    case ORLO_DATATYPE_INT_8:
    case ORLO_DATATYPE_UINT_8:
      return {1};
    case ORLO_DATATYPE_INT_16:
    case ORLO_DATATYPE_UINT_16:
      return {1, 0};
    case ORLO_DATATYPE_INT_32:
    case ORLO_DATATYPE_UINT_32:
      return {1, 0, 0, 0};
    case ORLO_DATATYPE_INT_64:
    case ORLO_DATATYPE_UINT_64:
      return {1, 0, 0, 0, 0, 0, 0, 0};
    case ORLO_DATATYPE_FLOAT_16:
      return {0x00, 0x3C};
    case ORLO_DATATYPE_BFLOAT_16:
      return {0x80, 0x3F};
    case ORLO_DATATYPE_FLOAT_32:
      return {0x00, 0x00, 0x80, 0x3F};
    case ORLO_DATATYPE_FLOAT_64:
      return {0, 0, 0, 0, 0, 0, 0xF0, 0x3F};
    default:
      return {};
  }
}

std::uint64_t product(const Dims& dims) {
  std::uint64_t result = 1;
  for (const std::uint32_t dim : dims) result *= dim;
  return result;
}

}  // namespace

MatchExpandExpandOpToEltwise::MatchExpandExpandOpToEltwise() {
  pattern = makeOpType("Expand");
}

Dims MatchExpandExpandOpToEltwise::coefficientDims(const Dims& inputDims, const Dims& outputDims) {
  const Dims padded = IrTensorShape::padDimsToRank(inputDims, static_cast<std::uint32_t>(outputDims.size()));
  Dims result = outputDims;
  for (std::size_t i = 0; i < result.size(); ++i) {
    if (padded[i] == result[i]) result[i] = 1;
  }
  return result;
}

void MatchExpandExpandOpToEltwise::addCoefficientTensor(const std::shared_ptr<IrGraph>& graph,
                                                        const std::string& name, const Dims& dims,
                                                        DataType dataType, DataType srcDataType) {
  const Bytes one = encodeOne(dataType);
  const std::uint64_t count = product(dims);
  Bytes bytes;
  bytes.reserve(count * one.size());
  for (std::uint64_t i = 0; i < count; ++i) bytes.insert(bytes.end(), one.begin(), one.end());
  graph->addTensor(name, dims, static_cast<std::uint32_t>(bytes.size()), bytes.data(), dataType, srcDataType,
                   AxisFormat::NOT_YET_DEFINED, AxisFormat::NOT_YET_DEFINED, isFloatDataType(dataType),
                   QuantInfo(), false, TensorType::Static, false, {});
}

bool MatchExpandExpandOpToEltwise::rewriteCallback(std::shared_ptr<IrGraph>& graph, MatchedOps& matchedOps) {
  const OpPtr expand = matchedOps.at(pattern);
  if (expand->numInputs() != 1) return false;
  const TensorPtr input = expand->getInput(0);
  const TensorPtr output = expand->getOutput(0);
  if (input->getShape().hasDynamicAxes() || output->getShape().hasDynamicAxes()) return false;
  const std::string name = expand->getName();
  if (hasSameDims(input, output)) {
    if (graph->hasOp(name + "_reshape")) return false;
    graph->replace(expand, createOp("Reshape", name + "_reshape", {{"shape", output->getDims()}}));
    return true;
  }
  const DataType type = input->getDataType();
  const std::size_t width = encodeOne(type).size();
  if (width == 0 || !isTailBroadcastable(output->getDims(), input->getDims())) return false;
  const Dims dims = coefficientDims(input->getDims(), output->getDims());
  if (product(dims) > std::numeric_limits<std::uint32_t>::max() / width) return false;
  if (graph->hasOp(name + "_eltwise") || graph->hasTensor(name + "_coef")) return false;

  // ---- edits ----
  addCoefficientTensor(graph, name + "_coef", dims, type, input->getSrcDataType());
  const TensorPtr coefficient = graph->getTensor(name + "_coef");
  graph->addTraceSources(TraceKind::Tensor, name + "_coef", graph->getTraceInfo(TraceKind::Op, name));
  expand->addInput(coefficient);
  coefficient->addConsumer(expand);
  const std::uint32_t operation = type == ORLO_DATATYPE_BOOL_8 ? kAnd : kMultiply;
  graph->replace(expand, createOp("Eltwise_Binary", name + "_eltwise", {{"operation", operation}}));
  return true;
}

std::shared_ptr<Pass> buildExpandExpandOpToEltwise() {
  return makeSequencePass<MatchExpandExpandOpToEltwise>();
}
[[maybe_unused]] static const bool registeredExpandExpandOpToEltwise =
    PassManager::registerPass(PassId::ExpandExpandOpToEltwise);

}  // namespace netforge::graphrefiner
