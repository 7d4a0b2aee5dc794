// The rule engine: which ops a walk visits, when a match counts as isolated, and what is cleaned up.
#include "GraphRefiner/src/Rules.h"

#include <algorithm>
#include "RefinerTestSupport.h"

namespace netforge::graphrefiner::testing {
namespace {

using Names = std::vector<std::string>;

class ScriptedRule : public MatchAndRewriteRule {
 public:
  using Script = std::function<bool(GraphPtr&, MatchedOps&)>;
  ScriptedRule(const PatternPtr& root, Script givenScript, bool isolated = true)
      : script(std::move(givenScript)) {
    pattern = root;
    requireIsolatedMatch = isolated;
  }
  bool rewriteCallback(GraphPtr& graph, MatchedOps& matchedOps) override {
    visited.push_back(matchedOps.at(pattern)->getName());
    return script(graph, matchedOps);
  }
  Names visited;  // names of the ops at the root, in order

 private:
  Script script;
};

bool declines(GraphPtr&, MatchedOps&) {
  return false;
}
bool claimsChange(GraphPtr&, MatchedOps&) {
  return true;
}

// Puts a fresh op of type "New" that reads the root's producer chain's input in the root's place: the readers
// of the root's output read the new op, and nothing is removed.
ScriptedRule::Script takeOverBy(const std::string& type, const PatternPtr& root, const std::string& source) {
  return [=](GraphPtr& graph, MatchedOps& matchedOps) {
    const OpPtr old = matchedOps.at(root);
    addPlainOp(graph, "new_" + old->getName(), type, {source});
    graph->moveOptoIndex(graph->getOp("new_" + old->getName()), graph->getOpIndex(old));
    const auto output = old->getOutput(0);
    graph->transferConsumers(output, graph->getTensor("new_" + old->getName()), output->getConsumers());
    return true;
  };
}

TEST(RuleWalk, VisitsTheSnapshotFromTheLastOpToTheFirst) {
  GraphPtr graph = makeChain({"Relu", "Tanh", "Relu", "Cast", "Tanh"});
  const struct {
    PatternPtr pattern;
    Names visited;
  } cases[] = {
      {makeOpType("Relu"), {"op2", "op0"}},
      {makeAlt(makeOpType("Relu"), makeOpType("Tanh")), {"op4", "op2", "op1", "op0"}},
      {makeAlt(makeOpType("Tanh"), withAttr(makeOpType("Relu"), makeAttr("k", 1.0))), {"op4", "op1"}},
      {makeConstant(), {}},
  };
  for (const auto& c : cases) {
    ScriptedRule rule(c.pattern, declines);
    EXPECT_FALSE(rule.apply(graph, 0));
    EXPECT_EQ(rule.visited, c.visited);
  }

  // Ops that the walk creates wait for the next walk.
  const auto root = makeOpType("Relu");
  ScriptedRule creating(root, [&](GraphPtr& g, MatchedOps& bound) {
    addPlainOp(g, "more_" + bound.at(root)->getName(), "Relu", {"x"});
    return true;
  });
  EXPECT_TRUE(creating.apply(graph, 1));
  EXPECT_EQ(creating.visited, (Names{"op2", "op0"}));
  ScriptedRule next(makeOpType("Relu"), declines);
  next.apply(graph, 0);
  EXPECT_EQ(next.visited, (Names{"more_op0", "more_op2", "op2", "op0"}));
}

TEST(RuleWalk, TheOpsOfTheLatestRewriteAreNoRootsAgain) {
  // A pair of equal ops is bound by the walk's first match; the inner op is then passed over.
  const auto pairOf = [] { return makeOp("Relu", makeOpType("Relu")); };
  for (const bool changes : {true, false}) {
    GraphPtr graph = makeChain({"Relu", "Relu", "Relu", "Relu"});
    graph->getTensor("op3")->setTensorType(TensorType::GraphOutput);
    ScriptedRule rule(pairOf(), changes ? claimsChange : declines);
    EXPECT_EQ(rule.apply(graph, 0), changes);
    EXPECT_EQ(rule.visited, changes ? (Names{"op3", "op1"}) : (Names{"op3", "op2", "op1"}));
  }
  GraphPtr graph = makeChain({"Relu", "Relu", "Relu"});
  ScriptedRule keeping(pairOf(), claimsChange);
  keeping.apply(graph, 1);
  EXPECT_EQ(keeping.visited, (Names{"op2", "op1"})) << "without clean-up nothing is remembered";
}

TEST(RuleWalk, OpsThatAreGoneOrReplacedUnderTheirNameAreNoRoots) {
  const auto remove = [](GraphPtr& g, MatchedOps&) {
    if (g->hasTensor("op0")) g->squash(g->getOp("op0"), "x", false, false);
    return true;
  };
  const auto replace = [](GraphPtr& g, MatchedOps&) {
    g->replace(g->getOp("op0"), std::make_shared<ops::IrOp>("op0", "Tanh", nullptr));
    return true;
  };
  for (const ScriptedRule::Script& edit : {ScriptedRule::Script(remove), ScriptedRule::Script(replace)}) {
    GraphPtr graph = makeChain({"Relu", "Relu", "Relu"});
    ScriptedRule rule(makeOpType("Relu"), edit);
    rule.apply(graph, 1);
    EXPECT_EQ(rule.visited, (Names{"op2", "op1"}));
  }
}

TEST(RuleWalk, TheNextRuleSeesWhatTheFirstOneDid) {
  GraphPtr graph = makeChain({"Relu", "Tanh"});
  graph->getTensor("op1")->setTensorType(TensorType::GraphOutput);
  const auto relu = makeOpType("Relu");
  auto first = std::make_shared<ScriptedRule>(relu, takeOverBy("New", relu, "x"));
  auto second = std::make_shared<ScriptedRule>(makeOpType("New"), declines);
  SequenceTransformPass pass({first, second});
  EXPECT_TRUE(pass.run(graph));
  EXPECT_EQ(second->visited, Names{"new_op0"});
  EXPECT_EQ(opNames(graph), (Names{"new_op0", "op1"}));
  EXPECT_FALSE(pass.run(graph));
  expectSound(graph);
}

// r -> a (Add of r and another op's output); the pattern binds a and r.
TEST(Isolation, OpsInsideTheMatchMustNotBeReadOutside) {
  for (const std::string tensor : {"a", "r"}) {
    auto graph = std::make_shared<IrGraph>("g");
    addInput(graph, "x", {2, 3});
    addPlainOp(graph, "r", "Relu", {"x"});
    addPlainOp(graph, "a", "Add", {"r", "x"});
    makeGraphOutput(graph, "r");
    addPlainOp(graph, "reader", "Cast", {tensor});
    ScriptedRule rule(makeCommutativeOp("Add", makeOp("Relu", makeWildCard()), makeWildCard()), declines);
    rule.apply(graph, 0);
    EXPECT_EQ(rule.visited, tensor == "a" ? Names{"a"} : Names{});
    ScriptedRule careless(makeOp("Add", makeOpType("Relu")), declines, false);
    careless.apply(graph, 0);
    EXPECT_EQ(careless.visited, Names{"a"});
  }
}

TEST(Isolation, FailedAlternativesTakeNoPart) {
  // The first attempt binds the Relu p, which has a reader outside; the one that fits does not touch it.
  auto graph = std::make_shared<IrGraph>("g");
  addInput(graph, "x", {2, 3});
  addPlainOp(graph, "p", "Relu", {"x"});
  addPlainOp(graph, "outside", "Cast", {"p"});
  addPlainOp(graph, "t", "Tanh", {"p"});
  addPlainOp(graph, "a", "Add", {"p", "t"});
  ScriptedRule rule(makeAlt(makeOp("Add", makeWildCard(), makeOpType("Tanh")),
                            makeOp("Add", makeOpType("Relu"), makeOpType("Gather"))),
                    declines);
  rule.apply(graph, 0);
  EXPECT_EQ(rule.visited, Names{"a"});
}

TEST(CleanUp, RemovesWhatTheRewriteLeftDead) {
  const auto nothing = [](const GraphPtr&) {};
  const auto readFirst = [](const GraphPtr& g) { addPlainOp(g, "reader", "Cast", {"op0"}); };
  const auto output = [](TensorType type) {
    return [type](const GraphPtr& g) { g->getTensor("op1")->setTensorType(type); };
  };
  const struct {
    const char* label;
    std::function<void(const GraphPtr&)> prepare;
    std::uint32_t keepMatchedOps;
    Names ops;
  } cases[] = {
      {"the bound ops and what feeds them alone", nothing, 0, {"new_op2", "op3"}},
      {"nothing, on demand", nothing, 1, {"op0", "op1", "new_op2", "op2", "op3"}},
      {"a producer that is read stays", readFirst, 0, {"op0", "new_op2", "op3", "reader"}},
      {"a graph output inside stays", output(TensorType::GraphOutput), 0, {"op0", "op1", "new_op2", "op3"}},
      {"an optional one too", output(TensorType::OptionalOutput), 0, {"op0", "op1", "new_op2", "op3"}},
  };
  for (const auto& c : cases) {
    GraphPtr graph = makeChain({"Relu", "Tanh", "Add", "Cast"});
    c.prepare(graph);
    const auto root = makeOp("Add", makeOpType("Tanh"));
    ScriptedRule rule(root, takeOverBy("New", root, "x"));
    EXPECT_TRUE(rule.apply(graph, c.keepMatchedOps));
    EXPECT_EQ(opNames(graph), c.ops) << c.label;
    EXPECT_TRUE(graph->hasTensor("x"));
    expectSound(graph);
  }
}

TEST(CleanUp, AnOutputThatMovedToAnotherProducerStays) {
  GraphPtr graph = makeChain({"Relu", "Cast"});
  const auto root = makeOpType("Relu");
  ScriptedRule rule(root, [&](GraphPtr& g, MatchedOps& bound) {
    const auto output = bound.at(root)->getOutput(0);
    auto op = std::make_shared<ops::IrOp>("new", "New", nullptr);
    op->addInput(g->getTensor("x"));
    g->getTensor("x")->addConsumer(op);
    op->addOutput(output);
    output->setProducer(op);
    g->addOp(op, 0, false);
    return true;
  });
  rule.apply(graph, 0);
  EXPECT_EQ(opNames(graph), (Names{"new", "op1"}));
  EXPECT_TRUE(graph->hasTensor("op0"));
  expectSound(graph);
}

TEST(RemoveDeadOp, AHalfThatIsReadKeepsItsSplit) {
  auto graph = std::make_shared<IrGraph>("g");
  addInput(graph, "x", {2, 3});
  addPlainOp(graph, "dead", "Relu", {"x"});
  graph->addOp(std::make_shared<ops::IrOp>("split", "Split", nullptr), {"x"}, {"half0", "half1"},
               {IrTensorShape({2, 1}), IrTensorShape({2, 2})}, {}, -1, false);
  addPlainOp(graph, "reader", "Cast", {"half1"});
  addPlainOp(graph, "top", "Add", {"dead", "dead", "half0"});  // one tensor at two inputs
  removeDeadOp(graph, graph->getOps().back());
  EXPECT_EQ(opNames(graph), (Names{"split", "reader"}));
  EXPECT_FALSE(graph->hasTensor("dead"));
  expectSound(graph);
}

TEST(RemoveDeadOp, ALongDeadChainNeedsNoDeepStack) {
  GraphPtr graph = makeChain(std::vector<std::string>(20000, "Relu"));
  removeDeadOp(graph, graph->getOps().back());
  EXPECT_EQ(graph->numOps(), 0u);
  EXPECT_EQ(graph->numTensors(), 1u);
}

}  // namespace
}  // namespace netforge::graphrefiner::testing
