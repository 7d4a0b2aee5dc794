// The pass that gives the application's buffers a fixed-point form.
#include <gtest/gtest.h>
#include "GraphRefiner/src/PassRegistry.h"
#include "metadata/ProcessCustomIOQuantInfoPass.h"
#include "tests/support/CapturedOutput.h"
#include "tests/support/Failures.h"
#include "tests/support/GraphText.h"
#include "tests/support/TextValues.h"

namespace netforge::testing {
namespace {

using graphrefiner::ProcessCustomIOQuantInfoPass;

struct Entry {
  std::string name;
  std::optional<std::string> type = {};
  std::optional<CustomIOQuantParams> params = {};
  bool optional = false;
};

std::shared_ptr<IrGraph> makeGraph(const std::string& text, const std::vector<Entry>& entries) {
  auto graph = readGraph(text);
  for (const Entry& entry : entries) {
    graph->customIOEntries.push_back(
        {entry.name, entry.type ? std::make_shared<std::string>(*entry.type) : nullptr,
         entry.params ? std::make_shared<CustomIOQuantParams>(*entry.params) : nullptr, entry.optional});
  }
  return graph;
}

std::string run(std::shared_ptr<IrGraph>& graph) {
  CapturedOutput output;
  EXPECT_FALSE(ProcessCustomIOQuantInfoPass().run(graph));
  EXPECT_EQ(graph->checkInvariants(), std::vector<std::string>());
  return output.text();
}

std::string wiring(const IrGraph& graph) {
  std::string text;
  for (const auto& op : graph.getOps()) {
    text += op->getName() + ":";
    for (const auto& input : op->getInputs()) text += " " + input->getName();
    text += " ->";
    for (const auto& output : op->getOutputs()) {
      text += " " + output->getName() + " " + getDataTypeShortName(output->getDataType());
    }
    text += "\n";
  }
  return text;
}

TEST(CustomIO, DerivesTheEncodingFromTheEntry) {
  struct Case {
    std::optional<std::string> type;
    double scale;
    std::int32_t offset;
    std::string encoding;  // type, width, minimum, maximum, scale, offset of zero
  };
  const std::vector<Case> cases = {
      {"int8", 0.5, 0, "qint8 8 -64 63.5 0.5 -128 symmetric"},
      {"uint8", 0.5, 0, "quint8 8 0 127.5 0.5 0"},
      {std::nullopt, 0.5, -10, "quint8 8 -5 122.5 0.5 10"},
      {"uint16", 0.5, -4, "quint16 16 -2 32765.5 0.5 4"},
      {"int16", 2, 3, "qint16 16 -65530 65540 2 -3 symmetric"},
      {"int8", 1, INT32_MIN, "qint8 8 -2.14748e+09 -2.14748e+09 1 2.14748e+09 symmetric"},
  };
  for (const Case& expected : cases) {
    auto graph = makeGraph("in x[2,3] NF\n y NF = Relu(x)\n out y",
                           {{"x", expected.type, CustomIOQuantParams{expected.scale, expected.offset}}});
    run(graph);
    const auto tensor = graph->getTensor("x");
    const QuantInfo& info = tensor->getQuantInfo();
    const auto& scale = info.scaleOffset;
    EXPECT_EQ(
        concatText(getDataTypeShortName(tensor->getDataType()), " ", scale.bitwidth, " ", scale.minimum, " ",
                   scale.maximum, " ", scale.scale, " ", scale.offset, scale.isSymmetric ? " symmetric" : ""),
        expected.encoding);
    EXPECT_TRUE(tensor->isQuantized() && info.isOverridden && scale.isFixedPoint);
    EXPECT_EQ(info.encoding, QuantEncodingKind::ScaleOffset);
    EXPECT_EQ(info.definition, 1U);
    EXPECT_EQ(info.auxDefinition, static_cast<std::uint32_t>(tensor->getDataType()));
  }
}

const CustomIOQuantParams kHalf{0.5, 0};

TEST(CustomIO, PutsConversionsAtTheBoundary) {
  struct Case {
    const char* fault;
    std::string before;
    std::vector<Entry> entries;
    std::string after;  // wiring
  };
  const std::string two =
      "in a[2,3]\n in b[2,3]\n r = Relu(b)\n y = Eltwise_Binary(a, r) operation=0\n out y";
  const std::vector<Case> cases = {
      {"the conversions stand in the order of the graph and not of the entries",
       two,
       {{"b", "int8", kHalf}, {"a", "uint16", kHalf}},
       "b_dequant: b -> b_custom_dequant float32\na_dequant: a -> a_custom_dequant float32\n"
       "r: b_custom_dequant -> r float32\ny: a_custom_dequant r -> y float32\n"},
      {"an input that nobody reads moves the place of the next",
       "in u[2]\n in x[2]\n y = Relu(x)\n out y",
       {{"u", {}, kHalf}, {"x", {}, kHalf}},
       "x_dequant: x -> x_custom_dequant float32\ny: x_custom_dequant -> y float32\n"},
      {"readers of an output inside the model read the quantised form",
       "in x[2,3]\n y = Relu(x)\n z = Sigmoid(y)\n out y\n out z",
       {{"y", "uint8", kHalf}},
       "y: x -> y_custom_convert float32\ny_custom_convert: y_custom_convert -> y quint8\n"
       "z: y_custom_convert -> z float32\n"},
      {"the Cast stands in front of a Reshape",
       "in x[2,3] i32\n r[6] = Reshape(x)\n y = Relu(r)\n out y",
       {{"x", "uint8", kHalf}},
       "x_dequant: x -> x_custom_dequant float32\nr: x_custom_dequant -> r float32\n"
       "r_cast: r -> r_cast int32\ny: r_cast -> y int32\n"},
      {"an output of the application changes its type with a Reshape",
       "in x[2,3] i32\n r[6] = Reshape(x)\n out r",
       {{"x", "uint8", kHalf}},
       "x_dequant: x -> x_custom_dequant float32\nx_cast: x_custom_dequant -> x_cast int32\n"
       "r: x_cast -> r int32\n"},
      {"an entry without quantisation adds an op",
       "in x[2]\n y = Relu(x)\n out y",
       {{"x", "nonsense"}},
       "y: x -> y float32\n"},
  };
  for (const Case& entry : cases) {
    auto graph = makeGraph(entry.before, entry.entries);
    run(graph);
    EXPECT_EQ(wiring(*graph), entry.after) << entry.fault;
  }
}

TEST(CustomIO, TheOutputOfTheApplicationTakesKindAndPlace) {
  auto graph = makeGraph("in x[2,3] NF\n y NF = Relu(x)\n z = Sigmoid(x)\n out y\n out z",
                         {{"y", "int8", CustomIOQuantParams{0.25, 5}, true}});
  graph->addTraceSources(TraceKind::Tensor, "y", {TraceSource{"source", TraceKind::Tensor}});
  run(graph);
  const auto outputs = graph->getGraphOutputs();
  ASSERT_EQ(outputs.size(), 2U);
  EXPECT_EQ(outputs[0], graph->getTensor("y"));
  EXPECT_EQ(outputs[0]->getTensorType(), TensorType::OptionalOutput);
  EXPECT_EQ(outputs[0]->getAxisFormat(), AxisFormat::NF);
  EXPECT_EQ(outputs[0]->getQuantInfo().scaleOffset.offset, -5);
  EXPECT_EQ(graph->getTensor("y_custom_convert")->getTensorType(), TensorType::Native);
  for (const std::string name : {"y", "y_custom_convert"}) {
    EXPECT_EQ(graph->getTraceInfo(TraceKind::Tensor, name).size(), 1U) << name;
  }
  EXPECT_EQ(graph->getTraceInfo(TraceKind::Op, "y_custom_convert").size(), 1U);
}

TEST(CustomIO, ATensorThatIsInputAndOutputGetsBothConversions) {
  auto graph = makeGraph("in x[2,3]\n out x\n y = Relu(x)\n out y", {{"x", {}, kHalf}});
  run(graph);
  EXPECT_EQ(graph->getTensor("x_custom_convert")->getDataType(), ORLO_DATATYPE_UFIXED_POINT_8);
  EXPECT_EQ(graph->getOp("x_dequant")->getInput(0)->getName(), "x_custom_convert");
  EXPECT_EQ(graph->getGraphOutputs()[0]->getName(), "x");
  EXPECT_EQ(graph->getGraphOutputs()[0]->getTensorType(), TensorType::GraphOutput);
  EXPECT_EQ(graph->getGraphInputs()[0]->getTensorType(), TensorType::GraphInput);
}

TEST(CustomIO, MarksOptionalBuffers) {
  const std::string text = "in x[2]\n in b[2]\n out b\n y = Relu(x)\n out y";
  auto graph = makeGraph(text, {{"x", {}, {}, true}, {"y", {}, {}, true}, {"b", {}, {}, true}});
  run(graph);
  EXPECT_EQ(graph->getTensor("x")->getTensorType(), TensorType::OptionalInput);
  EXPECT_EQ(graph->getTensor("y")->getTensorType(), TensorType::OptionalOutput);
  EXPECT_EQ(graph->getTensor("b")->getTensorType(), TensorType::OptionalInputOutput);
  EXPECT_EQ(graph->numOps(), 1U);
}

TEST(CustomIO, TellsWhatItDoesAndWhereItStops) {
  const std::string head = "netforge::graphrefiner::ProcessCustomIOQuantInfoPass::run: ";
  const std::string text = "in x[2]\n r = Relu(x)\n y = Relu(r)\n out y";
  auto none = makeGraph(text, {});
  EXPECT_EQ(run(none), head + "No CustomIO entries found, skipping Pass\n");
  auto some = makeGraph(text, {{"y"}, {"x"}});
  EXPECT_EQ(run(some), head + "Processing 2 CustomIO entry(s)\n" + head + "Processing CustomIO entry: y\n" +
                           head + "Processing CustomIO entry: x\n");
  const std::vector<std::pair<Entry, std::string>> failures = {
      {{"q"},
       head + "PopulateCustomIOQuantInfoAndDequant: Tensor q from custom IO file was not found in IR graph."},
      {{"r", {}, {}, true}, head + "Tensor 'r' must be either a graph input or output to be optional."},
      {{"r", "float32", kHalf},
       "netforge::graphrefiner::ProcessCustomIOQuantInfoPass::getDTypeQuantInfo: "
       "PopulateCustomIOQuantInfoAndDequant: Datatype does not have a defined FXP range: float32"}};
  for (const auto& [entry, message] : failures) {
    auto graph = makeGraph(text, {{"x", {}, kHalf}, entry});
    CapturedOutput output;
    EXPECT_EQ(failureOf<std::runtime_error>([&] { ProcessCustomIOQuantInfoPass().run(graph); }), message);
    EXPECT_TRUE(graph->hasOp("x_dequant"));  // entries in front stay applied
  }
}

}  // namespace
}  // namespace netforge::testing
