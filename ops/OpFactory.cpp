#include "ops/OpFactory.h"

#include "ops/OpDefaults.h"
#include "ops/OpFactoryTable.h"
#include "ops/OpFailure.h"

namespace netforge::graphrefiner {

OpParam::OpParam() = default;
OpParam::OpParam(bool value) : tag(Bool), boolValue(value) {}
OpParam::OpParam(float value) : tag(Float), floatValue(value) {}
OpParam::OpParam(std::uint8_t value) : tag(Uint8), uint8Value(value) {}
OpParam::OpParam(std::int32_t value) : tag(Int32), int32Value(value) {}
OpParam::OpParam(std::uint32_t value) : tag(Uint32), uint32Value(value) {}
OpParam::OpParam(const std::string& value) : tag(String), stringValue(value) {}
OpParam::OpParam(const char* value) : tag(String), stringValue(value) {}
OpParam::OpParam(const std::vector<std::uint32_t>& value) : tag(Uint32List), listValue(value) {}

namespace {

const std::unordered_map<std::string, const OpRule*>& dispatchTable() {
  static const auto table = [] {
    std::unordered_map<std::string, const OpRule*> byType;
    for (const OpRule& rule : opRules()) byType.emplace(rule.type, &rule);
    return byType;
  }();
  return table;
}

void checkMandatory(const OpRule& rule, const std::string& opName, const OpParams& params) {
  for (const ParamRule& param : rule.params) {
    if (!param.mandatory || params.count(param.name) > 0) continue;
    // The activation's text does not name the attribute.
    const bool unnamed = std::string(rule.type) == "ElementWiseNeuron";
    const std::string attribute = unnamed ? "value" : "'" + std::string(param.name) + "'";
    ops::throwRuntimeError(rule.factory, rule.word, " op '", opName, "': Mandatory attribute ", attribute,
                           " not supplied");
  }
}

std::vector<std::uint32_t> tensorDims(const OpRule& rule, const ParamRule& param, std::size_t count) {
  const auto length = static_cast<std::uint32_t>(count);
  if (param.kind == ParamKind::PadTensor) return {param.rows > 0 ? param.rows : length / 2, 2};
  if (param.kind == ParamKind::BlockTensor && length != 2) {
    ops::throwRuntimeError(rule.factory, rule.word,
                           " block size must have exactly 2 elements (height, width), got ", length);
  }
  return {length};
}

void addAttribute(IrAttributes& attributes, const OpRule& rule, const ParamRule& param,
                  const std::string& opName, const OpParam& value) {
  const AttrClass attrClass = param.attrClass;
  switch (param.kind) {
    case ParamKind::Uint32:
      attributes.add(param.name, value.uint32Value, attrClass);
      break;
    case ParamKind::Int32:
      attributes.add(param.name, value.int32Value, attrClass);
      break;
    case ParamKind::Float:
      attributes.add(param.name, value.floatValue, attrClass);
      break;
    case ParamKind::Uint8:
      attributes.add(param.name, value.uint8Value, attrClass);
      break;
    case ParamKind::Bool:
      attributes.add(param.name, value.boolValue, attrClass);
      break;
    case ParamKind::String:
      attributes.add(param.name, value.stringValue, attrClass);
      break;
    case ParamKind::Tensor:
    case ParamKind::PadTensor:
    case ParamKind::BlockTensor:
      attributes.add(param.name,
                     ops::makeUint32Tensor(opName + "_" + param.name,
                                           tensorDims(rule, param, value.listValue.size()), value.listValue),
                     attrClass);
      break;
    case ParamKind::Axis:
      if (value.tag == OpParam::Int32) {
        attributes.add(param.name, value.int32Value, attrClass);
      } else if (value.tag == OpParam::Uint32) {
        attributes.add(param.name, value.uint32Value, attrClass);
      } else {
        ops::throwRuntimeError(rule.factory, rule.word, " op '", opName,
                               "': Invalid type for axis parameter, expected INT32 or UINT32");
      }
      break;
  }
}

}  // namespace

std::shared_ptr<ops::IrOp> createOp(const std::string& opType, const std::string& opName,
                                    const OpParams& params) {
  const auto entry = dispatchTable().find(opType);
  if (entry == dispatchTable().end()) {
    ops::throwRuntimeError("netforge::graphrefiner::createOp", "Op not supported: ", opType);
  }
  const OpRule& rule = *entry->second;
  checkMandatory(rule, opName, params);
  const auto attributes = std::make_shared<IrAttributes>();
  for (const ParamRule& param : rule.params) {
    const auto given = params.find(param.name);
    if (given != params.end()) addAttribute(*attributes, rule, param, opName, given->second);
  }
  const auto package = params.find("packageName");
  if (package != params.end()) {
    attributes->add("packageName", package->second.stringValue, ATTR_SUPPLEMENTAL);
  }
  const auto op = rule.make(opName, attributes);
  // Behind the constructor, whose failure texts count the attributes.
  ops::addDefault(op->getAttributes(), "packageName", "orlo.base", ATTR_SUPPLEMENTAL);
  return op;
}

}  // namespace netforge::graphrefiner
