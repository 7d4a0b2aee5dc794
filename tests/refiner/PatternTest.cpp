// What a pattern tree matches, and what it binds.
#include "GraphRefiner/src/Pattern.h"

#include <algorithm>
#include <limits>
#include "RefinerTestSupport.h"
#include "ops/LayoutOps.h"

namespace netforge::graphrefiner::testing {
namespace {

// x -> Relu r -> Add a (r, w) -> Mul m (a, x), with w a constant.
class PatternTest : public ::testing::Test {
 protected:
  PatternTest() {
    addInput(graph, "x", {2, 3});
    addConstant(graph, "w", {3}, values, sizeof(values));
    relu = addPlainOp(graph, "r", "Relu", {"x"});
    add = addPlainOp(graph, "a", "Add", {"r", "w"});
    mul = addPlainOp(graph, "m", "Mul", {"a", "x"});
  }

  const float values[3] = {1, 2, 3};
  GraphPtr graph = std::make_shared<IrGraph>("g");
  OpPtr relu, add, mul;
};

TEST_F(PatternTest, FitsByTypeAndInputs) {
  const auto any = makeWildCard();
  const auto constant = makeConstant();
  const struct {
    const char* label;
    PatternPtr pattern;
    OpPtr op;
    bool fits;
  } cases[] = {
      {"type, exactly", makeOpType("add"), add, false},
      {"producer of the wrong type", makeOp("Add", makeOpType("Tanh")), add, false},
      {"nested", makeOp("Mul", makeOp("Add", makeOp("Relu", any), constant), any), mul, true},
      {"constant on the other side", makeOp("Add", constant, any), add, false},
      {"an op's output is no constant", makeOp("Mul", constant), mul, false},
      {"more patterns than inputs", makeOp("Add", any, constant, makeOpType("Tanh")), add, true},
      {"more inputs than patterns", makeOp("Add", makeOpType("Relu")), add, true},
      {"either order", makeCommutativeOp("Add", constant, any), add, true},
      {"an alternative fits no constant", makeOp("Add", any, makeAlt(constant, constant)), add, false},
      {"an alternative fits no graph input", makeOp("Relu", makeAlt(any, any)), relu, false},
      {"an op pattern fits no constant", makeOp("Add", any, makeOp("Relu", any)), add, false},
      {"a constant is no root", constant, add, false},
  };
  for (const auto& c : cases) EXPECT_EQ(c.pattern->match(c.op), c.fits) << c.label;
  EXPECT_THROW(OpTypePattern("Add").match(add), std::bad_weak_ptr);
}

TEST_F(PatternTest, TensorsWithoutProducerThatAreNoPlainGraphInputs) {
  // An updateable input, an optional input and an unused one have no producer to look at.
  addInput(graph, "updateable", {2, 3});
  graph->getTensor("updateable")->setUpdateable(true);
  addInput(graph, "optional", {2, 3}, TensorType::OptionalInput);
  addInput(graph, "unused", {2, 3}, TensorType::Null);
  const PatternPtr anInput = std::make_shared<InputPattern>();
  for (const char* name : {"updateable", "optional", "unused"}) {
    const OpPtr op = addPlainOp(graph, std::string("of_") + name, "Relu", {name});
    EXPECT_TRUE(makeOp("Relu", makeWildCard())->match(op)) << name;
    EXPECT_FALSE(makeOp("Relu", makeOpType("Relu"))->match(op)) << name;
    EXPECT_FALSE(makeOp("Relu", anInput)->match(op)) << name;
  }
  EXPECT_TRUE(makeOp("Relu", anInput)->match(relu));
  EXPECT_FALSE(makeOp("Mul", anInput)->match(mul));
}

TEST_F(PatternTest, BindsEveryNodeOnTheWayButWildcardsAndTensors) {
  const auto any = makeWildCard();
  const auto constant = makeConstant();
  const auto inner = makeOp("Add", any, constant);
  const auto wrapped = withAttr(inner, makeAttr("k", 1.0));
  const auto either = makeAlt(wrapped, makeOpType("Tanh"));
  const auto root = makeOp("Mul", either, any);
  add->getAttributes()->add("k", 1, ATTR_ORDINARY);
  ASSERT_TRUE(root->match(mul));
  const MatchedOps bound = root->getMatchedOps();
  const auto typeOf = [](const PatternPtr& node) {
    return std::dynamic_pointer_cast<OpPattern>(node)->typePattern;
  };
  EXPECT_EQ(bound, (MatchedOps{{root, mul},
                               {typeOf(root), mul},
                               {either, add},
                               {wrapped, add},
                               {inner, add},
                               {typeOf(inner), add}}));
  EXPECT_EQ(root->getConsumerPatterns(),
            (ConsumerPatterns{{either, {root}}, {wrapped, {either}}, {inner, {wrapped}}, {any, {inner}}}));
  EXPECT_EQ(failureOf<std::out_of_range>([&] { root->getMatchedOps().at(any); }), "invalid map<K, T> key");

  EXPECT_FALSE(root->match(relu));
  EXPECT_EQ(root->getMatchedOps(), bound) << "a failure keeps the bindings of the last success";
}

TEST_F(PatternTest, ATreeDiesWithItsLastUser) {
  // The root is among its own bindings, so bindings that owned their nodes would keep every tree alive.
  auto root = makeOp("Add", makeOpType("Relu"));
  ASSERT_TRUE(root->match(add));
  const std::weak_ptr<Pattern> watched = root;
  root.reset();
  EXPECT_TRUE(watched.expired());
}

TEST_F(PatternTest, TheWayThatMatchedIsKeptApartFromFailedAlternatives) {
  // The swapped order binds `other` to a and then fails at input 1; the straight one finds it at no op.
  const OpPtr sub = addPlainOp(graph, "s", "Sub", {"r", "m"});
  const auto other = makeOpType("Relu");
  const auto product = makeOpType("Mul");
  const auto any = makeWildCard();
  const auto root = makeAlt(makeOp("Sub", any, product), makeOp("Sub", other, makeOpType("Tanh")));
  ASSERT_TRUE(root->match(sub));
  EXPECT_EQ(root->getMatchedOps().count(other), 1u);
  EXPECT_EQ(root->getConsumerPatterns().count(other), 1u);
  EXPECT_EQ(root->getPathMatchedOps().count(other), 0u);
  EXPECT_EQ(root->getPathConsumerPatterns().count(other), 0u);
  EXPECT_EQ(root->getPathMatchedOps().at(product), mul);
  EXPECT_EQ(root->getPathMatchedOps().at(root), sub);

  // A node that the failed alternative had bound elsewhere is free again on the way.
  const auto shared = makeAlt(makeOpType("Relu"), makeOpType("Mul"));
  const auto retry = makeAlt(makeOp("Sub", any, shared), makeOp("Sub", shared, makeOpType("Tanh")));
  ASSERT_TRUE(retry->match(sub));
  EXPECT_EQ(retry->getMatchedOps().at(shared), relu);
  EXPECT_EQ(retry->getPathMatchedOps().at(shared), mul);
}

TEST_F(PatternTest, ShapesAndOptionalOps) {
  const auto any = makeWildCard();
  const auto shaped = [&](const PatternPtr& inner, std::vector<std::uint32_t> dims) -> PatternPtr {
    return std::make_shared<ShapePattern>(inner, dims);
  };
  EXPECT_TRUE(shaped(makeOpType("Relu"), {2, 3})->match(relu));
  EXPECT_FALSE(shaped(makeOpType("Relu"), {3, 2})->match(relu));
  EXPECT_TRUE(makeOp("Add", any, shaped(makeConstant(), {3}))->match(add));
  EXPECT_FALSE(makeOp("Add", any, shaped(makeConstant(), {1, 3}))->match(add));

  const auto optional = [](const PatternPtr& first, const PatternPtr& second) -> PatternPtr {
    return std::make_shared<OptionalPattern>(first, second);
  };
  const auto present = optional(any, makeOpType("Relu"));
  ASSERT_TRUE(makeOp("Add", present)->match(add));
  const auto root = makeOp("Mul", present);
  ASSERT_TRUE(root->match(mul));
  EXPECT_EQ(root->getMatchedOps().at(present), nullptr) << "only the first tree fitted";
  EXPECT_FALSE(makeOp("Mul", optional(makeOpType("Tanh"), makeOpType("Relu")))->match(mul));
}

TEST_F(PatternTest, AttributeValues) {
  const std::int32_t ints[] = {1, -2};
  const std::uint32_t words[] = {1, 0xFFFFFFFF};
  const auto tensor = [](const void* data, DataType type, std::vector<std::uint32_t> dims,
                         std::uint32_t size = 8) {
    return std::make_shared<IrStaticTensor>("t", dims, size, data, type, AxisFormat::ANY, AxisFormat::ANY,
                                            false, TensorType::Static, std::vector<std::uint32_t>{});
  };
  IrAttributes& attributes = *relu->getAttributes();
  const auto add_ = [&](const std::string& name, const auto& value) {
    attributes.add(name, value, ATTR_ORDINARY);
  };
  add_("signed", std::int32_t(13));
  add_("minus", std::int32_t(-1));
  add_("large", std::uint32_t(0xFFFFFFFF));
  add_("flag", true);
  add_("float", 0.1f);
  add_("text", std::string("13"));
  add_("ints", tensor(ints, ORLO_DATATYPE_INT_32, {2}));
  add_("words", tensor(words, ORLO_DATATYPE_UINT_32, {1, 2}));
  add_("bytes", tensor(ints, ORLO_DATATYPE_UINT_8, {2}, 2));
  add_("truncated", tensor(ints, ORLO_DATATYPE_INT_32, {2}, 4));
  const struct {
    PatternAttributePtr wanted;
    bool fits;
  } cases[] = {
      {makeAttr("signed", 13.0), true},
      {makeAttr("signed", 13.5), false},
      {makeAttr("minus", -1.0), true},
      {makeAttr("large", 4294967295.0), true},
      {makeAttr("large", -1.0), false},
      {makeAttr("flag", 1.0), true},
      {makeAttr("float", static_cast<double>(0.1f)), true},
      {makeAttr("float", 0.1), false},
      {makeAttr("text", 13.0), false},
      {makeAttr("text", "13"), true},
      {makeAttr("absent", 0.0), false},
      {makeAttr("ints", std::vector<double>{1, -2}), true},
      {makeAttr("ints", std::vector<double>{1, 2}), false},
      {makeAttr("words", std::vector<double>{1, 4294967295.0}), true},
      {makeAttr("bytes", std::vector<double>{1, 0}), false},
      {makeAttr("truncated", std::vector<double>{1, -2}), false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(withAttr(makeOpType("Relu"), c.wanted)->match(relu), c.fits)
        << c.wanted->name << " " << c.wanted->number;
  }
}

TEST(PossibleRootTypes, OfEveryKindOfNode) {
  const auto any = makeWildCard();
  const auto attribute = makeAttr("operation", 13.0);
  using Types = std::set<std::string>;
  EXPECT_EQ(possibleRootTypes(makeOp("Mul", makeOp("Add", any))), (Types{"Mul"}));
  EXPECT_EQ(possibleRootTypes(makeCommutativeOp("Mul", any, makeOpType("Add"), attribute)), (Types{"Mul"}));
  EXPECT_EQ(possibleRootTypes(
                makeAlt(withAttr(makeOpType("A"), attribute), makeAlt(makeOpType("B"), makeOpType("C")))),
            (Types{"A", "B", "C"}));
  EXPECT_EQ(possibleRootTypes(withInputs(makeAlt(makeOpType("A"), makeOpType("B")), {any})),
            (Types{"A", "B"}));
  EXPECT_EQ(possibleRootTypes(makeAlt(makeOpType("A"), any)), std::nullopt);
  EXPECT_EQ(possibleRootTypes(any), std::nullopt);
  EXPECT_EQ(possibleRootTypes(makeConstant()), Types{});
}

}  // namespace
}  // namespace netforge::graphrefiner::testing
