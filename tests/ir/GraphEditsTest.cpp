#include <random>
#include "tests/ir/GraphFixture.h"

namespace netforge {
namespace {

using GraphEdits = GraphTest;

TEST_F(GraphEdits, ConsumersAreListedInExecutionOrder) {
  tensor("x");
  Names expected;
  for (int i = 0; i < 20; ++i) {
    op("op" + std::to_string(i), {"x"});
    expected.insert(expected.begin(), "op" + std::to_string(i));
    graph.moveOptoIndex(graph.getOpAt(graph.numOps() - 1), 0);
  }
  IrGraph::OpSet set = graph.getTensor("x")->getConsumers();
  for (const char* name : {"z", "y"}) set.insert(makeOp(name));
  Names found;
  for (const auto& entry : consumersInGraphOrder(graph, set)) found.push_back(entry->getName());
  expected.insert(expected.end(), {"y", "z"});
  EXPECT_EQ(found, expected);
}

TEST_F(GraphEdits, TransfersConsumersHandedInByReference) {
  tensor("x");
  tensor("y");
  op("twice", {"x", "y", "x"}, "Add");
  op("other", {"x"});
  const auto x = graph.getTensor("x");
  graph.transferConsumers(x, graph.getTensor("y"), x->getConsumers());
  EXPECT_EQ(inputsOf("twice"), (Names{"y", "y", "y"}));
  EXPECT_EQ(consumersOf("y"), (Names{"twice", "other"}));
  EXPECT_TRUE(consumersOf("x").empty());
  graph.removeOpAsConsumer(graph.getOp("twice"), graph.getTensor("y"));
  EXPECT_EQ(graph.getOp("twice")->numInputs(), 0u);
  EXPECT_TRUE(graph.getOp("twice")->getStoredInputAxisFormats().empty());
}

TEST_F(GraphEdits, GraphOutputsAreHandedOver) {
  const auto x = tensor("x");
  op("a", {"x"});
  op("b", {"x"});
  op("c", {"x"});
  makeOutput("a");
  makeOutput("b");
  const auto a = graph.getTensor("a");
  const auto c = graph.getTensor("c");
  graph.transferGraphOutputTensor(x, c);
  EXPECT_EQ(c->getTensorType(), TensorType::Native);
  graph.transferGraphOutputTensor(a, c);
  EXPECT_EQ(namesOf(graph.getGraphOutputs()), (Names{"c", "b"}));
  EXPECT_TRUE(c->isGraphOutput());
  EXPECT_TRUE(a->isGraphOutput()) << "the old tensor keeps its type";

  const auto unlisted = std::make_shared<IrTensor>("b", Dims{1}, ORLO_DATATYPE_FLOAT_32, AxisFormat::NF,
                                                   TensorType::GraphOutput, Dims{});
  const auto nameless = std::make_shared<IrTensor>("n", Dims{1}, ORLO_DATATYPE_FLOAT_32, AxisFormat::NF,
                                                   TensorType::GraphOutput, Dims{});
  graph.transferGraphOutputTensor(nameless, a);
  EXPECT_EQ(namesOf(graph.getGraphOutputs()), (Names{"c", "b", "a"})) << "without a place it is appended";
  graph.transferGraphOutputTensor(unlisted, x);
  EXPECT_EQ(namesOf(graph.getGraphOutputs()), (Names{"c", "x", "a"})) << "the place is found by name";
}

TEST_F(GraphEdits, Prune) {
  tensor("x");
  tensor("y");
  opWith({"s0", "s1"}, {"x", "y", "x"}, "Split");
  op("b", {"s1"});
  op("a", {"s1"});
  graph.moveOptoIndex(graph.getOp("a"), 1);
  expectFailures({{'r', "netforge::IrGraph::prune: Cannot prune op s0 which has atleast one successor: a",
                   [&] { graph.prune(graph.getOp("s0")); }}});
  EXPECT_FALSE(graph.hasTensor("s0")) << "outputs in front of the one that is read are gone";
  soundAtEnd = false;
}

TEST_F(GraphEdits, ForcedPruneCutsConsumersOffAndFreesTheOp) {
  tensor("x");
  tensor("y");
  op("a", {"x", "y", "x"}, "Add");
  op("b", {"a", "y"}, "Add");
  makeOutput("a");
  graph.addTraceSources(TraceKind::Op, "a", {{"src", TraceKind::Op}});
  (void)graph.getOps();
  const std::weak_ptr<ops::IrOp> watch = graph.getOp("a");
  graph.prune(graph.getOps()[0], true);
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(opNames(), Names{"b"});
  EXPECT_EQ(inputsOf("b"), Names{"y"});
  EXPECT_FALSE(graph.hasTensor("a"));
  EXPECT_TRUE(graph.hasTensor("x")) << "inputs stay, read or not";
  EXPECT_EQ(graph.getTraceInfo(TraceKind::Op, "a").size(), 1u);
  EXPECT_EQ(namesOf(graph.getGraphOutputs()), Names{"a"}) << "moving a graph output is the caller's work";
  soundAtEnd = false;
}

TEST_F(GraphEdits, PruneOfAnUnreadGraphOutputSucceeds) {
  tensor("x");
  op("a", {"x"});
  graph.prune(graph.getTensor("a")->getProducer());
  EXPECT_EQ(graph.numOps(), 0u);
  EXPECT_FALSE(graph.hasOp("a"));
}

TEST_F(GraphEdits, ReplaceTakesOverLinksPlaceAndTrace) {
  tensor("x");
  op("first", {"x"});
  op("old", {"first"}, "Relu");
  op("last", {"old"});
  graph.addTraceSources(TraceKind::Op, "old", {{"src", TraceKind::Op}});
  (void)graph.getOps();
  const std::weak_ptr<ops::IrOp> watch = graph.getOp("old");
  graph.replace(graph.getOps()[1], makeOp("new", "Sigmoid"));
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(opNames(), (Names{"first", "new", "last"}));
  EXPECT_EQ(consumersOf("first"), Names{"new"});
  EXPECT_EQ(graph.getTensor("old")->getProducer(), graph.getOp("new"));
  EXPECT_EQ(graph.getTensor("old")->getAxisFormat(), AxisFormat::NHWC) << "by rank";
  EXPECT_FALSE(graph.hasOp("old"));
  EXPECT_TRUE(graph.getTraceInfo(TraceKind::Op, "old").empty());
  EXPECT_EQ(graph.getTraceInfo(TraceKind::Op, "new").front().name, "src");
  EXPECT_EQ(graph.countOpsOfType("Sigmoid"), 1u);
  EXPECT_EQ(graph.countOpsOfType("Relu"), 2u);

  const auto namesake = makeOp("new", "Tanh");
  namesake->addInput(graph.getTensor("x"));
  ::testing::internal::CaptureStdout();
  graph.replace(graph.getOp("new"), namesake);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "netforge::IrGraph::replace: The replacement Op: new already has inputs/outputs which might be "
            "replaced with those of the original op.\n\n");
  EXPECT_EQ(graph.getOp("new"), namesake);
  EXPECT_EQ(inputsOf("new"), Names{"first"});
}

TEST_F(GraphEdits, InjectPutsTheOpInItsPlace) {
  tensor("x", {2, 3})->setDataType(ORLO_DATATYPE_FLOAT_16);
  op("a", {"x"});
  op("b", {"a"});
  op("c", {"x"});
  graph.inject(makeOp("onInput"), "x", "onInput", {"c", "a"});
  EXPECT_EQ(opNames(), (Names{"onInput", "a", "b", "c"})) << "before the first consumer in execution order";
  graph.inject(makeOp("behindA"), "a", "behindA", {}, AxisFormat::NF);
  EXPECT_EQ(opNames(), (Names{"onInput", "a", "behindA", "b", "c"}));
  EXPECT_EQ(inputsOf("b"), Names{"behindA"});
  EXPECT_EQ(consumersOf("a"), Names{"behindA"});
  graph.inject(makeOp("unread"), "c", "unread", {});
  graph.prune(graph.getOp("unread"));
  tensor("lonely");
  graph.inject(makeOp("last"), "lonely", "last", {});
  EXPECT_EQ(graph.getOpIndex(graph.getOp("last")), graph.numOps() - 1);

  const auto out = graph.getTensor("onInput");
  EXPECT_EQ(out->getDataType(), ORLO_DATATYPE_FLOAT_32) << "the source type of the input";
  EXPECT_EQ(out->getSrcDataType(), graph.getTensor("x")->getSrcDataType());
  EXPECT_EQ(out->getAxisFormat(), AxisFormat::NOT_YET_DEFINED);
  EXPECT_EQ(graph.getTensor("behindA")->getAxisFormat(), AxisFormat::NF);

  graph.injectAtIndex(makeOp("far"), "b", "far", 1000, {});
  EXPECT_EQ(graph.getOpIndex(graph.getOp("far")), graph.numOps() - 1);
  graph.injectAtIndex(makeOp("near"), "lonely", "near", 1, {"last"});
  EXPECT_EQ(graph.getOpIndex(graph.getOp("near")), 1u);
}

TEST_F(GraphEdits, InjectQuantizableAndDynamicAxes) {
  graph.addTensor(std::make_shared<IrTensor>("x", IrTensorShape({2, 3}, {0}), nullptr, ORLO_DATATYPE_FLOAT_32,
                                             AxisFormat::NF, AxisFormat::NF, TensorType::GraphInput));
  const auto x = graph.getTensor("x");
  x->setQuantizable(false);
  // Passes the shape of its input on, dynamic axes included.
  class Passing : public ops::IrOp {
   public:
    using IrOp::IrOp;
    std::vector<IrTensorShape> inferOutputTensorShapes(const std::shared_ptr<AxisOrder>&,
                                                       std::uint32_t) override {
      return {getInput(0)->getShape()};
    }
  };
  graph.inject(std::make_shared<Passing>("own", "Cast", nullptr), "x", "own", {});
  graph.inject(std::make_shared<Passing>("inherited", "Cast", nullptr), "x", "inherited", {"own"},
               AxisFormat::NF, false, true);
  EXPECT_FALSE(graph.getTensor("own")->getShape().hasDynamicAxes()) << "only the dims are taken";
  EXPECT_TRUE(graph.getTensor("own")->isQuantizable());
  EXPECT_FALSE(graph.getTensor("inherited")->isQuantizable());
}

TEST_F(GraphEdits, FailureTexts) {
  soundAtEnd = false;  // failed injections leave attached ops behind
  tensor("x");
  const auto a = op("a", {"x"});
  op("b", {"a"});
  const IrGraph::OpPtr none;
  const auto x = graph.getTensor("x");
  const std::string head = "netforge::IrGraph::";
  const std::string nullOp = "Invalid op: received null op pointer, expected a valid op";
  const std::string nullTensor = "Invalid tensor: received null tensor pointer, expected a valid tensor";
  const std::string nullOutput = "transferGraphOutputTensor called with null tensor pointer (fromTensor=";
  expectFailures({
      {'r', head + "removeOpAsConsumer: " + nullOp, [&] { graph.removeOpAsConsumer(nullptr, nullptr); }},
      {'r', head + "removeOpAsConsumer: " + nullTensor, [&] { graph.removeOpAsConsumer(a, nullptr); }},
      {'r', head + "transferConsumers: " + nullTensor, [&] { graph.transferConsumers(x, nullptr, {}); }},
      {'r', head + "getConsumers: " + nullTensor, [&] { graph.getConsumers(nullptr, {}); }},
      {'i', head + "getConsumers: Can't inject with a consumer z which isn't in the graph",
       [&] {
         graph.getConsumers(x, {"a", "z"});
       }},
      {'i', head + "getConsumers: Can't inject with a consumer b that doesn't consume input x",
       [&] { graph.getConsumers(x, {"b"}); }},
      {'r', head + "transferGraphOutputTensor: " + nullOutput + "x, toTensor=null)",
       [&] { graph.transferGraphOutputTensor(x, nullptr); }},
      {'r', head + "transferGraphOutputTensor: " + nullOutput + "null, toTensor=x)",
       [&] { graph.transferGraphOutputTensor(nullptr, x); }},
      {'r', head + "prune: " + nullOp, [&] { graph.prune(none, true); }},
      {'r', head + "replace: " + nullOp, [&] { graph.replace(a, nullptr); }},
      {'r', head + "replace: Op b already exists in graph", [&] { graph.replace(a, makeOp("b")); }},
      {'r', head + "replace: Op a already exists in graph", [&] { graph.replace(a, a); }},
      {'r', head + "replace: Op z not found in graph", [&] { graph.replace(makeOp("z"), makeOp("y")); }},
      {'r', head + "inject: " + nullOp, [&] { graph.inject(none, "x", "y", {}); }},
      {'i', head + "inject: Can't inject op n onto a tensor z which is not in the graph",
       [&] { graph.inject(makeOp("n"), "z", "y", {}); }},
      {'r', head + "addTensor: Tensor a already exists!", [&] { graph.inject(makeOp("n"), "x", "a", {}); }},
      {'r', head + "injectAtIndex: " + nullOp, [&] { graph.injectAtIndex(none, "x", "y", 0, {}); }},
      {'i', head + "injectAtIndex: injectAtIndex: tensor 'z' not found in graph.",
       [&] { graph.injectAtIndex(makeOp("n"), "z", "y", 0, {}); }},
  });
  EXPECT_EQ(opNames(), (Names{"a", "b"}));
}

// Random edits of every kind on one graph. What must hold after each is what checkInvariants says.
TEST_F(GraphEdits, InvariantsHoldOverRandomEdits) {
  std::mt19937 random(5);
  const auto below = [&](std::size_t limit) { return static_cast<std::uint32_t>(random() % limit); };
  tensor("x");
  tensor("y");
  for (int i = 0; i < 40; ++i) {
    const std::uint32_t count = graph.numOps();
    const auto source = [&]() -> std::string {
      return count == 0 ? "x" : graph.getOpAt(below(count))->getOutput(0)->getName();
    };
    op("o" + std::to_string(i), {source(), below(3) == 0 ? "y" : source()}, "Add");
    if (i % 9 == 8) makeOutput("o" + std::to_string(i));
  }
  int squashed = 0;
  for (int i = 0; i < 800; ++i) {
    const std::string name = "e" + std::to_string(i);
    const auto chosen = graph.getOpAt(below(graph.numOps()));
    if (chosen->numOutputs() == 0) {  // a squash took its output for unread
      graph.prune(chosen);
      continue;
    }
    const auto output = chosen->getOutput(0);
    switch (below(6)) {
      case 0:
        graph.inject(makeOp(name), output->getName(), name, {});
        break;
      case 1: {
        Names some;
        for (const auto& consumer : output->getConsumers()) {
          if (below(2) == 0) some.push_back(consumer->getName());
        }
        if (!some.empty()) graph.inject(makeOp(name), output->getName(), name, some);
        break;
      }
      case 2:
        graph.replace(chosen, makeOp(name, below(2) == 0 ? "Sub" : "Add"));
        break;
      case 3:
        graph.updateTensorName(output->getName(), name);
        break;
      case 4:
        if (output->getConsumers().empty() && !output->isGraphOutput() && graph.numOps() > 30) {
          graph.prune(chosen);
        }
        break;
      default: {
        if (chosen->numInputs() == 0) break;
        try {
          graph.squash(chosen, chosen->getInput(0)->getName(), below(2) == 0, false);
          ++squashed;
        } catch (const std::runtime_error&) {  // not possible here: unchanged
        }
      }
    }
    ASSERT_EQ(graph.checkInvariants(), Names()) << "after edit " << i;
  }
  EXPECT_GT(squashed, 50);
}

}  // namespace
}  // namespace netforge
