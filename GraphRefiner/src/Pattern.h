#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace netforge {
class IrTensor;
namespace ops {
class IrOp;
}
}  // namespace netforge

namespace netforge::graphrefiner {

// A rule describes what it looks for as a small tree of pattern nodes. The root describes the last op of the
// shape that is sought, and the tree grows towards that op's inputs, so a match walks the graph against the
// direction of data flow. Matching reads the graph and changes nothing.
//
// A node is held by shared_ptr and may stand at several places of a tree: it keeps the first op that is bound
// to it, and the later places need not fit the same op.

class Pattern;
using PatternPtr = std::shared_ptr<Pattern>;

/// Which op each node of a tree has bound. Checked lookup fails with one text on every standard library. Keys
/// are ordered by address: whoever walks the map and shows the order, sorts by the ops' places in the graph.
class MatchedOps : public std::map<PatternPtr, std::shared_ptr<ops::IrOp>> {
 public:
  using Base = std::map<PatternPtr, std::shared_ptr<ops::IrOp>>;
  using Base::Base;
  /// Throws std::out_of_range for a node without a binding.
  std::shared_ptr<ops::IrOp>& at(const PatternPtr& key) {
    const auto it = find(key);
    if (it == end()) throw std::out_of_range("invalid map<K, T> key");
    return it->second;
  }
  const std::shared_ptr<ops::IrOp>& at(const PatternPtr& key) const {
    const auto it = find(key);
    if (it == end()) throw std::out_of_range("invalid map<K, T> key");
    return it->second;
  }
};

/// For each node, the nodes that reached it.
using ConsumerPatterns = std::map<PatternPtr, std::set<PatternPtr>>;

/// An attribute value that is asked for; only the field of the attribute's kind is read.
struct PatternAttribute {
  std::string name;
  double number = 0.0;
  std::string text;
  std::vector<double> values;
};
using PatternAttributePtr = std::shared_ptr<PatternAttribute>;

class Pattern : public std::enable_shared_from_this<Pattern> {
 public:
  virtual ~Pattern();

  /// Whether the tree below this node fits with `op` at the root. A success replaces the maps below, a
  /// failure leaves those of the last success. The maps keep ops alive, not tensors. Throws std::bad_weak_ptr
  /// for a node that no shared_ptr holds, and what the loading of a constant that is compared throws.
  bool match(const std::shared_ptr<ops::IrOp>& op);

  /// All bindings of the last success, and all nodes that reached a node. What an alternative had bound
  /// before it failed stays in here.
  MatchedOps getMatchedOps() const;
  ConsumerPatterns getConsumerPatterns() const;

  /// The same without what failed alternatives left: exactly the nodes on the way that matched. The rule
  /// engine tests isolation and cleans up by these, since a binding of a failed alternative may be any op of
  /// the graph.
  MatchedOps getPathMatchedOps() const;
  ConsumerPatterns getPathConsumerPatterns() const;

 private:
  // Weak, since a root is among its own bindings and would keep itself alive.
  using Bindings = std::vector<std::pair<std::weak_ptr<Pattern>, std::shared_ptr<ops::IrOp>>>;
  using Links = std::vector<std::pair<std::weak_ptr<Pattern>, std::weak_ptr<Pattern>>>;
  static Bindings store(const MatchedOps& ops);
  static Links store(const ConsumerPatterns& consumers);
  static MatchedOps restore(const Bindings& bindings);
  static ConsumerPatterns restore(const Links& links);

  Bindings bindings;
  Links links;
  Bindings pathBindings;
  Links pathLinks;
};

/// An op of exactly this type.
class OpTypePattern : public Pattern {
 public:
  explicit OpTypePattern(const std::string& opType);
  std::string opType;
};

/// An op that fits `typePattern` and whose listed inputs fit their patterns. An entry at or beyond the number
/// of the op's inputs is passed over, so a pattern with three inputs fits an op with two; further inputs are
/// not looked at.
class OpPattern : public Pattern {
 public:
  OpPattern(const PatternPtr& typePattern, const std::map<std::int32_t, PatternPtr>& inputs);
  std::map<std::int32_t, PatternPtr> inputs;
  PatternPtr typePattern;
};

/// Either of two trees; `second` is tried first. Fits ops only: at an input that no op produces it fails.
class AltPattern : public Pattern {
 public:
  AltPattern(const PatternPtr& first, const PatternPtr& second);
  PatternPtr first;
  PatternPtr second;
};

/// `inner` fits and the op has all these attribute values. Numbers compare as double, exactly; a tensor
/// compares element by element.
class AttrPattern : public Pattern {
 public:
  AttrPattern(const PatternPtr& inner, const std::vector<PatternAttributePtr>& attributes);
  PatternPtr inner;
  std::vector<PatternAttributePtr> attributes;
};

/// Any op and any tensor; binds nothing.
class WildCardPattern : public Pattern {};

/// An input that is a static tensor; binds nothing.
class ConstantPattern : public Pattern {};

/// An input that is a graph input; binds nothing.
class InputPattern : public Pattern {};

/// `inner` fits, and the dims (of the op's first output as it is inferred in spatial-first order, or of the
/// tensor) are these.
class ShapePattern : public Pattern {
 public:
  ShapePattern(const PatternPtr& inner, const std::vector<std::uint32_t>& dims);
  PatternPtr inner;
  std::vector<std::uint32_t> dims;
};

/// Like AltPattern, but binds no op when only `first` fits.
class OptionalPattern : public Pattern {
 public:
  OptionalPattern(const PatternPtr& first, const PatternPtr& second);
  PatternPtr first;
  PatternPtr second;
};

/// The types of ops that a tree can match at its root; none means any type. The rule engine passes over all
/// other ops without a match.
std::optional<std::set<std::string>> possibleRootTypes(const PatternPtr& pattern);

// Makers.

PatternPtr makeOpType(const std::string& typeName);
PatternPtr makeConstant();
PatternPtr makeWildCard();
PatternPtr makeAlt(const PatternPtr& first, const PatternPtr& second);
/// The list gives inputs 0, 1, 2 ...
PatternPtr withInputs(const PatternPtr& typePattern, const std::vector<PatternPtr>& inputs);
PatternPtr makeOp(const std::string& typeName, const PatternPtr& a);
PatternPtr makeOp(const std::string& typeName, const PatternPtr& a, const PatternPtr& b);
PatternPtr makeOp(const std::string& typeName, const PatternPtr& a, const PatternPtr& b, const PatternPtr& c);
PatternPtr withAttr(const PatternPtr& pattern, const PatternAttributePtr& attribute);
/// An op whose two inputs may stand in either order; the swapped one is tried first.
PatternPtr makeCommutativeOp(const std::string& typeName, const PatternPtr& a, const PatternPtr& b);
PatternPtr makeCommutativeOp(const std::string& typeName, const PatternPtr& a, const PatternPtr& b,
                             const PatternAttributePtr& attribute);
PatternAttributePtr makeAttr(const std::string& name, double number);
PatternAttributePtr makeAttr(const std::string& name, const std::string& text);
PatternAttributePtr makeAttr(const std::string& name, const std::vector<double>& values);

}  // namespace netforge::graphrefiner
