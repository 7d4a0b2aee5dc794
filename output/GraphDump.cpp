#include <set>
#include <string>
#include <utility>

#include "ir/IrGraph.h"
#include "output/JsonFile.h"

namespace netforge {

namespace {

using rapidjson::Value;
using Allocator = rapidjson::Document::AllocatorType;

template <class Range>
Value makeNumbers(const Range& numbers, Allocator& allocator) {
  Value array(rapidjson::kArrayType);
  for (const std::uint32_t number : numbers) array.PushBack(number, allocator);
  return array;
}

Value makeTensorRecord(const IrTensor& tensor, Allocator& allocator) {
  const IrTensorShape& shape = tensor.getShape();
  Value shapeRecord(rapidjson::kObjectType);
  shapeRecord.AddMember("dims", makeNumbers(shape.dims, allocator), allocator);
  shapeRecord.AddMember("dynamic_axes", makeNumbers(shape.dynamicAxes, allocator), allocator);

  Value record(rapidjson::kObjectType);
  record.AddMember("layout", output::copyString(axisFormatToString(tensor.getAxisFormat()), allocator),
                   allocator);
  record.AddMember("shape", shapeRecord, allocator);
  record.AddMember("dtype", output::copyString(getDataTypeShortName(tensor.getDataType()), allocator),
                   allocator);
  return record;
}

void addTensorMember(Value& object, const IrTensor& tensor, Allocator& allocator) {
  object.AddMember(output::copyString(tensor.getName(), allocator), makeTensorRecord(tensor, allocator),
                   allocator);
}

Value makeAttributes(const ops::IrOp& op, Allocator& allocator) {
  Value attributes(rapidjson::kObjectType);
  if (op.getType() == "Transpose" && op.getAttributes()->hasAttr("perm")) {
    const auto perm = op.getAttributes()->getStaticTensor("perm");
    const std::uint32_t count = perm->getDims().empty() ? 0 : perm->getDims().front();
    perm->getData();
    Value order(rapidjson::kArrayType);
    for (std::uint32_t i = 0; i < count; ++i) order.PushBack(perm->getElement(i), allocator);
    attributes.AddMember("order", order, allocator);
  }
  return attributes;
}

/// The entries of the dump, each under its own name, in the order in which they are added.
class EntryList {
 public:
  explicit EntryList(rapidjson::Document& target) : document(target), allocator(target.GetAllocator()) {}

  /// An entry for a tensor that no op computes: "input" or "constant".
  void addSource(const IrTensor& tensor, const std::string& type) {
    Value outputs(rapidjson::kObjectType);
    addTensorMember(outputs, tensor, allocator);
    addEntry(tensor.getName(), type, Value(rapidjson::kArrayType), std::move(outputs),
             Value(rapidjson::kObjectType));
  }

  void addOp(const ops::IrOp& op) {
    Value inputs(rapidjson::kArrayType);
    for (const auto& tensor : op.getInputs()) {
      Value input(rapidjson::kObjectType);
      addTensorMember(input, *tensor, allocator);
      inputs.PushBack(input, allocator);
    }
    Value outputs(rapidjson::kObjectType);
    for (const auto& tensor : op.getOutputs()) addTensorMember(outputs, *tensor, allocator);
    addEntry(op.getName(), op.getType(), std::move(inputs), std::move(outputs),
             makeAttributes(op, allocator));
  }

 private:
  /// Moves the three values into the document.
  void addEntry(const std::string& name, const std::string& type, Value inputs, Value outputs,
                Value attributes) {
    Value entry(rapidjson::kObjectType);
    entry.AddMember("name", output::copyString(name, allocator), allocator);
    entry.AddMember("type", output::copyString(type, allocator), allocator);
    entry.AddMember("inputs", inputs, allocator);
    entry.AddMember("outputs", outputs, allocator);
    entry.AddMember("attrs", attributes, allocator);
    document.AddMember(output::copyString(name, allocator), entry, allocator);
  }

  rapidjson::Document& document;
  Allocator& allocator;
};

std::string withJsonSuffix(const std::string& fileName) {
  return fileName.ends_with(".json") ? fileName : fileName + ".json";
}

}  // namespace

void IrGraph::dumpJson(const std::string& fileName) {
  rapidjson::Document document(rapidjson::kObjectType);
  EntryList entries(document);
  for (const auto& tensor : getGraphInputs()) entries.addSource(*tensor, "input");

  std::set<std::string> constants;
  for (const auto& op : getOps()) {
    for (const auto& tensor : op->getInputs()) {
      if (tensor->isStatic() && constants.insert(tensor->getName()).second) {
        entries.addSource(*tensor, "constant");
      }
    }
    entries.addOp(*op);
  }
  output::writeJsonFile(document, withJsonSuffix(fileName),
                        "netforge::IrGraph::dumpJson: IrGraph::dumpJson: ");
}

}  // namespace netforge
