#include "GraphRefiner/src/passes/expansion/OpExpansion.h"

#include <algorithm>
#include "GraphRefiner/src/RewriteUtilities.h"

namespace netforge::graphrefiner {

bool OpExpansion::areFree(const std::shared_ptr<IrGraph>& graph, const std::vector<std::string>& names) {
  return std::none_of(names.begin(), names.end(),
                      [&](const std::string& name) { return graph->hasTensor(name) || graph->hasOp(name); });
}

OpExpansion::OpExpansion(const std::shared_ptr<IrGraph>& givenGraph, const OpPtr& givenOp,
                         std::uint32_t behind)
    : graph(givenGraph),
      op(givenOp),
      output(givenOp->getOutput(0)),
      position(static_cast<std::int32_t>(givenGraph->getOpIndex(givenOp) + behind)) {
  traceFrom(output);
}

void OpExpansion::traceFrom(const TensorPtr& tensor) {
  sources =
      graph->collectTraceSources({{TraceKind::Op, op->getName()}, {TraceKind::Tensor, tensor->getName()}});
}

OpExpansion::TensorPtr OpExpansion::tensorLike(const std::string& name, const IrTensorShape& shape,
                                               const IrTensor& model) {
  const auto tensor = std::make_shared<IrTensor>(
      name, shape.dims, model.getDataType(), model.getSrcDataType(), model.isQuantizable(),
      model.getQuantInfo(), model.getAxisFormat(), model.getSrcAxisFormat(), TensorType::Native,
      model.isUpdateable(), model.getExplicitPermuteOrder());
  tensor->setShape(shape);
  return tensor;
}

OpExpansion::TensorPtr OpExpansion::plainTensorLike(const std::string& name, const IrTensorShape& shape,
                                                    const IrTensor& model) {
  const auto tensor = std::make_shared<IrTensor>(name, shape.dims, model.getDataType(),
                                                 model.getSrcDataType(), isFloatDataType(model.getDataType()),
                                                 QuantInfo(), model.getAxisFormat(), model.getSrcAxisFormat(),
                                                 TensorType::Native, model.getExplicitPermuteOrder());
  tensor->setShape(shape);
  return tensor;
}

OpExpansion::TensorPtr OpExpansion::addConstant(const std::string& name,
                                                const std::vector<std::uint32_t>& dims,
                                                const std::vector<float>& values) {
  const auto size = static_cast<std::uint32_t>(values.size() * sizeof(float));
  graph->addTensor(name, dims, size, values.data(), ORLO_DATATYPE_FLOAT_32, ORLO_DATATYPE_FLOAT_32,
                   AxisFormat::NOT_YET_DEFINED, AxisFormat::NOT_YET_DEFINED, true, QuantInfo(), false,
                   TensorType::Static, false, {});
  graph->addTraceSources(TraceKind::Tensor, name, sources);
  return graph->getTensor(name);
}

OpExpansion::TensorPtr OpExpansion::addOp(const OpPtr& newOp, const std::vector<TensorPtr>& inputs,
                                          const TensorPtr& written) {
  if (graph->getTensor(written->getName()) != written) graph->addTensor(written);
  if (!written->getProducer()) graph->addTraceSources(TraceKind::Tensor, written->getName(), sources);
  std::vector<std::string> names;
  for (const TensorPtr& input : inputs) names.push_back(input->getName());
  graph->addOp(newOp, names, {written->getName()}, {written->getShape()}, {}, position++, true);
  graph->addTraceSources(TraceKind::Op, newOp->getName(), sources);
  return written;
}

OpExpansion::TensorPtr OpExpansion::addOp(const std::string& type, const std::string& name,
                                          const OpParams& params, const std::vector<TensorPtr>& inputs,
                                          const TensorPtr& written) {
  return addOp(createOp(type, name, params), inputs, written);
}

void OpExpansion::replaceOutput(const TensorPtr& result) {
  const std::string name = output->getName();
  graph->transferConsumers(output, result, output->getConsumers());
  handOverGraphOutput(graph, output, result);
  removeOp();
  graph->updateTensorName(result->getName(), name);
}

void OpExpansion::replaceOutputKeepingName(const TensorPtr& result) {
  if (isGraphOutput(output)) {
    replaceOutput(result);
    return;
  }
  graph->transferConsumers(output, result, output->getConsumers());
  graph->removeTraceInfo(TraceKind::Tensor, output->getName());
  removeOp();
}

void OpExpansion::removeOp() {
  if (output->getProducer() != op) op->removeOutput(output);
  graph->removeTraceInfo({op});
  graph->prune(op, true);
}

}  // namespace netforge::graphrefiner
