#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <locale>

#include "ir/IrGraph.h"
#include "output/ModelDump.h"
#include "tests/support/Failures.h"
#include "tests/support/OwnDirectory.h"

namespace netforge {
namespace {

using netforge::testing::messageOf;
namespace fs = std::filesystem;
using Dims = std::vector<std::uint32_t>;

/// Without blanks and line ends, which the texts of EmptyGraphAndOddOps show.
std::string squeezed(const std::string& text) {
  std::string result;
  std::copy_if(text.begin(), text.end(), std::back_inserter(result), [](char c) { return c > ' ' || c < 0; });
  return result;
}

/// Replaces "@<name>" by the value, for each of the names.
std::string expand(std::string text, const std::vector<std::pair<std::string, std::string>>& values) {
  for (const auto& [name, value] : values) {
    for (auto at = text.find("@" + name); at != std::string::npos; at = text.find("@" + name)) {
      text.replace(at, name.size() + 1, value);
    }
  }
  return text;
}

struct CommaDecimals : std::numpunct<char> {
  char do_decimal_point() const override { return ','; }
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

/// Runs in a directory of its own, since a model dump leaves files in the current one.
class JsonDump : public ::testing::Test {
 protected:
  void addOp(const std::string& name, const std::string& type,
             const std::shared_ptr<IrAttributes>& attributes, const std::vector<std::string>& inputs,
             const std::string& output, const IrTensorShape& shape) {
    graph->addOp(std::make_shared<ops::IrOp>(name, type, attributes), inputs, {output}, {shape},
                 {AxisFormat::NFC}, -1, false);
  }

  void addInput(const std::string& name, TensorType type) {
    graph->addTensor(std::make_shared<IrTensor>(name, Dims{1, 2, 30000}, ORLO_DATATYPE_FLOAT_32,
                                                AxisFormat::NCF, type, Dims{}));
  }

  static std::shared_ptr<IrAttributes> permOf(const std::shared_ptr<IrStaticTensor>& perm) {
    auto attributes = std::make_shared<IrAttributes>();
    attributes->add("perm", perm, ATTR_ORDINARY);
    return attributes;
  }

  /// x -> Transpose -> y, a quantised Add of y and a constant, and a Sub that reads the constant as well.
  void buildSmallGraph() {
    addInput("x", TensorType::GraphInput);
    graph->addTensor(std::make_shared<IrStaticTensor>("c\"β\"\n", Dims{7, 8}));
    addOp("tr", "Transpose", permOf(std::make_shared<IrStaticTensor>("p", Dims{0, 2, 1})), {"x"}, "y",
          IrTensorShape({1, 30000, 2}));
    addOp("add", "Add", nullptr, {"y", "c\"β\"\n"}, "q", IrTensorShape({1, 30000, 2}));
    QuantInfo quantInfo;
    quantInfo.encoding = QuantEncodingKind::ScaleOffset;
    quantInfo.scaleOffset.scale = 0.5f;
    graph->getTensor("q")->setQInfo(ORLO_DATATYPE_UFIXED_POINT_8, quantInfo);
    addOp("a/sub", "Sub", nullptr, {"q", "c\"β\"\n", "q"}, "a", IrTensorShape({4, 2}, {0, 1}));
  }

  const netforge::testing::OwnDirectory directory;
  std::shared_ptr<IrGraph> graph = std::make_shared<IrGraph>("g");
};

TEST_F(JsonDump, ModelFormOfASmallGraph) {
  buildSmallGraph();
  std::ofstream("temp.bin") << "old";
  dumpModelJson(graph, "model");
  const std::string expected = R"({"model.cpp": "temp.cpp", "model.bin": "temp.bin", "graph": {
    "tensors": {
      "a": {"type": 3, "data_type": 562, @QUANT, "dims": [4, 2]},
      "c\"β\"\n": {"type": 4, "data_type": 306, @QUANT, "dims": [2]},
      "q": {"type": 3, "data_type": 1032, @QUANT, "dims": [1, 30000, 2]},
      "x": {"type": 0, "data_type": 562, @QUANT, "dims": [1, 2, 30000]},
      "y": {"type": 3, "data_type": 562, @QUANT, "dims": [1, 30000, 2]}
    },
    "nodes": {
      "tr": {"type": "Transpose", "tensor_params": {}, "input_names": ["x"], "output_names": ["y"]},
      "add": {"type": "Add", "tensor_params": {}, "input_names": ["y", "c\"β\"\n"], "output_names": ["q"]},
      "a/sub": {"type": "Sub", "tensor_params": {}, "input_names": ["q", "c\"β\"\n", "q"], "output_names": ["a"]}
    }}})";
  const std::string quantParams = R"("quant_params": {
    "definition": 2147483647, "encoding": 2147483647, "is_overridden": false,
    "scale_offset": {"bitwidth": 0, "minimum": 0.0, "maximum": 0.0, "scale": 0.0, "offset": 0,
                     "is_symmetric": false, "is_fixed_point": true}})";
  EXPECT_EQ(squeezed(directory.read("model")), squeezed(expand(expected, {{"QUANT", quantParams}})));
  for (const char* companion : {"temp.cpp", "temp.bin"}) {
    EXPECT_TRUE(fs::exists(companion)) << companion;
    EXPECT_EQ(directory.read(companion), "") << companion;
  }
}

TEST_F(JsonDump, GraphFormOfASmallGraph) {
  buildSmallGraph();
  graph->dumpJson("form");
  const std::string expected = R"({
    "x": {"name": "x", "type": "input", "inputs": [], "outputs": {@X}, "attrs": {}},
    "tr": {"name": "tr", "type": "Transpose", "inputs": [{@X}], "outputs": {@Y}, "attrs": {"order": [0, 2, 1]}},
    "c\"β\"\n": {"name": "c\"β\"\n", "type": "constant", "inputs": [], "outputs": {@C}, "attrs": {}},
    "add": {"name": "add", "type": "Add", "inputs": [{@Y}, {@C}], "outputs": {@Q}, "attrs": {}},
    "a/sub": {"name": "a/sub", "type": "Sub", "inputs": [{@Q}, {@C}, {@Q}], "outputs": {@A}, "attrs": {}}})";
  const auto tensor = [](const std::string& name, const std::string& layout, const std::string& dims,
                         const std::string& dynamic, const std::string& type) {
    return "\"" + name + "\": {\"layout\": \"" + layout + "\", \"shape\": {\"dims\": [" + dims +
           "], \"dynamic_axes\": [" + dynamic + "]}, \"dtype\": \"" + type + "\"}";
  };
  EXPECT_EQ(squeezed(directory.read("form.json")),
            squeezed(expand(expected, {{"X", tensor("x", "NCF", "1,2,30000", "", "float32")},
                                       {"Y", tensor("y", "NFC", "1,30000,2", "", "float32")},
                                       {"Q", tensor("q", "NFC", "1,30000,2", "", "quint8")},
                                       {"C", tensor(R"(c\"β\"\n)", "NOT_YET_DEFINED", "2", "", "uint32")},
                                       {"A", tensor("a", "NFC", "4,2", "0,1", "float32")}})));
}

TEST_F(JsonDump, SameBytesAgainAndUnderAnyLocale) {
  buildSmallGraph();
  dumpModelJson(graph, "first");
  graph->dumpJson("first.json");
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new CommaDecimals));
  dumpModelJson(graph, "second");
  graph->dumpJson("second.json");
  std::locale::global(before);
  EXPECT_EQ(directory.read("first"), directory.read("second"));
  EXPECT_EQ(directory.read("first.json"), directory.read("second.json"));
  EXPECT_FALSE(fs::exists("first.json.json"));
}

TEST_F(JsonDump, EmptyGraphAndOddOps) {
  dumpModelJson(graph, "empty");
  graph->dumpJson("empty.json");
  EXPECT_EQ(directory.read("empty"), R"({
    "model.cpp": "temp.cpp",
    "model.bin": "temp.bin",
    "graph": {
        "tensors": {},
        "nodes": {}
    }
})");
  EXPECT_EQ(directory.read("empty.json"), "{}");

  // Types that the description has no number for appear as they are; no Transpose needs a "perm".
  addInput("x", TensorType::OptionalInput);
  graph->getTensor("x")->setDataType(ORLO_DATATYPE_UNDEFINED);
  addOp("tr", "Transpose", nullptr, {"x"}, "y", IrTensorShape());
  dumpModelJson(graph, "odd");
  graph->dumpJson("odd.json");
  const std::string model = directory.read("odd"), form = directory.read("odd.json");
  EXPECT_NE(model.find("\"type\": 11,\n                \"data_type\": 2147483647,"), std::string::npos)
      << model;
  EXPECT_NE(model.find("\"dims\": []"), std::string::npos) << model;
  EXPECT_NE(form.find("\"dtype\": \"undefined\""), std::string::npos) << form;
  EXPECT_NE(form.find("\"attrs\": {}"), std::string::npos) << form;

  // A "perm" whose first dim promises more than it holds.
  const auto perm = std::make_shared<IrStaticTensor>("p", Dims{3, 0}, 0, nullptr, ORLO_DATATYPE_UINT_32,
                                                     AxisFormat::NONTRIVIAL, AxisFormat::NONTRIVIAL, true,
                                                     TensorType::Static, Dims{});
  addOp("short", "Transpose", permOf(perm), {"x"}, "z", IrTensorShape({1}));
  EXPECT_THROW(graph->dumpJson("short"), std::out_of_range);
  EXPECT_FALSE(fs::exists("short.json"));
}

TEST_F(JsonDump, FilesThatCannotBeWritten) {
  EXPECT_EQ(messageOf([this] { graph->dumpJson("absent/x"); }),
            "netforge::IrGraph::dumpJson: IrGraph::dumpJson: Failed to open file for writing: absent/x.json");
  EXPECT_EQ(messageOf([this] { dumpModelJson(graph, "absent/x"); }),
            "netforge::dumpModelJson: Failed to open file for writing: absent/x");
  fs::remove("temp.cpp");
  fs::create_directory("temp.cpp");  // a companion that can't be created doesn't stop the dump
  dumpModelJson(graph, "x");
  EXPECT_NE(directory.read("x"), "");
  if (fs::exists("/dev/full")) {
    EXPECT_EQ(messageOf([this] { dumpModelJson(graph, "/dev/full"); }),
              "netforge::dumpModelJson: Failed to write file: /dev/full");
  }
}

}  // namespace
}  // namespace netforge
