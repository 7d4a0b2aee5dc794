#include "ops/LayoutOps.h"
#include "ops/MatrixOps.h"
#include "tests/ir/GraphFixture.h"

namespace netforge {
namespace {

using Sources = std::vector<TraceSource>;

class GraphTrace : public GraphTest {
 protected:
  static TraceSource source(const std::string& name, TraceKind kind = TraceKind::Op) { return {name, kind}; }
  Sources of(const std::string& name, TraceKind kind = TraceKind::Op) const {
    return graph.getTraceInfo(kind, name);
  }
  template <class Call>
  static std::string printed(const Call& call) {
    ::testing::internal::CaptureStdout();
    call();
    return ::testing::internal::GetCapturedStdout();
  }
};

TEST_F(GraphTrace, RecordsOfOneName) {
  graph.setTraceInfo(TraceKind::Op, "a", {source("x")});
  graph.addTraceSources(TraceKind::Op, "a", {});
  EXPECT_TRUE(graph.getTraceRecords(TraceKind::Op).empty()) << "neither makes a record";

  graph.addTraceSources(TraceKind::Op, "a", {source("a"), source("b"), source("a")});
  graph.addTraceSources(TraceKind::Op, "z", {source("z")});
  graph.addTraceSources(TraceKind::Op, "a", {source("b"), source("c")});
  EXPECT_EQ(of("a"), (Sources{source("b"), source("c"), source("a")}));
  graph.addTraceSources(TraceKind::Op, "a", {source("b", TraceKind::Tensor)});
  EXPECT_EQ(of("a").size(), 4u) << "one name, two kinds";
  EXPECT_TRUE(of("a", TraceKind::Tensor).empty());
  graph.setTraceInfo(TraceKind::Op, "a", {source("n")});
  graph.setTraceInfo(TraceKind::Op, "a", {});
  EXPECT_EQ(of("a"), Sources{source("n")});
  EXPECT_EQ(graph.getTraceRecords(TraceKind::Op)[0].name, "a") << "replaced in its place";

  // Arguments out of the records themselves.
  const auto& records = graph.getTraceRecords(TraceKind::Op);
  graph.addTraceSources(Names{"a", "z"}, Names{"t"}, records[1].sources);
  EXPECT_EQ(of("a"), (Sources{source("z"), source("n")}));
  EXPECT_EQ(of("z"), Sources{source("z")});
  EXPECT_EQ(of("t", TraceKind::Tensor), Sources{source("z")});
  graph.removeTraceInfo(TraceKind::Op, graph.getTraceRecords(TraceKind::Op)[0].name);
  graph.removeTraceInfo({nullptr, makeOp("nobody")});
  EXPECT_EQ(graph.getTraceRecords(TraceKind::Op).size(), 1u);
}

TEST_F(GraphTrace, UpdateHandsSourcesOver) {
  const auto x = tensor("x");
  const auto y = tensor("y");
  const auto a = op("a", {"x"});
  const auto b = op("b", {"x"});
  graph.addTraceSources(TraceKind::Op, "a", {source("s"), source("both")});
  graph.addTraceSources(TraceKind::Tensor, "x", {source("both"), source("t")});

  graph.updateTraceInfo({b, nullptr}, {a, nullptr}, {x}, false);
  EXPECT_EQ(of("b"), (Sources{source("s"), source("both"), source("t")}));
  EXPECT_EQ(of("a").size(), 2u);
  graph.updateTraceInfo({y}, {x}, {a}, true);
  EXPECT_EQ(of("y", TraceKind::Tensor), (Sources{source("both"), source("t"), source("s")}));
  EXPECT_TRUE(of("a").empty());
  EXPECT_TRUE(of("x", TraceKind::Tensor).empty());

  const auto c = op("c", {"x"});
  graph.updateTraceInfo({c}, {nullptr}, {}, true);
  graph.updateTraceInfo({c}, {a}, {y}, false);
  EXPECT_EQ(of("c").size(), 3u) << "a source without a record adds nothing";
  const std::string head = "netforge::IrGraph::updateTraceInfo: updateTraceInfo called with empty ";
  const std::vector<IrGraph::OpPtr> noOps;
  const std::vector<IrGraph::TensorPtr> noTensors;
  expectFailures({
      {'r', head + "targets list", [&] { graph.updateTraceInfo(noOps, {a}, {}, false); }},
      {'r', head + "sources lists", [&] { graph.updateTraceInfo({a}, noOps, noTensors, false); }},
      {'r', head + "targets list", [&] { graph.updateTraceInfo(noTensors, noTensors, noOps, false); }},
      {'r', head + "sources lists", [&] { graph.updateTraceInfo({x}, noTensors, noOps, false); }},
  });
}

TEST_F(GraphTrace, ValidationReportsEachDifferenceInOrder) {
  tensor("x");
  const std::string head = "netforge::IrGraph::validateTraceInfoCompleteness: ";
  op("b", {"x"});
  op("a", {"b"});
  graph.addTraceSources(TraceKind::Op, "b", {source("mb"), source("mx", TraceKind::Tensor)});
  for (const char* name : {"x", "a", "b"}) {
    graph.addTraceSources(TraceKind::Tensor, name, {source("mx", TraceKind::Tensor)});
  }
  graph.sourceOpNames = {"mb"};
  graph.sourceTensorNames = {"mx"};
  const auto validate = [&] { return printed([&] { graph.validateTraceInfoCompleteness("S"); }); };
  EXPECT_EQ(validate(),
            head +
                "WARNING: Op names in target irgraph are not all contained by framework tracing record in "
                "stage S, please check below ops:\n" +
                head + "missing op: a\n");
  graph.addTraceSources(TraceKind::Op, "a", {source("mb")});
  EXPECT_EQ(validate(), head + "Framework tracing record is complete in stage S.\n");

  graph.removeTraceInfo(TraceKind::Op, "b");
  graph.addTraceSources(TraceKind::Op, "gone", {source("zz"), source("yy")});
  graph.removeTraceInfo(TraceKind::Tensor, "x");
  graph.addTraceSources(TraceKind::Tensor, "lost", {source("tt", TraceKind::Tensor)});
  graph.sourceOpNames = {"mb", "mc"};
  graph.sourceTensorNames = {"mx", "my"};
  const auto block = [&](const std::string& kind, const std::string& relation, const Names& names) {
    const std::string noun = kind == "Op" ? "op" : "tensor";
    std::string text = head + "WARNING: " + kind + " names in " + relation +
                       " in stage S, please check below " + noun + "s:\n";
    for (const std::string& name : names) text += head + "missing " + noun + ": " + name + "\n";
    return text;
  };
  const std::string record = "framework tracing record";
  const std::string within = " are not all contained by ";
  EXPECT_EQ(validate(), block("Op", "target irgraph" + within + record, {"b"}) +
                            block("Op", record + within + "target irgraph", {"gone"}) +
                            block("Tensor", "target irgraph" + within + record, {"x"}) +
                            block("Tensor", record + within + "target irgraph", {"lost"}) +
                            block("Op", "source model" + within + record, {"mc"}) +
                            block("Op", record + within + "source model", {"yy", "zz"}) +
                            block("Tensor", "source model" + within + record, {"my"}) +
                            block("Tensor", record + within + "source model", {"tt"}));
}

class FailingCount : public ops::IrOp {
 public:
  using IrOp::IrOp;
  std::uint64_t macs(const std::shared_ptr<AxisOrder>&) override {
    if (getName() == "odd") throw 1;
    throw std::runtime_error("no idea");
  }
};

TEST_F(GraphTrace, StatisticsCountByClassAndSurviveFailures) {
  const std::string head = "netforge::IrGraph::reEvalMacsParams: ";
  const std::string title = head + "Re-evaluated graph statistics after GraphRefiner optimization passes:\n";
  EXPECT_EQ(printed([&] { graph.reEvalMacsParams(); }),
            title + head + "Total MACs: 0\n" + head + "Total Params Count: 0\n");

  tensor("l", {1, 1, 5, 7});
  tensor("r", {1, 1, 7, 11});
  tensor("m", {1, 1, 5, 11}, TensorType::Native);
  graph.addOp(std::make_shared<FailingCount>("bad", "Nothing", nullptr), {"l"}, {"b"}, {}, -1, false);
  graph.addOp(std::make_shared<FailingCount>("odd", "Nothing", nullptr), {"l"}, {"o"}, {}, -1, false);
  // A plain op of a type with a class is counted by the class.
  graph.addOp(makeOp("mm", "MatMul"), {"l", "r"}, {"m"}, {IrTensorShape({1, 1, 5, 11})}, {}, -1, false);
  std::pair<std::uint64_t, std::uint64_t> totals;
  const std::string text = printed([&] { totals = graph.reEvalMacsParams(); });
  const std::string warning = head + "WARNING: Failed to calculate MACs/params for op ";
  EXPECT_EQ(text, warning + "bad: no idea\n" + warning + "odd: \n" + title + head + "Total MACs: 385\n" +
                      head + "Total Params Count: 0\n");
  EXPECT_EQ(totals.first, 385u);
}

using GraphPermutes = GraphTest;

TEST_F(GraphPermutes, OneTransposePerFormatIsShared) {
  const auto x = tensor("x", {2, 3, 5, 7});
  x->setAxisFormat(AxisFormat::NCHW);
  op("a", {"x"});
  op("b", {"x"});
  op("c", {"x"});
  graph.injectPermuteToSpatialFirst(x, graph.getOp("b"));
  EXPECT_EQ(opNames(), (Names{"a", "x.NHWC", "b", "c"}));
  EXPECT_EQ(graph.getTensor("x.NHWC")->getDims(), (Dims{2, 5, 7, 3}));
  EXPECT_EQ(graph.getTensor("x.NHWC")->getAxisFormat(), AxisFormat::NHWC);
  graph.injectPermuteToSpatialFirst(x, graph.getOp("a"));
  EXPECT_EQ(opNames(), (Names{"x.NHWC", "a", "b", "c"})) << "in front of its new reader";
  EXPECT_EQ(consumersOf("x"), (Names{"x.NHWC", "c"}));
  graph.injectImplicitPermute("x", AxisFormat::NHWC, {0, 2, 3, 1}, {});
  EXPECT_EQ(consumersOf("x"), Names{"x.NHWC"}) << "all consumers, but not the Transpose itself";
  EXPECT_EQ(graph.countOpsOfType("Transpose"), 1u);

  expectFailures({
      {'i',
       "netforge::IrGraph::injectImplicitPermute: Can't inject a permute onto a tensor z which is not in the "
       "graph",
       [&] { graph.injectImplicitPermute("z", AxisFormat::NHWC, {0}, {}); }},
      {'i',
       "netforge::IrGraph::injectImplicitPermute: Can't inject a permute with a permute order of size 3 "
       "which "
       "is not equal to 4, the rank of the input tensor x",
       [&] {
         graph.injectImplicitPermute("x", AxisFormat::NHWC, {0, 1, 2}, {});
       }},
      {'r', "netforge::IrGraph::addTensor: Tensor x.NHWC already exists!",
       [&] {
         graph.injectImplicitPermute("x", AxisFormat::NHWC, {0, 3, 1, 2}, {});
       }},
  });
}

TEST_F(GraphPermutes, TargetFormats) {
  struct Row {
    void (IrGraph::*inject)(const IrGraph::TensorPtr&, const IrGraph::OpPtr&);
    AxisFormat format;
    Dims dims;
    std::string target;  // empty: left alone
    Dims expected;
  };
  const auto first = &IrGraph::injectPermuteToSpatialFirst;
  const auto last = &IrGraph::injectPermuteToSpatialLast;
  const auto feature = &IrGraph::injectPermuteToFeatureFirst;
  const std::vector<Row> rows = {
      {first, AxisFormat::NCDHW, {2, 3, 5, 7, 11}, "NDHWC", {2, 5, 7, 11, 3}},
      {first, AxisFormat::NONTRIVIAL, {2, 3, 5, 7, 11}, "NDHWC", {2, 5, 7, 11, 3}},
      {first, AxisFormat::NONTRIVIAL, {2, 3, 5, 7}, "NHWC", {2, 5, 7, 3}},
      {first, AxisFormat::NONTRIVIAL, {2, 3, 5}, "", {}},
      {first, AxisFormat::NCF, {2, 3, 5}, "NFC", {2, 5, 3}},
      {first, AxisFormat::NHWC, {2, 3, 5, 7}, "", {}},
      {last, AxisFormat::NDHWC, {2, 3, 5, 7, 11}, "NCDHW", {2, 11, 3, 5, 7}},
      {last, AxisFormat::NONTRIVIAL, {2, 3, 5, 7, 11}, "NCDHW", {2, 11, 3, 5, 7}},
      {last, AxisFormat::NHWC, {2, 3, 5, 7}, "NCHW", {2, 7, 3, 5}},
      {last, AxisFormat::NONTRIVIAL, {2, 3, 5, 7}, "NCHW", {2, 7, 3, 5}},
      {last, AxisFormat::NFC, {2, 3, 5}, "", {}},
      {feature, AxisFormat::NFC, {2, 3, 5}, "NCF", {2, 5, 3}},
      {feature, AxisFormat::NTF, {2, 3, 5}, "", {}},
  };
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(i);
    const Row& row = rows[i];
    const std::string name = "x" + std::to_string(i);
    const auto x = tensor(name, row.dims);
    x->setAxisFormat(row.format);
    const auto reader = op("r" + std::to_string(i), {name});
    (graph.*row.inject)(x, reader);
    const auto read = reader->getInput(0);
    EXPECT_EQ(read->getName(), row.target.empty() ? name : name + "." + row.target);
    EXPECT_EQ(read->getDims(), row.target.empty() ? row.dims : row.expected);
  }
}

}  // namespace
}  // namespace netforge
