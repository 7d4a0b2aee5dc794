// The matcher: Pattern::match and what it needs.
#include <algorithm>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/Pattern.h"
#include "GraphRefiner/src/RawData.h"
#include "ir/AxisOrder.h"
#include "ir/IrOp.h"
#include "ir/IrTensor.h"

namespace netforge::graphrefiner {

namespace {

// The maps of one match. What happens on the way that finally matches is kept apart from what failed
// alternatives left, by a journal that is wound back when one fails.
struct MatchState {
  struct Mark {
    std::size_t bindings;
    std::size_t links;
  };

  void bind(const PatternPtr& pattern, const OpPtr& op) {
    matchedOps.emplace(pattern, op);
    if (pathMatchedOps.emplace(pattern, op).second) boundOnPath.push_back(pattern);
  }
  void link(const PatternPtr& pattern, const PatternPtr& parent) {
    consumerPatterns[pattern].insert(parent);
    if (pathConsumerPatterns[pattern].insert(parent).second) linkedOnPath.emplace_back(pattern, parent);
  }
  Mark mark() const { return {boundOnPath.size(), linkedOnPath.size()}; }
  void windBack(const Mark& before) {
    for (; boundOnPath.size() > before.bindings; boundOnPath.pop_back())
      pathMatchedOps.erase(boundOnPath.back());
    for (; linkedOnPath.size() > before.links; linkedOnPath.pop_back()) {
      const auto entry = pathConsumerPatterns.find(linkedOnPath.back().first);
      entry->second.erase(linkedOnPath.back().second);
      if (entry->second.empty()) pathConsumerPatterns.erase(entry);
    }
  }

  MatchedOps matchedOps;
  ConsumerPatterns consumerPatterns;
  MatchedOps pathMatchedOps;
  ConsumerPatterns pathConsumerPatterns;
  std::vector<PatternPtr> boundOnPath;
  std::vector<std::pair<PatternPtr, PatternPtr>> linkedOnPath;
};

template <class T>
bool elementsEqual(const std::uint8_t* data, const std::vector<double>& values) {
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (static_cast<double>(loadElement<T>(data, i)) != values[i]) return false;
  }
  return true;
}

bool tensorEquals(IrStaticTensor& tensor, const std::vector<double>& values) {
  // Unlike IrTensor::elements, a tensor without dims counts as one element here.
  std::uint64_t count = 1;
  for (const std::uint32_t dim : tensor.getDims()) count *= dim;
  if (count != values.size()) return false;
  const DataType type = tensor.getDataType();
  if (type != ORLO_DATATYPE_INT_32 && type != ORLO_DATATYPE_UINT_32 && type != ORLO_DATATYPE_FLOAT_32)
    return false;
  const std::uint8_t* data = tensor.getData();
  if (tensor.getDataSize() < count * 4 || (data == nullptr && count != 0)) return false;
  switch (type) {
    case ORLO_DATATYPE_INT_32:
      return elementsEqual<std::int32_t>(data, values);
    case ORLO_DATATYPE_UINT_32:
      return elementsEqual<std::uint32_t>(data, values);
    default:
      return elementsEqual<float>(data, values);
  }
}

bool attributeEquals(const IrAttribute& value, const PatternAttribute& wanted) {
  if (value.attrType == ORLO_PARAMTYPE_SCALAR) {
    if (value.isString()) return value.stringValue == wanted.text;
    if (value.isIntegerType()) return static_cast<double>(value.intValue) == wanted.number;
    if (value.isFloatType()) return static_cast<double>(value.floatValue) == wanted.number;
    return true;
  }
  if (value.attrType == ORLO_PARAMTYPE_TENSOR) {
    return value.tensorValue != nullptr && tensorEquals(*value.tensorValue, wanted.values);
  }
  return false;
}

bool attributesFit(ops::IrOp& op, const std::vector<PatternAttributePtr>& attributes) {
  const auto& present = op.getAttributes()->entries();
  return std::all_of(attributes.begin(), attributes.end(), [&](const PatternAttributePtr& wanted) {
    const auto entry = present.find(wanted->name);
    return entry != present.end() && attributeEquals(entry->second, *wanted);
  });
}

// An input that no op produces. Binds and links nothing.
bool matchTensor(const PatternPtr& pattern, const std::shared_ptr<IrTensor>& tensor) {
  const Pattern* node = pattern.get();
  if (dynamic_cast<const ConstantPattern*>(node) != nullptr) return tensor->isStatic();
  if (dynamic_cast<const InputPattern*>(node) != nullptr) return tensor->getRuntimeTensorType() == 0;
  if (const auto* shape = dynamic_cast<const ShapePattern*>(node)) {
    return matchTensor(shape->inner, tensor) && tensor->getDims() == shape->dims;
  }
  return dynamic_cast<const WildCardPattern*>(node) != nullptr;
}

bool matchNode(MatchState& state, const PatternPtr& pattern, OpPtr op, const PatternPtr& parent);

bool matchInputs(MatchState& state, const std::map<std::int32_t, PatternPtr>& inputs, const OpPtr& op,
                 const PatternPtr& parent) {
  for (const auto& [index, inputPattern] : inputs) {
    if (index < 0 || static_cast<std::uint32_t>(index) >= op->numInputs()) continue;
    const auto tensor = op->getInput(static_cast<std::uint32_t>(index));
    const OpPtr producer =
        tensor->isStatic() || tensor->getRuntimeTensorType() == 0 ? nullptr : tensor->getProducer();
    const bool fits =
        producer ? matchNode(state, inputPattern, producer, parent) : matchTensor(inputPattern, tensor);
    if (!fits) return false;
  }
  return true;
}

bool firstOutputHasDims(ops::IrOp& op, const std::vector<std::uint32_t>& dims) {
  const auto shapes = op.inferOutputShapes(std::make_shared<SpatialFirstAxisOrder>(), op.numOutputs());
  return !shapes.empty() && shapes.front() == dims;
}

// Tries a tree; what it bound on the way is taken back when it fails.
bool tryAlternative(MatchState& state, const PatternPtr& tree, const OpPtr& op, const PatternPtr& parent) {
  const MatchState::Mark before = state.mark();
  if (matchNode(state, tree, op, parent)) return true;
  state.windBack(before);
  return false;
}

bool matchNode(MatchState& state, const PatternPtr& pattern, OpPtr op, const PatternPtr& parent) {
  Pattern* node = pattern.get();
  bool binds = true;
  if (const auto* opNode = dynamic_cast<OpPattern*>(node)) {
    if (!matchNode(state, opNode->typePattern, op, nullptr)) return false;
    if (!matchInputs(state, opNode->inputs, op, pattern)) return false;
  } else if (const auto* typeNode = dynamic_cast<OpTypePattern*>(node)) {
    if (op->getType() != typeNode->opType) return false;
  } else if (const auto* altNode = dynamic_cast<AltPattern*>(node)) {
    if (!tryAlternative(state, altNode->second, op, pattern) &&
        !tryAlternative(state, altNode->first, op, pattern)) {
      return false;
    }
  } else if (const auto* attrNode = dynamic_cast<AttrPattern*>(node)) {
    if (!matchNode(state, attrNode->inner, op, pattern)) return false;
    if (!attributesFit(*op, attrNode->attributes)) return false;
  } else if (const auto* shapeNode = dynamic_cast<ShapePattern*>(node)) {
    if (!matchNode(state, shapeNode->inner, op, pattern)) return false;
    if (!firstOutputHasDims(*op, shapeNode->dims)) return false;
  } else if (dynamic_cast<WildCardPattern*>(node) != nullptr) {
    binds = false;
  } else if (const auto* optionalNode = dynamic_cast<OptionalPattern*>(node)) {
    if (!tryAlternative(state, optionalNode->second, op, pattern)) {
      if (!tryAlternative(state, optionalNode->first, op, pattern)) return false;
      op = nullptr;
    }
  } else {
    return false;
  }
  if (parent) state.link(pattern, parent);
  if (binds) state.bind(pattern, op);
  return true;
}

}  // namespace

bool Pattern::match(const OpPtr& op) {
  const PatternPtr self = shared_from_this();
  MatchState state;
  if (!matchNode(state, self, op, nullptr)) return false;
  bindings = store(state.matchedOps);
  links = store(state.consumerPatterns);
  pathBindings = store(state.pathMatchedOps);
  pathLinks = store(state.pathConsumerPatterns);
  return true;
}

}  // namespace netforge::graphrefiner
