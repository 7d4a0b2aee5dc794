// Utilities that test and move links: squash tests, private copies, handing tensors over.
#include <algorithm>
#include "GraphRefiner/src/RewriteUtilities.h"
#include "RefinerTestSupport.h"

namespace netforge::graphrefiner::testing {
namespace {

using Names = std::vector<std::string>;

void expectSound(const GraphPtr& graph) {
  EXPECT_EQ(graph->checkInvariants(), Names{});
}

void makeOutput(const GraphPtr& graph, const std::string& name, TensorType type = TensorType::GraphOutput) {
  const auto tensor = graph->getTensor(name);
  graph->removeTensor(name);
  tensor->setTensorType(TensorType::GraphOutput);
  graph->addTensor(tensor);  // enters it in the list of graph outputs
  tensor->setTensorType(type);
}

TEST(CanSquash, AgreesWithTheSquashItself) {
  const std::int32_t data[] = {1, 2, 3, 4, 5, 6};
  const struct {
    const char* label;
    std::function<void(const GraphPtr&)> build;  // has an op "s" that reads "in" and writes "s"
    bool keepInput;
  } cases[] = {
      {"inner op",
       [](const GraphPtr& g) {
         addPlainOp(g, "in", "Relu", {"x"});
         addPlainOp(g, "s", "Cast", {"in"});
         addPlainOp(g, "end", "Relu", {"s"});
       },
       false},
      {"inner op, input kept",
       [](const GraphPtr& g) {
         addPlainOp(g, "in", "Relu", {"x"});
         addPlainOp(g, "s", "Cast", {"in"});
         addPlainOp(g, "end", "Relu", {"s"});
       },
       true},
      {"graph output, input is its own",
       [](const GraphPtr& g) {
         addPlainOp(g, "in", "Relu", {"x"});
         addPlainOp(g, "s", "Cast", {"in"});
         makeOutput(g, "s");
       },
       false},
      {"graph output, input to be kept",
       [](const GraphPtr& g) {
         addPlainOp(g, "in", "Relu", {"x"});
         addPlainOp(g, "s", "Cast", {"in"});
         makeOutput(g, "s");
       },
       true},
      {"graph output, input shared",
       [](const GraphPtr& g) {
         addPlainOp(g, "in", "Relu", {"x"});
         addPlainOp(g, "s", "Cast", {"in"});
         makeOutput(g, "s");
         addPlainOp(g, "end", "Relu", {"in"});
       },
       false},
      {"graph output of a graph input",
       [](const GraphPtr& g) {
         addInput(g, "in", {2, 3});
         addPlainOp(g, "s", "Cast", {"in"});
         makeOutput(g, "s");
       },
       false},
      {"graph output of a graph output",
       [](const GraphPtr& g) {
         addPlainOp(g, "in", "Relu", {"x"});
         makeOutput(g, "in");
         addPlainOp(g, "s", "Cast", {"in"});
         makeOutput(g, "s");
       },
       false},
      {"reader of a graph input",
       [](const GraphPtr& g) {
         addInput(g, "in", {2, 3});
         addPlainOp(g, "s", "Cast", {"in"});
         addPlainOp(g, "end", "Relu", {"s"});
       },
       false},
      {"optional graph output, input shared",
       [](const GraphPtr& g) {
         addPlainOp(g, "in", "Relu", {"x"});
         addPlainOp(g, "s", "Cast", {"in"});
         makeOutput(g, "s", TensorType::OptionalOutput);
         addPlainOp(g, "end", "Relu", {"in"});
         addPlainOp(g, "end2", "Relu", {"s"});
       },
       false},
      {"nobody reads the output, input shared",
       [](const GraphPtr& g) {
         addPlainOp(g, "in", "Relu", {"x"});
         addPlainOp(g, "s", "Cast", {"in"});
         addPlainOp(g, "end", "Relu", {"in"});
       },
       false},
      {"a constant reshaped to its own shape as graph output",
       [&](const GraphPtr& g) {
         addConstant(g, "in", {2, 3}, data, sizeof(data));
         addPlainOp(g, "s", "Reshape", {"in"});
         makeOutput(g, "s");
         addPlainOp(g, "end", "Relu", {"s"});
       },
       false},
      {"two outputs",
       [](const GraphPtr& g) {
         addPlainOp(g, "in", "Relu", {"x"});
         g->addOp(std::make_shared<ops::IrOp>("s", "Split", nullptr), {"in"}, {"s", "s1"},
                  {IrTensorShape({2, 3}), IrTensorShape({2, 3})}, {}, -1, false);
         addPlainOp(g, "end", "Relu", {"s"});
       },
       false},
  };
  for (const auto& c : cases) {
    auto graph = std::make_shared<IrGraph>("g");
    addInput(graph, "x", {2, 3});
    c.build(graph);
    const auto op = graph->getOp("s");
    const bool expected = canSquash(graph, op, graph->getTensor("in"), c.keepInput);
    bool went = true;
    try {
      graph->squash(op, "in", c.keepInput, false);
    } catch (const std::runtime_error&) {
      went = false;
    }
    EXPECT_EQ(expected, went) << c.label;
  }
  GraphPtr graph = makeChain({"Relu", "Cast", "Tanh"});
  EXPECT_FALSE(canSquash(graph, graph->getOp("op1"), graph->getTensor("x"), false)) << "no input of the op";
}

TEST(ManageSharedStaticInput, CopiesOnlyWhatIsShared) {
  const float data[] = {1, 2, 3};
  const struct {
    std::uint32_t index;
    bool shared;
    const char* name;
  } cases[] = {{1, false, "w"},
               {0, true, "op_kernel_bias"},
               {1, true, "op_kernel_weight"},
               {2, true, "op_kernel_bias"}};
  for (const auto& c : cases) {
    auto graph = std::make_shared<IrGraph>("g");
    addInput(graph, "x", {2, 3});
    addConstant(graph, "w", {3}, data, sizeof(data));
    Names inputs = {"x", "x", "x"};
    inputs[c.index] = "w";
    const auto op = addPlainOp(graph, "op", "Conv2d", inputs);
    if (c.shared) addPlainOp(graph, "other", "Relu", {"w"});
    graph->addTraceSources(TraceKind::Tensor, "w", {{"weight", TraceKind::Tensor}});
    manageSharedStaticInput(graph, op, c.index);
    const auto input = op->getInput(c.index);
    EXPECT_EQ(input->getName(), c.name);
    EXPECT_EQ(input->getConsumers(), (IrTensor::ConsumerSet{op}));
    EXPECT_EQ(graph->getTraceInfo(TraceKind::Tensor, c.name).size(), 1u);
    EXPECT_EQ(graph->getStaticTensor(c.name)->getDataAs<float>()[2], 3.0f);
    expectSound(graph);
  }

  // The same constant at two inputs: the op goes on reading the shared one at the other.
  auto graph = std::make_shared<IrGraph>("g");
  addConstant(graph, "w", {3}, data, sizeof(data));
  const auto op = addPlainOp(graph, "op", "Add", {"w", "w"});
  addPlainOp(graph, "other", "Relu", {"w"});
  manageSharedStaticInput(graph, op, 1);
  EXPECT_EQ(op->getInput(0)->getName(), "w");
  expectSound(graph);

  addInput(graph, "x", {2, 3});
  const auto reader = addPlainOp(graph, "reader", "Relu", {"x"});
  addPlainOp(graph, "reader2", "Relu", {"x"});
  EXPECT_EQ(messageOf([&] { manageSharedStaticInput(graph, reader, 0); }),
            "manageSharedStaticInput: Failed to clone static tensor: reader_kernel_bias");
}

TEST(ReplaceAllUsers, MovesConsumersAndExchangesNames) {
  GraphPtr graph = makeChain({"Relu", "Tanh"});
  addPlainOp(graph, "twice", "Add", {"op0", "op0"});
  addInput(graph, "other", {2, 3}, TensorType::Native);
  graph->getTensor("other")->setDataType(ORLO_DATATYPE_INT_32);
  const auto oldTensor = graph->getTensor("op0");
  const auto newTensor = graph->getTensor("other");
  replaceAllUsers(graph, newTensor, oldTensor, false);
  EXPECT_EQ(newTensor->getName(), "op0");
  EXPECT_EQ(oldTensor->getName(), "other");
  EXPECT_TRUE(oldTensor->getConsumers().empty());
  EXPECT_EQ(newTensor->getConsumers().size(), 2u);
  EXPECT_EQ(graph->getOp("twice")->getInput(1), newTensor);
  EXPECT_EQ(graph->getTensor("op0"), newTensor);
  expectSound(graph);
}

TEST(ReplaceAllUsers, ChecksEachConsumer) {
  QuantInfo record;
  record.isOverridden = true;
  const struct {
    std::function<void(IrTensor&)> change;
    bool strict;
    const char* message;
  } cases[] = {
      {[&](IrTensor& t) { t.setFloatQInfo(ORLO_DATATYPE_FLOAT_32, record); }, true,
       "replaceAllUsers: QInfo must match for both the tensors"},
      {[](IrTensor& t) { t.setDataType(ORLO_DATATYPE_INT_32); }, true,
       "replaceAllUsers: DataType must match for both the tensors"},
      {[](IrTensor& t) {
         t.setShape(IrTensorShape({3, 2}));
       },
       false, "replaceAllUsers: Dimensions must match for both the tensors"},
      {[](IrTensor& t) { t.setDataType(ORLO_DATATYPE_INT_32); }, false, "nothing thrown"},
      {[](IrTensor&) {}, true, "nothing thrown"},
  };
  for (const auto& c : cases) {
    GraphPtr graph = makeChain({"Relu", "Tanh"});
    addInput(graph, "other", {2, 3}, TensorType::Native);
    c.change(*graph->getTensor("other"));
    EXPECT_EQ(messageOf([&] {
                replaceAllUsers(graph, graph->getTensor("other"), graph->getTensor("op0"), c.strict);
              }),
              c.message);
    // A tensor that nobody reads is not checked.
    graph = makeChain({"Relu"});
    addInput(graph, "other", {2, 3}, TensorType::Native);
    c.change(*graph->getTensor("other"));
    replaceAllUsers(graph, graph->getTensor("other"), graph->getTensor("op0"), c.strict);
    EXPECT_FALSE(graph->getTensor("op0")->getProducer());
  }
}

TEST(HandOverGraphOutput, KeepsPlaceAndKind) {
  const struct {
    TensorType from;
    bool updateable;
    TensorType to;
    TensorType left;
  } cases[] = {
      {TensorType::GraphOutput, false, TensorType::GraphOutput, TensorType::Native},
      {TensorType::GraphOutput, true, TensorType::GraphOutput, TensorType::Native},
      {TensorType::OptionalOutput, false, TensorType::OptionalOutput, TensorType::Native},
      {TensorType::GraphInputOutput, false, TensorType::GraphOutput, TensorType::GraphInput},
      {TensorType::Native, false, TensorType::Native, TensorType::Native},
  };
  for (const auto& c : cases) {
    GraphPtr graph = makeChain({"Relu", "Tanh", "Cast"});
    if (c.from != TensorType::Native) makeOutput(graph, "op1", c.from);
    makeOutput(graph, "op0");
    const auto from = graph->getTensor("op1");
    const auto to = graph->getTensor("op2");
    from->setUpdateable(c.updateable);
    handOverGraphOutput(graph, from, to);
    EXPECT_EQ(to->getTensorType(), c.to);
    EXPECT_EQ(to->isUpdateable(), c.updateable);
    EXPECT_EQ(from->getTensorType(), c.left);
    const auto outputs = graph->getGraphOutputs();
    if (c.from != TensorType::Native) {
      ASSERT_EQ(outputs.size(), 2u);
      EXPECT_EQ(outputs[0], to);
    } else {
      EXPECT_EQ(outputs.size(), 1u);
    }
    expectSound(graph);
  }
}

}  // namespace
}  // namespace netforge::graphrefiner::testing
