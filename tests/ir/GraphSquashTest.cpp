#include "tests/ir/GraphFixture.h"

namespace netforge {
namespace {

class GraphSquash : public GraphTest {
 protected:
  static QuantInfo encoding(float scale) {
    QuantInfo info;
    info.encoding = QuantEncodingKind::ScaleOffset;
    info.scaleOffset.scale = scale;
    return info;
  }

  void trace(TraceKind kind, const std::string& name, const Names& sources) {
    for (auto it = sources.rbegin(); it != sources.rend(); ++it) {
      graph.addTraceSources(kind, name, {{*it, TraceKind::Op}});
    }
  }

  Names traceOf(const std::string& opName) const {
    Names names;
    for (const auto& source : graph.getTraceInfo(TraceKind::Op, opName)) names.push_back(source.name);
    return names;
  }
};

TEST_F(GraphSquash, ProducerWritesTheOutputWhenNobodyElseReadsTheInput) {
  tensor("x");
  op("p", {"x"});
  op("side", {"x"});
  op("s", {"p", "side", "x", "side"}, "Add");
  op("r", {"s"});
  makeOutput("s");
  trace(TraceKind::Op, "s", {"s1", "both"});
  trace(TraceKind::Tensor, "side", {"t1"});
  trace(TraceKind::Op, "p", {"both", "p1"});
  const auto out = graph.getTensor("s");
  const auto input = graph.getTensor("p");
  graph.squash(graph.getOps()[2], input->getName(), false, false);

  EXPECT_EQ(graph.getTensor("s"), out);
  EXPECT_EQ(out->getProducer(), graph.getOp("p"));
  EXPECT_EQ(namesOf(graph.getOp("p")->getOutputs()), Names{"s"});
  EXPECT_FALSE(graph.hasTensor("p"));
  EXPECT_FALSE(graph.hasTensor("side")) << "an input that nobody reads any more goes";
  EXPECT_EQ(graph.getOp("side")->numOutputs(), 0u);
  EXPECT_TRUE(graph.hasTensor("x"));
  EXPECT_EQ(inputsOf("r"), Names{"s"});
  EXPECT_EQ(opNames(), (Names{"p", "side", "r"}));
  EXPECT_EQ(traceOf("p"), (Names{"s1", "both", "t1", "p1"}));
  EXPECT_TRUE(traceOf("s").empty());
}

TEST_F(GraphSquash, UnreadGraphInputStays) {
  tensor("x");
  tensor("app");
  op("p", {"x"});
  op("s", {"p", "app"}, "Add");
  op("r", {"s"});
  graph.squash(graph.getOp("s"), "p", false, false);
  EXPECT_TRUE(graph.hasTensor("app"));
  EXPECT_TRUE(consumersOf("app").empty());
  EXPECT_EQ(namesOf(graph.getGraphInputs()), (Names{"x", "app"}));
}

TEST_F(GraphSquash, ReadersMoveToTheInputOtherwise) {
  struct Row {
    std::string why;
    std::function<void()> prepare;
    bool keepInput;
  };
  // Each keeps the input `p` although its producer could write the output.
  for (const Row& row : std::vector<Row>{
           {"a second reader", [this] { op("other", {"p"}); }, false},
           {"keepInput", [] {}, true},
           {"the input is a graph output", [this] { makeOutput("p"); }, false},
       }) {
    SCOPED_TRACE(row.why);
    while (graph.numOps() > 0) graph.prune(graph.getOpAt(graph.numOps() - 1), true);
    if (!graph.hasTensor("x")) tensor("x");
    op("p", {"x"});
    op("s", {"p"});
    op("r", {"s", "s"}, "Add");
    row.prepare();
    graph.removeTraceInfo(TraceKind::Op, "r");
    trace(TraceKind::Op, "s", {"s1", "both"});
    trace(TraceKind::Op, "r", {"r1", "both"});
    graph.squash(graph.getOp("s"), "p", row.keepInput, false);
    EXPECT_FALSE(graph.hasTensor("s"));
    EXPECT_EQ(inputsOf("r"), (Names{"p", "p"}));
    EXPECT_EQ(traceOf("r"), (Names{"s1", "both", "r1"}));
    EXPECT_EQ(graph.getTensor("p")->getProducer(), graph.getOp("p"));
    EXPECT_EQ(graph.checkInvariants(), Names());
  }
}

TEST_F(GraphSquash, GraphInputSurvives) {
  tensor("x");
  op("s", {"x"});
  op("r", {"s"});
  graph.squash(graph.getOp("s"), graph.getTensor("x")->getName(), false, false);
  EXPECT_EQ(inputsOf("r"), Names{"x"});
  EXPECT_EQ(opNames(), Names{"r"});
}

TEST_F(GraphSquash, EncodingsMove) {
  struct Row {
    bool inputEncoded, outputEncoded, transfer;
    float expected;  // scale of the surviving tensor, 0 for none
  };
  for (const bool keepInput : {false, true}) {
    for (const Row& row : std::vector<Row>{{true, false, true, keepInput ? 1.0f : 1.0f},
                                           {true, false, false, keepInput ? 1.0f : 0.0f},
                                           {false, true, true, 2.0f},
                                           {false, true, false, keepInput ? 0.0f : 2.0f},
                                           {true, true, true, 2.0f}}) {
      SCOPED_TRACE(::testing::Message()
                   << keepInput << row.inputEncoded << row.outputEncoded << row.transfer);
      while (graph.numOps() > 0) graph.prune(graph.getOpAt(graph.numOps() - 1), true);
      if (!graph.hasTensor("x")) tensor("x");
      op("p", {"x"});
      op("s", {"p"});
      op("r", {"s"});
      if (row.inputEncoded) graph.getTensor("p")->setQInfo(ORLO_DATATYPE_UFIXED_POINT_8, encoding(1.0f));
      if (row.outputEncoded) graph.getTensor("s")->setQInfo(ORLO_DATATYPE_UFIXED_POINT_8, encoding(2.0f));
      graph.squash(graph.getOp("s"), "p", keepInput, row.transfer);
      const auto survivor = graph.getOp("r")->getInput(0);
      EXPECT_EQ(survivor->getName(), keepInput ? "p" : "s");
      EXPECT_EQ(survivor->isQuantized(), row.expected != 0.0f);
      EXPECT_EQ(survivor->getQuantInfo().scaleOffset.scale, row.expected);
    }
  }
}

TEST_F(GraphSquash, EncodingStaysAwayFromATensorThatTakesNone) {
  const auto from = tensor("from");
  const auto to = tensor("to");
  from->setQInfo(ORLO_DATATYPE_UFIXED_POINT_8, encoding(1.0f));
  from->setUpdateable(true);
  to->setQuantizable(false);
  graph.transferQuantInfo(from, to, true);
  graph.transferQuantInfo(to, from, true);
  EXPECT_FALSE(to->isQuantized());
  EXPECT_FALSE(to->isUpdateable());
  to->setQuantizable(true);
  graph.transferQuantInfo(to, from, true);
  EXPECT_TRUE(to->isQuantized());
  EXPECT_TRUE(to->isUpdateable());
}

TEST_F(GraphSquash, RefusalsLeaveTheGraphAsItIs) {
  tensor("x");
  constant("c", {4, 5});
  op("p", {"x"});
  op("s", {"p"});
  op("other", {"p"});
  makeOutput("s");
  opWith({"t0", "t1"}, {"x"}, "Split");
  op("fixed", {"c"}, "Reshape");
  makeOutput("fixed");
  const Names before = opNames();
  const std::string head = "netforge::IrGraph::squash: ";
  const auto squash = [&](const std::string& opName, const std::string& input) {
    return [this, opName, input] { graph.squash(graph.getOp(opName), input, false, true); };
  };
  expectFailures({
      {'r', head + "Invalid op: received null op pointer, expected a valid op", squash("nobody", "x")},
      {'r', head + "Op t0 must have exactly one output to be squashed. But it has 2", squash("t0", "x")},
      {'r', head + "Invalid tensor: received null tensor pointer, expected a valid tensor",
       squash("s", "nobody")},
      {'r', head + "Tensor x is not an input to op s", squash("s", "x")},
      {'r', head + "Unable to squash node: fixed into previous tensor: cas node produces a static output",
       squash("fixed", "c")},
      {'r', head + "Squash not possible for op s (type: Relu, input: p)", squash("s", "p")},
      {'r', head + "Squash not possible for op other (type: Relu, input: p)", squash("other", "p")},
  });
  EXPECT_EQ(opNames(), before);
  EXPECT_TRUE(graph.producesStaticGraphOutput(graph.getOp("fixed")));
  EXPECT_FALSE(graph.producesStaticGraphOutput(graph.getOp("s")));
  EXPECT_FALSE(graph.producesStaticGraphOutput(nullptr));
  graph.getTensor("fixed")->setShape(IrTensorShape({2, 1}));
  EXPECT_FALSE(graph.producesStaticGraphOutput(graph.getOp("fixed")));
}

TEST_F(GraphSquash, ProducerThatForgotTheTensor) {
  tensor("x");
  op("p", {"x"});
  op("s", {"p"});
  graph.getOp("p")->removeOutput(graph.getTensor("p"));
  soundAtEnd = false;
  expectFailures({{'r', "netforge::IrGraph::squash: Input tensor p not found in previous op when squashing s",
                   [&] { graph.squash(graph.getOp("s"), "p", false, false); }}});
  EXPECT_EQ(consumersOf("p"), Names{"s"});
}

}  // namespace
}  // namespace netforge
