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

TEST(ManageSharedStaticInput, CopiesOnlyWhatIsShared) {
  const float data[] = {1, 2, 3};
  const struct {
    std::uint32_t index;
    bool shared;
    const char* name;
  } cases[] = {{1, false, "w"}, {1, true, "op_kernel_weight"}, {2, true, "op_kernel_bias"}};
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
  EXPECT_EQ(failureOf<std::runtime_error>([&] { manageSharedStaticInput(graph, reader, 0); }),
            "manageSharedStaticInput: Failed to clone static tensor: reader_kernel_bias");
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
      {TensorType::Native, false, TensorType::Native, TensorType::Native},
  };
  for (const auto& c : cases) {
    GraphPtr graph = makeChain({"Relu", "Tanh", "Cast"});
    if (c.from != TensorType::Native) makeGraphOutput(graph, "op1", c.from);
    makeGraphOutput(graph, "op0");
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
