// Edits of a graph that put a Transpose in front of an op, so that it sees a tensor in another layout.

#include <algorithm>
#include <stdexcept>
#include "ir/Failure.h"
#include "ir/GraphArguments.h"
#include "ir/IrGraph.h"
#include "ops/LayoutOps.h"

namespace netforge {

namespace {

constexpr const char* kImplicitPermute = "netforge::IrGraph::injectImplicitPermute";

struct PermuteRow {
  AxisFormat format;
  std::uint32_t rank;  // 0: any
  AxisFormat target;
  IrGraph::Dims order;
};

const std::vector<PermuteRow>& spatialFirstRows() {
  static const std::vector<PermuteRow> rows = {
      {AxisFormat::NCDHW, 0, AxisFormat::NDHWC, {0, 2, 3, 4, 1}},
      {AxisFormat::NONTRIVIAL, 5, AxisFormat::NDHWC, {0, 2, 3, 4, 1}},
      {AxisFormat::NCHW, 0, AxisFormat::NHWC, {0, 2, 3, 1}},
      {AxisFormat::NONTRIVIAL, 4, AxisFormat::NHWC, {0, 2, 3, 1}},
      {AxisFormat::NCF, 0, AxisFormat::NFC, {0, 2, 1}},
  };
  return rows;
}

const std::vector<PermuteRow>& spatialLastRows() {
  static const std::vector<PermuteRow> rows = {
      {AxisFormat::NDHWC, 0, AxisFormat::NCDHW, {0, 4, 1, 2, 3}},
      {AxisFormat::NONTRIVIAL, 5, AxisFormat::NCDHW, {0, 4, 1, 2, 3}},
      {AxisFormat::NHWC, 0, AxisFormat::NCHW, {0, 3, 1, 2}},
      {AxisFormat::NONTRIVIAL, 4, AxisFormat::NCHW, {0, 3, 1, 2}},
  };
  return rows;
}

const std::vector<PermuteRow>& featureFirstRows() {
  static const std::vector<PermuteRow> rows = {{AxisFormat::NFC, 0, AxisFormat::NCF, {0, 2, 1}}};
  return rows;
}

void injectPermute(IrGraph& graph, const IrGraph::TensorPtr& tensor, const IrGraph::OpPtr& op,
                   const std::vector<PermuteRow>& rows, const char* function) {
  requireTensor(tensor, function);
  requireOp(op, function);
  for (const PermuteRow& row : rows) {
    if (row.format != tensor->getAxisFormat()) continue;
    if (row.rank != 0 && row.rank != tensor->getRank()) continue;
    graph.injectImplicitPermute(tensor->getName(), row.target, row.order, {op->getName()});
    return;
  }
}

bool hasOrder(const ops::IrOp& transpose, const IrGraph::Dims& order) {
  if (!transpose.getAttributes()->hasAttr("perm")) return false;
  const auto perm = transpose.getAttributes()->getStaticTensor("perm");
  if (perm->getDataSize() != order.size() * sizeof(std::uint32_t)) return false;
  const auto* values = perm->getDataAs<std::uint32_t>();
  return values != nullptr && std::equal(order.begin(), order.end(), values);
}

}  // namespace

void IrGraph::injectImplicitPermute(const std::string& inputName, AxisFormat axisFormat, const Dims& order,
                                    const Names& consumerNames) {
  const TensorPtr input = getTensor(inputName);
  if (input == nullptr) {
    fail<std::invalid_argument>(kImplicitPermute, "Can't inject a permute onto a tensor ", inputName,
                                " which is not in the graph");
  }
  if (order.size() != input->getRank()) {
    fail<std::invalid_argument>(kImplicitPermute, "Can't inject a permute with a permute order of size ",
                                order.size(), " which is not equal to ", input->getRank(),
                                ", the rank of the input tensor ", inputName);
  }
  const std::string outputName = inputName + "." + axisFormatToString(axisFormat);
  const TensorPtr existing = getTensor(outputName);
  const OpPtr transpose = existing == nullptr ? nullptr : existing->getProducer();
  if (transpose == nullptr || transpose->getType() != "Transpose" ||
      existing->getAxisFormat() != axisFormat || !hasOrder(*transpose, order)) {
    inject(std::make_shared<ops::TransposeOp>(outputName, order), inputName, outputName, consumerNames,
           axisFormat, false, false);
    return;
  }
  OpSet consumers = getConsumers(input, consumerNames);
  consumers.erase(transpose);  // it must not read its own output
  transferConsumers(input, existing, consumers);
  // The Transpose of a graph input stands in front of the consumers of the call that made it; these may
  // stand before it.
  std::uint32_t first = getOpIndex(transpose);
  for (const OpPtr& consumer : consumers) first = std::min(first, getOpIndex(consumer));
  if (first < getOpIndex(transpose)) moveOptoIndex(transpose, first);
}

void IrGraph::injectPermuteToSpatialFirst(const TensorPtr& tensor, const OpPtr& op) {
  injectPermute(*this, tensor, op, spatialFirstRows(), "netforge::IrGraph::injectPermuteToSpatialFirst");
}

void IrGraph::injectPermuteToSpatialLast(const TensorPtr& tensor, const OpPtr& op) {
  injectPermute(*this, tensor, op, spatialLastRows(), "netforge::IrGraph::injectPermuteToSpatialLast");
}

void IrGraph::injectPermuteToFeatureFirst(const TensorPtr& tensor, const OpPtr& op) {
  injectPermute(*this, tensor, op, featureFirstRows(), "netforge::IrGraph::injectPermuteToFeatureFirst");
}

}  // namespace netforge
