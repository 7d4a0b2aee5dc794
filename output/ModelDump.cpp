#include "output/ModelDump.h"

#include <fstream>
#include <map>
#include <vector>

#include "ir/IrGraph.h"
#include "output/JsonFile.h"

namespace netforge {

namespace {

using rapidjson::StringRef;
using rapidjson::Value;
using Allocator = rapidjson::Document::AllocatorType;

// The files that the description names as the model's code and weights. They are created empty, so that a
// reader that looks for them finds them.
constexpr const char* kCodeFile = "temp.cpp";
constexpr const char* kWeightsFile = "temp.bin";

constexpr unsigned kUndefined = 0x7FFFFFFF;

Value makeQuantParams(Allocator& allocator) {
  Value scaleOffset(rapidjson::kObjectType);
  scaleOffset.AddMember("bitwidth", 0, allocator);
  scaleOffset.AddMember("minimum", 0.0, allocator);
  scaleOffset.AddMember("maximum", 0.0, allocator);
  scaleOffset.AddMember("scale", 0.0, allocator);
  scaleOffset.AddMember("offset", 0, allocator);
  scaleOffset.AddMember("is_symmetric", false, allocator);
  scaleOffset.AddMember("is_fixed_point", true, allocator);

  Value quantParams(rapidjson::kObjectType);
  quantParams.AddMember("definition", kUndefined, allocator);
  quantParams.AddMember("encoding", kUndefined, allocator);
  quantParams.AddMember("is_overridden", false, allocator);
  quantParams.AddMember("scale_offset", scaleOffset, allocator);
  return quantParams;
}

Value makeTensor(const IrTensor& tensor, Allocator& allocator) {
  Value dims(rapidjson::kArrayType);
  for (const std::uint32_t dim : tensor.getDims()) dims.PushBack(dim, allocator);

  Value record(rapidjson::kObjectType);
  record.AddMember("type", static_cast<unsigned>(tensor.getTensorType()), allocator);
  record.AddMember("data_type", static_cast<unsigned>(tensor.getDataType()), allocator);
  record.AddMember("quant_params", makeQuantParams(allocator), allocator);
  record.AddMember("dims", dims, allocator);
  return record;
}

Value makeNames(const ops::IrOp::TensorList& tensors, Allocator& allocator) {
  Value names(rapidjson::kArrayType);
  for (const auto& tensor : tensors) {
    names.PushBack(output::copyString(tensor->getName(), allocator), allocator);
  }
  return names;
}

Value makeNode(const ops::IrOp& op, Allocator& allocator) {
  Value node(rapidjson::kObjectType);
  node.AddMember("type", output::copyString(op.getType(), allocator), allocator);
  node.AddMember("tensor_params", Value(rapidjson::kObjectType), allocator);
  node.AddMember("input_names", makeNames(op.getInputs(), allocator), allocator);
  node.AddMember("output_names", makeNames(op.getOutputs(), allocator), allocator);
  return node;
}

}  // namespace

void dumpModelJson(const std::shared_ptr<IrGraph>& graph, const std::string& fileName) {
  for (const char* companion : {kCodeFile, kWeightsFile}) {
    // A companion that can't be created is no reason to go without the dump.
    std::ofstream(companion, std::ios::binary | std::ios::trunc);
  }

  rapidjson::Document document(rapidjson::kObjectType);
  Allocator& allocator = document.GetAllocator();
  Value tensors(rapidjson::kObjectType);
  for (const auto& [name, tensor] : graph->getTensors()) {
    tensors.AddMember(output::copyString(name, allocator), makeTensor(*tensor, allocator), allocator);
  }
  Value nodes(rapidjson::kObjectType);
  for (const auto& op : graph->getOps()) {
    nodes.AddMember(output::copyString(op->getName(), allocator), makeNode(*op, allocator), allocator);
  }
  Value description(rapidjson::kObjectType);
  description.AddMember("tensors", tensors, allocator);
  description.AddMember("nodes", nodes, allocator);

  document.AddMember("model.cpp", StringRef(kCodeFile), allocator);
  document.AddMember("model.bin", StringRef(kWeightsFile), allocator);
  document.AddMember("graph", description, allocator);
  output::writeJsonFile(document, fileName, "netforge::dumpModelJson: ");
}

}  // namespace netforge
