#include <set>
#include "ir/IrTensor.h"
#include "ops/CanonicalValues.h"
#include "ops/LayoutOps.h"
#include "ops/OpDefaults.h"
#include "ops/OpFailure.h"
#include "ops/OpInference.h"

namespace netforge::ops {

namespace {

using Order = std::vector<std::uint32_t>;

struct LayoutRow {
  AxisFormat input;
  Order order;
  AxisFormat output;
};

std::shared_ptr<IrAttributes> attributesOfOrder(const std::string& name, const Order& order) {
  auto attributes = std::make_shared<IrAttributes>();
  attributes->add("perm", std::make_shared<IrStaticTensor>(name + "_perm", order), ATTR_ORDINARY);
  return attributes;
}

Order readOrder(const IrAttributes& attributes) {
  Order order;
  for (const std::int32_t value : readInt32Values(*attributes.getStaticTensor("perm"))) {
    order.push_back(static_cast<std::uint32_t>(value));
  }
  return order;
}

AxisFormat transposedFormat(AxisFormat input, const Order& order) {
  using enum AxisFormat;
  // The identity of other ranks is not here: its output is NONTRIVIAL.
  static const Order identity{0, 1, 2, 3};
  static const std::vector<LayoutRow> rows{
      {NDHWC, {0, 4, 1, 2, 3}, NCDHW}, {NCDHW, {0, 2, 3, 4, 1}, NDHWC}, {NHWC, {0, 3, 1, 2}, NCHW},
      {NCHW, {0, 2, 3, 1}, NHWC},      {NFC, {0, 2, 1}, NCF},           {NCF, {0, 2, 1}, NFC},
      {NTF, {1, 0, 2}, TNF},           {TNF, {1, 0, 2}, NTF},           {OIDHW, {2, 3, 4, 1, 0}, DHWIO},
      {IODHW, {2, 3, 4, 0, 1}, DHWIO}, {DHWIO, {3, 4, 0, 1, 2}, IODHW}, {DHWIO, {4, 3, 0, 1, 2}, OIDHW},
      {OIHW, {2, 3, 1, 0}, HWIO},      {IOHW, {2, 3, 0, 1}, HWIO},      {HWIO, {2, 3, 0, 1}, IOHW},
      {HWIO, {3, 2, 0, 1}, OIHW},
  };
  if (order == identity) return input;
  for (const LayoutRow& row : rows) {
    if (row.input == input && row.order == order) return row.output;
  }
  return NONTRIVIAL;
}

}  // namespace

TransposeOp::TransposeOp(const std::string& name, const std::shared_ptr<IrAttributes>& attributes)
    : IrOp(name, "Transpose", attributes) {}
NETFORGE_OP_TENSOR_CONSTRUCTOR(TransposeOp)
TransposeOp::TransposeOp(const std::string& name, const std::vector<std::uint32_t>& order)
    : TransposeOp(name, attributesOfOrder(name, order)) {}

void TransposeOp::canonicalizeOp(std::uint32_t numOutputs) {
  IrOp::canonicalizeOp(numOutputs);
  const std::uint32_t rank = getInput(0)->getRank();
  Order order = readOrder(*getAttributes());
  for (std::uint32_t& axis : order) {
    if (static_cast<std::int32_t>(axis) < 0) axis += rank;
  }
  replaceUint32Values(getAttributes(), "perm", order);
}

void TransposeOp::checkOrderAndInput() {
  const char* const function = "netforge::ops::TransposeOp::checkOrderAndInput";
  const auto fail = [&](const auto&... parts) {
    throwInvalidArgument(function, "TransposeOp ", getName(), " error: ", parts...);
  };
  if (numInputs() != 1) fail("TransposeOp expect 1 input, but the size of inputs is ", numInputs());
  const auto perm = getAttributes()->getStaticTensor("perm");
  if (perm->getRank() != 1) fail("order rank expect 1, but actually ", perm->getRank(), ".");
  const std::uint32_t rank = getInput(0)->getRank();
  const Order order = readOrder(*getAttributes());
  if (order.size() != rank) {
    fail("order dim ", order.size(), " is not equal input rank ", rank, ".");
  }
  std::set<std::uint32_t> seen;
  for (std::size_t i = 0; i < order.size(); ++i) {
    if (order[i] < rank && seen.insert(order[i]).second) continue;
    fail("illegal order. Axis value ", order[i], " at index ", i, " is either duplicate or >= input rank ",
         rank);
  }
}

std::vector<std::vector<std::uint32_t>> TransposeOp::inferOutputShapes(
    const std::shared_ptr<AxisOrder>& axisOrder, std::uint32_t numOutputs) {
  const char* const function = "netforge::ops::TransposeOp::inferOutputShapes";
  if (hasDynamicInput(*this)) {
    throwInvalidArgument(function, "TransposeOp ", getName(),
                         " inputs have dynamic shapes. Use inferOutputTensorShapes instead.");
  }
  const std::vector<IrTensorShape> shapes = inferOutputTensorShapes(axisOrder, numOutputs);
  if (shapes.empty()) {
    const IrTensorShape inputShape = numInputs() == 0 ? IrTensorShape() : getInput(0)->getShape();
    throwRuntimeError(function, "TransposeOp ", getName(),
                      " inferOutputTensorShapes did not return any shapes. Input shape: ", inputShape, ".");
  }
  return {shapes.front().dims};
}

std::vector<IrTensorShape> TransposeOp::inferOutputTensorShapes(const std::shared_ptr<AxisOrder>&,
                                                                std::uint32_t) {
  if (numInputs() == 0) return {};
  return {getInput(0)->getShape().permute(readOrder(*getAttributes()))};
}

void TransposeOp::populateOutputAxisFormats(const std::shared_ptr<AxisOrder>&,
                                            const std::map<std::string, std::uint8_t>&, bool) {
  checkOrderAndInput();
  if (numOutputs() != 1) {
    throwInvalidArgument("netforge::ops::TransposeOp::populateOutputAxisFormats", "TransposeOp ", getName(),
                         " error: TransposeOp expect 1 output, but the size of output is ", numOutputs());
  }
  getOutput(0)->setAxisFormat(transposedFormat(inputAxisFormats.at(0), readOrder(*getAttributes())));
}

}  // namespace netforge::ops
