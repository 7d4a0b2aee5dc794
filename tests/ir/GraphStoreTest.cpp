#include <cstring>
#include "tests/ir/GraphFixture.h"

namespace netforge {
namespace {

using GraphStore = GraphTest;

QuantInfo scaleOffset() {
  QuantInfo info;
  info.encoding = QuantEncodingKind::ScaleOffset;
  info.scaleOffset.scale = 0.5f;
  return info;
}

TEST_F(GraphStore, EmptyGraph) {
  EXPECT_EQ(graph.getOpIndex(makeOp("a")), 0u);
  EXPECT_EQ(graph.getOp("a"), nullptr);
  EXPECT_EQ(graph.getTensor("a"), nullptr);
  EXPECT_TRUE(graph.getOps().empty());
  EXPECT_TRUE(graph.opsOfType("Relu").empty());
  EXPECT_NE(dynamic_cast<SpatialFirstAxisOrder*>(graph.getAxisOrder().get()), nullptr);
}

TEST_F(GraphStore, TensorsAreListedByTypeAndByName) {
  for (const char* name : {"b", "B", "a10", "a9"}) tensor(name);
  tensor("out", {4}, TensorType::GraphOutput);
  tensor("native", {4}, TensorType::Native);
  EXPECT_EQ(namesOf(graph.getGraphInputs()), (Names{"b", "B", "a10", "a9"}));
  EXPECT_EQ(namesOf(graph.getGraphOutputs()), Names{"out"});
  Names sorted;
  for (const auto& [name, entry] : graph.getTensors()) sorted.push_back(name);
  EXPECT_EQ(sorted, (Names{"B", "a10", "a9", "b", "native", "out"}));
  EXPECT_EQ(graph.getStaticTensor("b"), nullptr);

  makeOutput("out");  // out and in again
  EXPECT_EQ(namesOf(graph.getGraphOutputs()), Names{"out"});
  graph.removeTensor("nobody");
}

TEST_F(GraphStore, AddTensorForms) {
  const float values[2] = {1.0f, 2.0f};
  graph.addTensor("full", {2, 3}, ORLO_DATATYPE_FLOAT_16, ORLO_DATATYPE_FLOAT_32, AxisFormat::NF,
                  AxisFormat::NC, true, QuantInfo(), TensorType::GraphOutput, true, {1, 0});
  graph.addTensor("const", {2}, sizeof(values), values, ORLO_DATATYPE_FLOAT_32, ORLO_DATATYPE_FLOAT_16,
                  AxisFormat::ANY, AxisFormat::NF, true, QuantInfo(), true, TensorType::Static, true, {0});
  graph.addTensor("quantised", {2}, ORLO_DATATYPE_UFIXED_POINT_8, AxisFormat::NF, AxisFormat::NC, true,
                  scaleOffset());
  graph.addTensor("int", {2}, ORLO_DATATYPE_INT_64, AxisFormat::NF, AxisFormat::NC, false, QuantInfo());

  const auto full = graph.getTensor("full");
  EXPECT_EQ(full->getSrcDataType(), ORLO_DATATYPE_FLOAT_32);
  EXPECT_EQ(full->getAxisFormat(), AxisFormat::NF);
  EXPECT_EQ(full->getSrcAxisFormat(), AxisFormat::NC);
  EXPECT_TRUE(full->isUpdateable());
  EXPECT_EQ(full->getExplicitPermuteOrder(), (Dims{1, 0}));
  EXPECT_EQ(namesOf(graph.getGraphOutputs()), Names{"full"});
  const auto quantised = graph.getTensor("quantised");
  EXPECT_EQ(quantised->getDataType(), ORLO_DATATYPE_UFIXED_POINT_8);
  EXPECT_EQ(quantised->getSrcDataType(), ORLO_DATATYPE_UFIXED_POINT_8);
  EXPECT_TRUE(quantised->isQuantized());
  EXPECT_EQ(quantised->getTensorType(), TensorType::Native);

  const auto source = graph.getStaticTensor("const");
  EXPECT_EQ(source->getData(), reinterpret_cast<const std::uint8_t*>(values));
  graph.addTensor("copy", source);
  const auto copy = graph.getStaticTensor("copy");
  EXPECT_FALSE(copy->isDataBorrowed());
  EXPECT_NE(copy->getData(), source->getData());
  EXPECT_EQ(std::memcmp(copy->getData(), values, sizeof(values)), 0);
  EXPECT_EQ(copy->getSrcDataType(), ORLO_DATATYPE_FLOAT_16);
  EXPECT_EQ(copy->getExplicitPermuteOrder(), Dims{0});
  EXPECT_NE(source->getTransformManager(), nullptr);
  EXPECT_EQ(copy->getTransformManager(), source->getTransformManager());
}

TEST_F(GraphStore, AddTensorFailures) {
  tensor("x");
  const std::string head = "netforge::IrGraph::addTensor: ";
  const std::string taken = head + "Tensor x already exists!";
  const std::string null = head + "Invalid tensor: received null tensor pointer, expected a valid tensor";
  const auto add = [&](const std::string& name, DataType type, const QuantInfo& info) {
    graph.addTensor(name, {2}, type, AxisFormat::NF, AxisFormat::NF, false, info);
  };
  expectFailures({
      {'r', null, [&] { graph.addTensor(nullptr); }},
      {'r', null, [&] { graph.addTensor("y", std::shared_ptr<IrStaticTensor>()); }},
      {'r', taken, [&] { tensor("x"); }},
      {'r', taken, [&] { add("x", ORLO_DATATYPE_INT_32, QuantInfo()); }},
      {'r', taken, [&] { graph.addTensor("x", std::make_shared<IrStaticTensor>("c", Dims{1})); }},
      {'r', head + "Tensor y has unquantized dataType 562 but the QuantInfo has been set to 0",
       [&] { add("y", ORLO_DATATYPE_FLOAT_32, scaleOffset()); }},
  });
  EXPECT_THROW(add("y", ORLO_DATATYPE_UFIXED_POINT_8, QuantInfo()), std::invalid_argument);
  EXPECT_EQ(namesOf(graph.getGraphInputs()), Names{"x"});
  EXPECT_EQ(graph.numTensors(), 1u);
}

TEST_F(GraphStore, AddOpByNameInfersOutputs) {
  tensor("x", {2, 3}, TensorType::GraphInput)->setSrcDataType(ORLO_DATATYPE_INT_64);
  const auto relu = makeOp("relu");
  graph.addOp(relu, {"x"}, {"y"}, {AxisFormat::NF}, -1, true);  // nothing to check with
  const auto out = graph.getTensor("y");
  EXPECT_EQ(out->getDims(), (Dims{2, 3}));
  EXPECT_EQ(out->getDataType(), ORLO_DATATYPE_INT_64) << "new outputs take the source type of input 0";
  EXPECT_EQ(out->getAxisFormat(), AxisFormat::NF);
  EXPECT_TRUE(relu->isCanonicalized());

  tensor("existing", {9}, TensorType::Native);
  const auto two = makeOp("two");
  graph.addOp(two, {"x", "x"}, {"existing", "z"}, {}, 0, false);
  EXPECT_EQ(graph.getTensor("existing")->getDims(), Dims{9}) << "used as it stands";
  EXPECT_EQ(graph.getTensor("z")->getAxisFormat(), AxisFormat::NOT_YET_DEFINED);
  EXPECT_EQ(opNames(), (Names{"two", "relu"}));
  graph.addOp(makeOp("end"), {"y"}, {"e"}, {}, -2, false);
  EXPECT_EQ(graph.getOpIndex(graph.getOp("end")), 2u);
  EXPECT_EQ(graph.countOpsOfType("Relu"), 3u);
}

TEST_F(GraphStore, AddOpFailures) {
  soundAtEnd = false;  // a failed name form leaves its inputs consumed
  tensor("x");
  const auto known = op("a", {"x"});
  const std::string head = "netforge::IrGraph::addOp: ";
  const std::string null = head + "Invalid op: received null op pointer, expected a valid op";
  const auto loose = std::make_shared<IrTensor>("loose", Dims{1}, ORLO_DATATYPE_FLOAT_32, AxisFormat::NF,
                                                TensorType::Native, Dims{});
  const auto bad = makeOp("bad");
  const auto reads = makeOp("reads");
  reads->addInput(loose);
  const auto writes = makeOp("writes");
  writes->addInput(graph.getTensor("x"));
  writes->addOutput(loose);
  expectFailures({
      {'r', null, [&] { graph.addOp(nullptr, -1, false); }},
      {'r', null, [&] { graph.addOp(nullptr, {"x"}, {"y"}, {}, -1, false); }},
      {'r', head + "Op a already exists in graph", [&] { graph.addOp(makeOp("a"), -1, false); }},
      {'r', head + "Graph has no tensor loose referred to as input for Op reads",
       [&] { graph.addOp(reads, -1, false); }},
      {'r', head + "Graph has no tensor loose referred to as output for Op writes",
       [&] { graph.addOp(writes, -1, false); }},
      {'r', head + "Graph has no tensor nobody referred to as input for Op bad",
       [&] { graph.addOp(bad, {"nobody"}, {"y"}, {}, -1, false); }},
      {'r', head + "Op two produced 2 output shapes but has 1 outputs.",
       [&] {
         graph.addOp(makeOp("two"), {"x", "x"}, {"y"}, {}, -1, false);
       }},
      {'r', head + "Output shapes size (0) does not match output names size (1) for op bad",
       [&] { graph.addOp(bad, {"x"}, {"y"}, std::vector<IrTensorShape>(), {}, -1, false); }},
      {'r', head + "Invalid insertion index 2 for op bad",
       [&] { graph.addOp(bad, {"x"}, {"y"}, {}, 2, false); }},
      {'r', head + "Invalid insertion index -3 for op bad", [&] { graph.addOp(bad, -3, false); }},
  });
  EXPECT_EQ(bad->numInputs(), 0u) << "these calls failed before a change";
  EXPECT_EQ(opNames(), Names{"a"});
  EXPECT_THROW(graph.addOp(makeOp("empty"), -1, false), std::invalid_argument) << "validateOp";
  EXPECT_FALSE(graph.hasOp("empty"));
}

TEST_F(GraphStore, MovesOpsInTheShortenedList) {
  tensor("x");
  for (const char* name : {"a", "b", "c", "d"}) op(name, {"x"});
  graph.moveOptoIndex(graph.getOps()[0], 2);
  EXPECT_EQ(opNames(), (Names{"b", "c", "a", "d"}));
  graph.moveOptoIndex(graph.getOp("b"), 3);
  EXPECT_EQ(opNames(), (Names{"c", "a", "d", "b"}));
  graph.moveOptoIndex(graph.getOpAt(3), 0);
  EXPECT_EQ(opNames(), (Names{"b", "c", "a", "d"}));

  const auto a = graph.getOp("a");
  expectFailures({
      {'r', "netforge::IrGraph::moveOptoIndex: Op z not found in graph",
       [&] { graph.moveOptoIndex(makeOp("z"), 0); }},
      {'r', "netforge::IrGraph::moveOptoIndex: Invalid insertion index 4 for op a",
       [&] { graph.moveOptoIndex(a, 4); }},
      {'o', "netforge::IrGraph::getOpAt: Index 3 out of range, the graph has 3 ops",
       [&] { graph.getOpAt(3); }},
  });
  EXPECT_EQ(opNames(), (Names{"b", "c", "d"})) << "a bad index has taken the op out already";
  soundAtEnd = false;
}

TEST_F(GraphStore, RenamesTensorsAndTheirTraces) {
  const auto x = tensor("x");
  tensor("y");
  op("a", {"x"});
  graph.addTraceSources(TraceKind::Tensor, "x", {{"src", TraceKind::Tensor}});
  const std::uint32_t before = x->getId();
  graph.updateTensorName("nobody", "nobody");
  graph.updateTensorName("x", "x");
  EXPECT_EQ(x->getId(), before);

  // The caller's reference is the very string that the rename overwrites.
  graph.updateTensorName(x->getName(), "fresh");
  EXPECT_EQ(graph.getTensor("fresh"), x);
  EXPECT_FALSE(graph.hasTensor("x"));
  EXPECT_NE(x->getId(), before);
  EXPECT_TRUE(graph.getTraceInfo(TraceKind::Tensor, "x").empty());
  EXPECT_EQ(graph.getTraceInfo(TraceKind::Tensor, "fresh").size(), 1u);
  EXPECT_EQ(inputsOf("a"), Names{"fresh"});

  const auto y = graph.getTensor("y");
  graph.swapTensorNames(x->getName(), y->getName());
  EXPECT_EQ(graph.getTensor("y"), x);
  EXPECT_EQ(graph.getTensor("fresh"), y);
  EXPECT_EQ(graph.getTensors().at("y"), x);
  EXPECT_EQ(graph.getTraceInfo(TraceKind::Tensor, "fresh").size(), 1u) << "traces stay with the names";

  expectFailures({
      {'r', "netforge::IrGraph::updateTensorName: Tensor with name: y already exists!",
       [&] { graph.updateTensorName("nobody", "y"); }},
      {'r', "netforge::IrGraph::updateTensorName: Tensor nobody does not exist!",
       [&] { graph.updateTensorName("nobody", "z"); }},
      {'r', "netforge::IrGraph::swapTensorNames: Tensor nobody does not exist!",
       [&] { graph.swapTensorNames("nobody", "nothing"); }},
      {'r', "netforge::IrGraph::swapTensorNames: Tensor nothing does not exist!",
       [&] { graph.swapTensorNames("y", "nothing"); }},
  });
}

TEST_F(GraphStore, RemovedTensorMayOwnTheNameGiven) {
  tensor("a tensor with a name beyond any small buffer", {2}, TensorType::Native);
  (void)graph.getTensors();
  const IrTensor* only = graph.getTensors().begin()->second.get();
  graph.removeTensor(only->getName());
  EXPECT_EQ(graph.numTensors(), 0u);
}

TEST(ConversionNamePolicy, CountsPerType) {
  ConversionNamePolicy policy({"q_0"});
  EXPECT_EQ(policy.generateUniqueName("p", "Relu"), "p_0");
  EXPECT_EQ(policy.generateUniqueName("p", "Relu"), "p_1");
  EXPECT_EQ(policy.generateUniqueName("other", "Relu"), "other_1") << "the type's counter stands on 1";
  EXPECT_EQ(policy.generateUniqueName("q", "Add"), "q_1");
  expectFailures({
      {'i', "netforge::ConversionNamePolicy::generateUniqueName: namePrefixStr and opType must not be empty",
       [&] { policy.generateUniqueName("", "Relu"); }},
  });
}

TEST(ConversionNamePolicy, GivesUpAtTheLimit) {
  for (const std::int32_t taken : {9999, 10000}) {
    std::vector<std::string> used;
    for (std::int32_t i = 0; i < taken; ++i) used.push_back("p_" + std::to_string(i));
    ConversionNamePolicy policy(used);
    if (taken < 10000) {
      EXPECT_EQ(policy.generateUniqueName("p", "Relu"), "p_9999");
    } else {
      EXPECT_THROW(policy.generateUniqueName("p", "Relu"), std::runtime_error);
      EXPECT_EQ(policy.generateUniqueName("p", "Relu"), "p_10000") << "the counter stayed, the name is free";
    }
  }
}

TEST(ConversionNamePolicy, OpNames) {
  struct Row {
    std::string base, prefix, suffix, alternative, expected;
    bool underscore;
  };
  const std::vector<Row> rows = {
      {"", "", "", "", "Relu_0", false},    {"b", "", "", "", "b_0", false},
      {"b", "", "", "", "_b_0", true},      {"b", "p", "s", "t", "p_b_0", false},
      {"b", "", "s", "t", "b_s", false},    {"b", "", "/", "t", "b_t", false},
      {"b", "", "", "t", "b_t", false},     {"b", "", "/", "", "b", false},
      {"", "p", "", "", "p__Relu_0", true},
  };
  for (const Row& row : rows) {
    ConversionNamePolicy policy;
    EXPECT_EQ(
        policy.generateOpName("Relu", row.base, row.underscore, row.prefix, row.suffix, row.alternative),
        row.expected);
  }
  ConversionNamePolicy policy;
  EXPECT_EQ(policy.generateOpName("Relu", "b", false, "", "0", ""), "b_0");
  EXPECT_EQ(policy.generateOpName("Relu", "b", false, "", "0", ""), "b_0") << "suffixed names aren't tested";
  EXPECT_EQ(policy.generateUniqueName("b", "Relu"), "b_1") << "but remembered";
}

TEST_F(GraphStore, NamePolicyKnowsTheOps) {
  tensor("x");
  op("Relu_0", {"x"});
  EXPECT_EQ(graph.getNamePolicy()->generateUniqueName("Relu", "Relu"), "Relu_1");
  EXPECT_EQ(graph.getNamePolicy(), graph.getNamePolicy());
}

TEST_F(GraphStore, SelfCheckNamesEachViolation) {
  tensor("x");
  op("a", {"x"});
  op("b", {"a"});
  const auto a = graph.getOp("a");
  const auto b = graph.getOp("b");
  const auto expectViolation = [&](const std::string& invariant, const std::function<void()>& damage,
                                   const std::function<void()>& repair) {
    damage();
    const Names found = graph.checkInvariants();
    ASSERT_FALSE(found.empty()) << invariant;
    for (const std::string& line : found) EXPECT_EQ(line.substr(0, invariant.size() + 2), invariant + ": ");
    repair();
    EXPECT_EQ(graph.checkInvariants(), Names());
  };
  const auto x = graph.getTensor("x");
  const auto written = graph.getTensor("a");
  const auto stranger = makeOp("stranger");
  const auto out = b->getOutput(0);
  tensor("y");
  // Names that are exchanged by hand: every link is still right.
  const auto exchange = [&] {
    const auto y = graph.getTensors().rbegin()->second;
    const std::string name = x->getName();
    x->setName(y->getName());
    y->setName(name);
  };
  exchange();
  EXPECT_EQ(graph.checkInvariants()[0].substr(0, 7), "names: ");
  exchange();
  expectViolation(
      "links", [&] { x->removeConsumer(a); }, [&] { x->addConsumer(a); });
  expectViolation(
      "links", [&] { x->addConsumer(b); }, [&] { x->removeConsumer(b); });
  expectViolation(
      "links", [&] { x->addConsumer(stranger); }, [&] { x->removeConsumer(stranger); });
  expectViolation(
      "links", [&] { written->clearProducer(); }, [&] { written->setProducer(a); });
  expectViolation(
      "links", [&] { x->setProducer(stranger); }, [&] { x->clearProducer(); });
  expectViolation(
      "topological order", [&] { graph.moveOptoIndex(b, 0); }, [&] { graph.moveOptoIndex(b, 1); });
  expectViolation(
      "known tensors", [&] { graph.removeTensor("b"); }, [&] { graph.addTensor(out); });
  out->setTensorType(TensorType::GraphOutput);
  graph.removeTensor("b");
  graph.addTensor(out);
  graph.prune(b);
  EXPECT_EQ(graph.checkInvariants(), Names{"graph lists: graph output b is not in the graph"});
  soundAtEnd = false;
}

}  // namespace
}  // namespace netforge
