#include "metadata/ProcessCustomIOQuantInfoPass.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <stdexcept>
#include <unordered_set>
#include <vector>
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/Failure.h"
#include "ir/IrGraph.h"
#include "ops/ElementwiseOps.h"

namespace netforge::graphrefiner {

namespace {

using OpPtr = IrGraph::OpPtr;
using TensorPtr = IrGraph::TensorPtr;

constexpr const char* kRun = "netforge::graphrefiner::ProcessCustomIOQuantInfoPass::run";
// The target's number of a definition that was given from outside.
constexpr std::uint32_t kDefinedByUser = 1;

template <class... Parts>
void log(const Parts&... parts) {
  std::cout << concatText(kRun, ": ", parts...) << std::endl;
}

std::unordered_set<std::string> namesOf(const std::vector<TensorPtr>& tensors) {
  std::unordered_set<std::string> names;
  for (const TensorPtr& tensor : tensors) names.insert(tensor->getName());
  return names;
}

QuantInfo makeQuantInfo(const DTypeQuantInfo& type, const CustomIOQuantParams& params) {
  const double offset = params.offset;
  QuantInfo info;
  // No type of the table is that narrow.
  info.encoding = type.bitWidth >= 1 && type.bitWidth <= 7 ? QuantEncodingKind::BwScaleOffset
                                                           : QuantEncodingKind::ScaleOffset;
  info.isOverridden = true;
  info.definition = kDefinedByUser;
  info.auxDefinition = type.dataType;
  EncodingInfo& encoding = info.scaleOffset;
  encoding.bitwidth = type.bitWidth;
  encoding.minimum = static_cast<float>((type.minimum + offset) * params.scale);
  encoding.maximum = static_cast<float>((type.maximum + offset) * params.scale);
  encoding.scale = static_cast<float>(params.scale);
  encoding.offset = params.offset != 0 ? -offset : (type.isSigned ? type.minimum : 0.0);
  encoding.isSymmetric = type.isSigned;
  encoding.isFixedPoint = true;
  encoding.mappedWidth = 0;
  return info;
}

std::shared_ptr<IrAttributes> makeAttributes() {
  auto attributes = std::make_shared<IrAttributes>();
  attributes->add("packageName", "orlo.base", ATTR_SUPPLEMENTAL);
  return attributes;
}

void makeFloat(const TensorPtr& tensor) {
  tensor->setDataType(ORLO_DATATYPE_FLOAT_32);
  tensor->setQuantizable(true);
}

// setQInfo takes quantizable tensors only, and only floats can become quantizable: hence by way of a float.
void makeQuantised(const TensorPtr& tensor, DataType dataType, const QuantInfo& info) {
  makeFloat(tensor);
  tensor->setQInfo(dataType, info);
}

// The result of a Reshape right behind the tensor, of several the first in graph order. One that the
// application reads keeps its type, so it doesn't count.
TensorPtr findReshaped(const IrGraph& graph, const TensorPtr& tensor) {
  for (const OpPtr& op : consumersInGraphOrder(graph, tensor->getConsumers())) {
    if (op->getType() != "Reshape" || op->getInput(0) != tensor) continue;
    const TensorPtr output = op->getOutput(0);
    return isGraphOutput(output) ? nullptr : output;
  }
  return nullptr;
}

// The model expects `type` behind the Dequantize.
void castBack(const std::shared_ptr<IrGraph>& graph, const TensorPtr& tensor, const TensorPtr& dequantised,
              DataType type) {
  const TensorPtr reshaped = findReshaped(*graph, dequantised);
  const TensorPtr target = reshaped ? reshaped : dequantised;
  const std::string castName = (reshaped ? reshaped : tensor)->getName() + "_cast";
  graph->inject(std::make_shared<ops::CastOp>(castName, makeAttributes()), target->getName(), castName, {},
                target->getAxisFormat());
  makeFloat(target);
  const TensorPtr result = graph->getTensor(castName);
  result->setDataType(type);
  result->setQuantizable(false);
  graph->addTraceSources({castName}, {castName}, graph->getTraceInfo(TraceKind::Tensor, tensor->getName()));
}

void markOptional(const TensorPtr& tensor, bool isInput, bool isOutput) {
  if (!isInput && !isOutput) {
    fail<std::runtime_error>(kRun, "Tensor '", tensor->getName(),
                             "' must be either a graph input or output to be optional.");
  }
  tensor->setTensorType(isInput && isOutput ? TensorType::OptionalInputOutput
                        : isInput           ? TensorType::OptionalInput
                                            : TensorType::OptionalOutput);
}

// The application reads `shown` from now on. The list of outputs may hold a tensor whose kind says input
// alone.
void handOver(const std::shared_ptr<IrGraph>& graph, const TensorPtr& tensor, const TensorPtr& shown) {
  const TensorType kind = tensor->getTensorType();
  if (kind == TensorType::GraphInput) tensor->setTensorType(TensorType::GraphInputOutput);
  handOverGraphOutput(graph, tensor, shown);
  if (kind == TensorType::OptionalInputOutput) {
    tensor->setTensorType(TensorType::Native);
    shown->setTensorType(kind);
  }
}

}  // namespace

DTypeQuantInfo ProcessCustomIOQuantInfoPass::getDTypeQuantInfo(const std::string& name) {
  struct Row {
    const char* name;
    DTypeQuantInfo info;
  };
  static constexpr std::array<Row, 4> kRows = {{
      {"uint8", {ORLO_DATATYPE_UFIXED_POINT_8, 8, false, 0.0, 255.0}},
      {"int8", {ORLO_DATATYPE_SFIXED_POINT_8, 8, true, -128.0, 127.0}},
      {"uint16", {ORLO_DATATYPE_UFIXED_POINT_16, 16, false, 0.0, 65535.0}},
      {"int16", {ORLO_DATATYPE_SFIXED_POINT_16, 16, true, -32768.0, 32767.0}},
  }};
  const auto row =
      std::find_if(kRows.begin(), kRows.end(), [&](const Row& found) { return name == found.name; });
  if (row == kRows.end()) {
    fail<std::runtime_error>(
        "netforge::graphrefiner::ProcessCustomIOQuantInfoPass::getDTypeQuantInfo",
        "PopulateCustomIOQuantInfoAndDequant: Datatype does not have a defined FXP range: ", name);
  }
  return row->info;
}

bool ProcessCustomIOQuantInfoPass::run(std::shared_ptr<IrGraph>& graph) {
  const std::vector<CustomIOEntry>& entries = graph->customIOEntries;
  if (entries.empty()) {
    log("No CustomIO entries found, skipping Pass");
    return false;
  }
  const auto inputs = namesOf(graph->getGraphInputs());
  const auto outputs = namesOf(graph->getGraphOutputs());
  std::uint32_t insertIndex = 0;
  log("Processing ", entries.size(), " CustomIO entry(s)");
  for (const CustomIOEntry& entry : entries) {
    log("Processing CustomIO entry: ", entry.tensorName);
    const TensorPtr tensor = graph->getTensor(entry.tensorName);
    if (!tensor) {
      fail<std::runtime_error>(kRun, "PopulateCustomIOQuantInfoAndDequant: Tensor ", entry.tensorName,
                               " from custom IO file was not found in IR graph.");
    }
    const bool isInput = inputs.count(entry.tensorName) != 0;
    const bool isOutput = outputs.count(entry.tensorName) != 0;
    if (entry.optional) markOptional(tensor, isInput, isOutput);
    if (!entry.quantParams) continue;
    const DTypeQuantInfo type = getDTypeQuantInfo(entry.dataType ? *entry.dataType : "uint8");
    const QuantInfo info = makeQuantInfo(type, *entry.quantParams);
    if (isInput) populateInputQuantInfo(graph, tensor, insertIndex, info);
    if (isOutput) populateOutputQuantInfo(graph, tensor, type.dataType, info);
  }
  return false;
}

void ProcessCustomIOQuantInfoPass::populateInputQuantInfo(const std::shared_ptr<IrGraph>& graph,
                                                          const TensorPtr& givenTensor,
                                                          std::uint32_t& insertIndex,
                                                          const QuantInfo& quantInfo) {
  const TensorPtr tensor = givenTensor;
  if (tensor->getConsumers().empty()) return;
  const DataType oldType = tensor->getDataType();
  const bool wasQuantizable = tensor->isQuantizable();
  const std::string& name = tensor->getName();
  const std::string opName = name + "_dequant";
  const std::string outputName = name + "_custom_dequant";

  const auto dequantize = std::make_shared<ops::DequantizeOp>(opName, makeAttributes());
  graph->inject(dequantize, name, outputName, {}, tensor->getAxisFormat());
  graph->addTraceSources({opName}, {outputName}, graph->getTraceInfo(TraceKind::Tensor, name));
  makeQuantised(tensor, static_cast<DataType>(quantInfo.auxDefinition), quantInfo);
  graph->moveOptoIndex(dequantize, insertIndex);
  const TensorPtr dequantised = graph->getTensor(outputName);
  makeFloat(dequantised);
  if (!wasQuantizable && !isFloatDataType(oldType)) castBack(graph, tensor, dequantised, oldType);
  ++insertIndex;
}

void ProcessCustomIOQuantInfoPass::populateOutputQuantInfo(const std::shared_ptr<IrGraph>& graph,
                                                           const TensorPtr& givenTensor, DataType dataType,
                                                           const QuantInfo& quantInfo) {
  const TensorPtr tensor = givenTensor;
  const std::string name = tensor->getName();
  const std::string innerName = name + "_custom_convert";
  const auto sources = graph->getTraceInfo(TraceKind::Tensor, name);
  std::vector<std::string> readers;
  for (const OpPtr& op : consumersInGraphOrder(*graph, tensor->getConsumers()))
    readers.push_back(op->getName());

  graph->updateTensorName(name, innerName);
  graph->inject(std::make_shared<ops::ConvertOp>(innerName, makeAttributes()), innerName, name, {},
                tensor->getAxisFormat());
  const TensorPtr shown = graph->getTensor(name);
  for (const std::string& tensorName : {innerName, name}) {
    graph->removeTraceInfo(TraceKind::Tensor, tensorName);
  }
  graph->addTraceSources({innerName}, {innerName, name}, sources);
  // The injection moved all readers behind the Convert; those of the model stay in front of it.
  for (const std::string& reader : readers) graph->transferConsumers(shown, tensor, {graph->getOp(reader)});

  handOver(graph, tensor, shown);
  makeQuantised(shown, dataType, quantInfo);
}

std::shared_ptr<Pass> buildProcessCustomIOQuantInfo() {
  return std::make_shared<ProcessCustomIOQuantInfoPass>();
}

[[maybe_unused]] static const bool registered = PassManager::registerPass(PassId::ProcessCustomIOQuantInfo);

}  // namespace netforge::graphrefiner
