// Utilities that test and move links: squash tests, private copies, handing tensors over.
#include <algorithm>
#include "GraphRefiner/src/RewriteUtilities.h"
#include "RefinerTestSupport.h"

namespace netforge::graphrefiner::testing {
namespace {

using Names = std::vector<std::string>;

TEST(CanSquash, AgreesWithTheSquashItself) {
  const float data[6] = {};
  // "in" is made by "Relu", or is a graph "input" or a "constant"; the op "s" reads it.
  const struct {
    const char* input;
    bool inputIsOutput, inputIsShared;
    const char* type;  // of s
    TensorType outputType;
    bool outputIsRead, keepInput, possible;
  } cases[] = {
      {"Relu", false, false, "Cast", TensorType::Native, true, true, true},
      {"Relu", false, false, "Cast", TensorType::GraphOutput, false, false, true},
      {"Relu", false, false, "Cast", TensorType::GraphOutput, false, true, false},
      {"Relu", false, true, "Cast", TensorType::GraphOutput, true, false, false},
      {"Relu", true, false, "Cast", TensorType::GraphOutput, true, false, false},
      {"Relu", true, false, "Cast", TensorType::Native, true, false, true},
      {"Relu", false, true, "Cast", TensorType::Native, false, false, false},
      {"input", false, false, "Cast", TensorType::GraphOutput, true, false, false},
      {"constant", false, false, "Reshape", TensorType::GraphOutput, true, false, false},
      {"Relu", false, false, "Split", TensorType::Native, true, false, false},
  };
  for (const auto& c : cases) {
    auto graph = std::make_shared<IrGraph>("g");
    addInput(graph, "x", {2, 3});
    const std::string input = c.input;
    if (input == "Relu") addPlainOp(graph, "in", "Relu", {"x"});
    if (input == "input") addInput(graph, "in", {2, 3});
    if (input == "constant") addConstant(graph, "in", {2, 3}, data, sizeof(data));
    if (c.inputIsOutput) makeGraphOutput(graph, "in");
    if (c.inputIsShared) addPlainOp(graph, "sharer", "Tanh", {"in"});
    const auto op = std::make_shared<ops::IrOp>("s", c.type, nullptr);
    const Names outputs = op->getType() == "Split" ? Names{"s", "s1"} : Names{"s"};
    graph->addOp(op, {"in"}, outputs, std::vector<IrTensorShape>(outputs.size(), IrTensorShape({2, 3})), {},
                 -1, false);
    if (c.outputType != TensorType::Native) makeGraphOutput(graph, "s", c.outputType);
    if (c.outputIsRead) addPlainOp(graph, "reader", "Tanh", {"s"});

    const auto label = ::testing::Message()
                       << input << " -> " << c.type << " of tensor type " << static_cast<int>(c.outputType)
                       << ", keepInput " << c.keepInput;
    EXPECT_EQ(canSquash(graph, op, graph->getTensor("in"), c.keepInput), c.possible) << label;
    EXPECT_EQ(messageOf([&] { graph->squash(op, "in", c.keepInput, false); }) == "nothing thrown", c.possible)
        << label;
  }
  GraphPtr graph = makeChain({"Relu", "Cast", "Tanh"});
  EXPECT_FALSE(canSquash(graph, graph->getOp("op1"), graph->getTensor("x"), false)) << "no input of the op";
}

TEST(ManageSharedStaticInput, TheOpGoesOnReadingTheSharedOneAtTheOtherInput) {
  const float data[] = {1, 2, 3};
  auto graph = std::make_shared<IrGraph>("g");
  addConstant(graph, "w", {3}, data, sizeof(data));
  addInput(graph, "x", {2, 3});
  const auto op = addPlainOp(graph, "op", "Add", {"w", "w", "x"});
  addPlainOp(graph, "other", "Add", {"w", "x"});
  graph->addTraceSources(TraceKind::Tensor, "w", {{"weight", TraceKind::Tensor}});
  manageSharedStaticInput(graph, op, 1);
  EXPECT_EQ(op->getInput(0)->getName(), "w");
  EXPECT_EQ(op->getInput(1)->getName(), "op_kernel_weight");
  EXPECT_EQ(graph->getTraceInfo(TraceKind::Tensor, "op_kernel_weight").size(), 1u);
  EXPECT_EQ(graph->getStaticTensor("op_kernel_weight")->getDataAs<float>()[2], 3.0f);
  expectSound(graph);
  EXPECT_EQ(failureOf<std::runtime_error>([&] { manageSharedStaticInput(graph, op, 2); }),
            "manageSharedStaticInput: Failed to clone static tensor: op_kernel_bias");
}

TEST(ReplaceAllUsers, MovesConsumersThatMatch) {
  const auto recorded = [](IrTensor& tensor) {
    QuantInfo record;
    record.isOverridden = true;
    tensor.setFloatQInfo(ORLO_DATATYPE_FLOAT_32, record);
  };
  const auto retyped = [](IrTensor& tensor) { tensor.setDataType(ORLO_DATATYPE_INT_32); };
  const auto reshaped = [](IrTensor& tensor) { tensor.setShape(IrTensorShape({3, 2})); };
  const struct {
    std::function<void(IrTensor&)> change;
    bool strict;
    const char* message;
  } cases[] = {{recorded, true, "replaceAllUsers: QInfo must match for both the tensors"},
               {retyped, true, "replaceAllUsers: DataType must match for both the tensors"},
               {reshaped, false, "replaceAllUsers: Dimensions must match for both the tensors"},
               {retyped, false, "nothing thrown"}};
  for (const auto& c : cases) {
    GraphPtr graph = makeChain({"Relu", "Tanh"});
    const auto twice = addPlainOp(graph, "twice", "Add", {"op0", "op0"});
    addInput(graph, "other", {2, 3}, TensorType::Native);
    const auto other = graph->getTensor("other");
    c.change(*other);
    EXPECT_EQ(messageOf([&] { replaceAllUsers(graph, other, graph->getTensor("op0"), c.strict); }),
              c.message);
    if (c.strict || c.message[0] != 'n') continue;
    EXPECT_EQ(graph->getTensor("op0"), other) << "the names are exchanged";
    EXPECT_EQ(twice->getInput(1), other);
    EXPECT_TRUE(graph->getTensor("other")->getConsumers().empty());
    expectSound(graph);
  }
}

TEST(HandOverGraphOutput, KeepsPlaceAndKind) {
  const struct {
    TensorType from;
    bool updateable;
    TensorType to;
    TensorType left;
  } cases[] = {
      {TensorType::GraphOutput, true, TensorType::GraphOutput, TensorType::Native},
      {TensorType::OptionalOutput, false, TensorType::OptionalOutput, TensorType::Native},
      {TensorType::GraphInputOutput, false, TensorType::GraphOutput, TensorType::GraphInput},
  };
  for (const auto& c : cases) {
    GraphPtr graph = makeChain({"Relu", "Tanh", "Cast"});
    makeGraphOutput(graph, "op1", c.from);
    makeGraphOutput(graph, "op0");
    const auto from = graph->getTensor("op1");
    const auto to = graph->getTensor("op2");
    from->setUpdateable(c.updateable);
    handOverGraphOutput(graph, from, to);
    EXPECT_EQ(to->getTensorType(), c.to);
    EXPECT_EQ(to->isUpdateable(), c.updateable);
    EXPECT_EQ(from->getTensorType(), c.left);
    const auto outputs = graph->getGraphOutputs();
    ASSERT_EQ(outputs.size(), 2u);
    EXPECT_EQ(outputs[0], to);
    expectSound(graph);
  }
}

}  // namespace
}  // namespace netforge::graphrefiner::testing
