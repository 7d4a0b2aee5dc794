#include "GraphRefiner/src/Pattern.h"

namespace netforge::graphrefiner {

Pattern::~Pattern() = default;

MatchedOps Pattern::getMatchedOps() const {
  return restore(bindings);
}

ConsumerPatterns Pattern::getConsumerPatterns() const {
  return restore(links);
}

MatchedOps Pattern::getPathMatchedOps() const {
  return restore(pathBindings);
}

ConsumerPatterns Pattern::getPathConsumerPatterns() const {
  return restore(pathLinks);
}

Pattern::Bindings Pattern::store(const MatchedOps& ops) {
  return {ops.begin(), ops.end()};
}

Pattern::Links Pattern::store(const ConsumerPatterns& consumers) {
  Links stored;
  for (const auto& [node, readers] : consumers) {
    for (const PatternPtr& reader : readers) stored.emplace_back(node, reader);
  }
  return stored;
}

MatchedOps Pattern::restore(const Bindings& stored) {
  MatchedOps ops;
  for (const auto& [node, op] : stored) {
    if (const PatternPtr alive = node.lock()) ops.emplace(alive, op);
  }
  return ops;
}

ConsumerPatterns Pattern::restore(const Links& stored) {
  ConsumerPatterns consumers;
  for (const auto& [node, reader] : stored) {
    const PatternPtr aliveNode = node.lock();
    const PatternPtr aliveReader = reader.lock();
    if (aliveNode && aliveReader) consumers[aliveNode].insert(aliveReader);
  }
  return consumers;
}

OpTypePattern::OpTypePattern(const std::string& type) : opType(type) {}

OpPattern::OpPattern(const PatternPtr& type, const std::map<std::int32_t, PatternPtr>& inputPatterns)
    : inputs(inputPatterns), typePattern(type) {}

AltPattern::AltPattern(const PatternPtr& firstTree, const PatternPtr& secondTree)
    : first(firstTree), second(secondTree) {}

AttrPattern::AttrPattern(const PatternPtr& innerPattern, const std::vector<PatternAttributePtr>& values)
    : inner(innerPattern), attributes(values) {}

ShapePattern::ShapePattern(const PatternPtr& innerPattern, const std::vector<std::uint32_t>& wantedDims)
    : inner(innerPattern), dims(wantedDims) {}

OptionalPattern::OptionalPattern(const PatternPtr& firstTree, const PatternPtr& secondTree)
    : first(firstTree), second(secondTree) {}

namespace {

std::optional<std::set<std::string>> joinRootTypes(const PatternPtr& first, const PatternPtr& second) {
  auto types = possibleRootTypes(first);
  if (!types) return std::nullopt;
  const auto more = possibleRootTypes(second);
  if (!more) return std::nullopt;
  types->insert(more->begin(), more->end());
  return types;
}

PatternAttributePtr makeNamedAttr(const std::string& name) {
  auto attribute = std::make_shared<PatternAttribute>();
  attribute->name = name;
  return attribute;
}

}  // namespace

std::optional<std::set<std::string>> possibleRootTypes(const PatternPtr& pattern) {
  const Pattern* node = pattern.get();
  if (const auto* op = dynamic_cast<const OpPattern*>(node)) return possibleRootTypes(op->typePattern);
  if (const auto* type = dynamic_cast<const OpTypePattern*>(node)) return std::set<std::string>{type->opType};
  if (const auto* alt = dynamic_cast<const AltPattern*>(node)) return joinRootTypes(alt->first, alt->second);
  if (const auto* attr = dynamic_cast<const AttrPattern*>(node)) return possibleRootTypes(attr->inner);
  if (const auto* shape = dynamic_cast<const ShapePattern*>(node)) return possibleRootTypes(shape->inner);
  if (const auto* optional = dynamic_cast<const OptionalPattern*>(node)) {
    return joinRootTypes(optional->first, optional->second);
  }
  if (dynamic_cast<const WildCardPattern*>(node) != nullptr) return std::nullopt;
  return std::set<std::string>{};  // fits no op at all
}

PatternPtr makeOpType(const std::string& typeName) {
  return std::make_shared<OpTypePattern>(typeName);
}

PatternPtr makeConstant() {
  return std::make_shared<ConstantPattern>();
}

PatternPtr makeWildCard() {
  return std::make_shared<WildCardPattern>();
}

PatternPtr makeAlt(const PatternPtr& first, const PatternPtr& second) {
  return std::make_shared<AltPattern>(first, second);
}

PatternPtr withInputs(const PatternPtr& typePattern, const std::vector<PatternPtr>& inputs) {
  std::map<std::int32_t, PatternPtr> byIndex;
  for (const PatternPtr& input : inputs) byIndex.emplace(static_cast<std::int32_t>(byIndex.size()), input);
  return std::make_shared<OpPattern>(typePattern, byIndex);
}

PatternPtr makeOp(const std::string& typeName, const PatternPtr& a) {
  return withInputs(makeOpType(typeName), {a});
}

PatternPtr makeOp(const std::string& typeName, const PatternPtr& a, const PatternPtr& b) {
  return withInputs(makeOpType(typeName), {a, b});
}

PatternPtr makeOp(const std::string& typeName, const PatternPtr& a, const PatternPtr& b,
                  const PatternPtr& c) {
  return withInputs(makeOpType(typeName), {a, b, c});
}

PatternPtr withAttr(const PatternPtr& pattern, const PatternAttributePtr& attribute) {
  return std::make_shared<AttrPattern>(pattern, std::vector<PatternAttributePtr>{attribute});
}

PatternPtr makeCommutativeOp(const std::string& typeName, const PatternPtr& a, const PatternPtr& b) {
  return makeAlt(makeOp(typeName, a, b), makeOp(typeName, b, a));
}

PatternPtr makeCommutativeOp(const std::string& typeName, const PatternPtr& a, const PatternPtr& b,
                             const PatternAttributePtr& attribute) {
  return makeAlt(withAttr(makeOp(typeName, a, b), attribute), withAttr(makeOp(typeName, b, a), attribute));
}

PatternAttributePtr makeAttr(const std::string& name, double number) {
  auto attribute = makeNamedAttr(name);
  attribute->number = number;
  return attribute;
}

PatternAttributePtr makeAttr(const std::string& name, const std::string& text) {
  auto attribute = makeNamedAttr(name);
  attribute->text = text;
  return attribute;
}

PatternAttributePtr makeAttr(const std::string& name, const std::vector<double>& values) {
  auto attribute = makeNamedAttr(name);
  attribute->values = values;
  return attribute;
}

}  // namespace netforge::graphrefiner
