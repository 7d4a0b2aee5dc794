// Ops of a graph: adding them and moving them in the execution order.

#include <stdexcept>
#include <utility>
#include "ir/Failure.h"
#include "ir/GraphArguments.h"
#include "ir/IrGraph.h"

namespace netforge {

namespace {
constexpr const char* kAddOp = "netforge::IrGraph::addOp";
constexpr const char* kMoveOp = "netforge::IrGraph::moveOptoIndex";
}  // namespace

void IrGraph::checkIndex(const OpPtr& op, std::int32_t idx) const {
  if (idx == -1 || idx == -2) return;
  if (idx < 0 || static_cast<std::uint32_t>(idx) > opOrder.size()) {
    fail<std::runtime_error>(kAddOp, "Invalid insertion index ", idx, " for op ", op->getName());
  }
}

void IrGraph::checkNewOp(const OpPtr& op, bool validate) {
  if (opsByName.contains(op->getName())) {
    fail<std::runtime_error>(kAddOp, "Op ", op->getName(), " already exists in graph");
  }
  const auto requireKnown = [&](const ops::IrOp::TensorList& list, const char* role) {
    for (const TensorPtr& tensor : list) {
      const TensorPtr* held = tensors.find(tensor->getName());
      if (held != nullptr && *held == tensor) continue;
      fail<std::runtime_error>(kAddOp, "Graph has no tensor ", tensor->getName(), " referred to as ", role,
                               " for Op ", op->getName());
    }
  };
  requireKnown(op->getInputs(), "input");
  requireKnown(op->getOutputs(), "output");
  if (validate && opConfigValidator != nullptr) validateOrloOpConfig(op, true, "");
  op->validateOp();
}

void IrGraph::addOp(const OpPtr& given, std::int32_t idx, bool validate) {
  const OpPtr op = given;
  requireOp(op, kAddOp);
  checkIndex(op, idx);
  checkNewOp(op, validate);
  opOrder.insert(idx < 0 ? opOrder.size() : static_cast<std::uint32_t>(idx), op);
  opsByName.insert(op->getName(), op);
}

void IrGraph::addOp(const OpPtr& op, const Names& inputNames, const Names& outputNames,
                    const std::vector<AxisFormat>& outputAxisFormats, std::int32_t idx, bool validate) {
  addOpByName(op, inputNames, outputNames, nullptr, outputAxisFormats, idx, validate);
}

void IrGraph::addOp(const OpPtr& op, const Names& inputNames, const Names& outputNames,
                    const std::vector<IrTensorShape>& outputShapes,
                    const std::vector<AxisFormat>& outputAxisFormats, std::int32_t idx, bool validate) {
  requireOp(op, kAddOp);
  if (outputShapes.size() != outputNames.size()) {
    fail<std::runtime_error>(kAddOp, "Output shapes size (", outputShapes.size(),
                             ") does not match output names size (", outputNames.size(), ") for op ",
                             op->getName());
  }
  addOpByName(op, inputNames, outputNames, &outputShapes, outputAxisFormats, idx, validate);
}

void IrGraph::addOpByName(const OpPtr& given, const Names& inputNames, const Names& outputNames,
                          const std::vector<IrTensorShape>* outputShapes,
                          const std::vector<AxisFormat>& outputAxisFormats, std::int32_t idx, bool validate) {
  const OpPtr op = given;
  requireOp(op, kAddOp);
  checkIndex(op, idx);
  for (const std::string& inputName : inputNames) {
    const TensorPtr input = getTensor(inputName);
    if (input == nullptr) {
      fail<std::runtime_error>(kAddOp, "Graph has no tensor ", inputName, " referred to as input for Op ",
                               op->getName());
    }
    input->addConsumer(op);
    op->addInput(input, -1);
  }

  const auto numOutputs = static_cast<std::uint32_t>(outputNames.size());
  op->canonicalizeOp(numOutputs);
  std::vector<IrTensorShape> inferred;
  if (outputShapes == nullptr) {
    inferred = op->inferOutputTensorShapes(axisOrder, numOutputs);
    if (inferred.size() != outputNames.size()) {
      fail<std::runtime_error>(kAddOp, "Op ", op->getName(), " produced ", inferred.size(),
                               " output shapes but has ", outputNames.size(), " outputs.");
    }
    outputShapes = &inferred;
  }
  const std::vector<DataType> types = op->inferOutputSrcDataTypes(numOutputs);
  if (types.size() < outputNames.size()) {
    fail<std::runtime_error>(kAddOp, "Op ", op->getName(), " produced ", types.size(),
                             " output types but has ", outputNames.size(), " outputs.");
  }
  for (std::size_t i = 0; i < outputNames.size(); ++i) {
    TensorPtr output = getTensor(outputNames[i]);
    if (output == nullptr) {
      const AxisFormat format =
          i < outputAxisFormats.size() ? outputAxisFormats[i] : AxisFormat::NOT_YET_DEFINED;
      output = std::make_shared<IrTensor>(outputNames[i], (*outputShapes)[i], op, types[i], format,
                                          AxisFormat::NOT_YET_DEFINED, TensorType::Native);
      enterTensor(output);
    }
    output->setProducer(op);
    op->addOutput(output, -1);
  }
  if (validate && opConfigValidator != nullptr) validateOrloOpConfig(op, true, "");
  addOp(op, idx, false);
}

void IrGraph::moveOptoIndex(const OpPtr& given, std::uint32_t index) {
  const OpPtr op = given;
  requireOp(op, kMoveOp);
  if (!opOrder.erase(op.get())) {
    fail<std::runtime_error>(kMoveOp, "Op ", op->getName(), " not found in graph");
  }
  if (index > opOrder.size()) {
    fail<std::runtime_error>(kMoveOp, "Invalid insertion index ", index, " for op ", op->getName());
  }
  opOrder.insert(index, op);
}

}  // namespace netforge
