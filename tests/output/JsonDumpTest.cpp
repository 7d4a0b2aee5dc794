#include <gtest/gtest.h>
#include <unistd.h>

#include <clocale>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <locale>

#include "ir/IrGraph.h"
#include "output/ModelDump.h"

namespace netforge {
namespace {

namespace fs = std::filesystem;

/// What every tensor of the model dump has, whatever its quantisation.
const std::string kQuantParams = R"("quant_params": {
                    "definition": 2147483647,
                    "encoding": 2147483647,
                    "is_overridden": false,
                    "scale_offset": {
                        "bitwidth": 0,
                        "minimum": 0.0,
                        "maximum": 0.0,
                        "scale": 0.0,
                        "offset": 0,
                        "is_symmetric": false,
                        "is_fixed_point": true
                    }
                })";

std::string withQuantParams(std::string text) {
  for (auto at = text.find("@QUANT"); at != std::string::npos; at = text.find("@QUANT")) {
    text.replace(at, 6, kQuantParams);
  }
  return text;
}

struct CommaDecimals : std::numpunct<char> {
  char do_decimal_point() const override { return ','; }
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

/// Runs in a directory of its own, since a model dump leaves files in the current one.
class JsonDump : public testing::Test {
 protected:
  void SetUp() override {
    home = fs::current_path();
    room = fs::temp_directory_path() / ("json_dump_" + std::to_string(getpid()));
    fs::create_directories(room);
    fs::current_path(room);
    graph = std::make_shared<IrGraph>("g");
  }
  void TearDown() override {
    fs::current_path(home);
    fs::remove_all(room);
  }

  static std::string read(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  void addOp(const std::string& name, const std::string& type,
             const std::shared_ptr<IrAttributes>& attributes, const std::vector<std::string>& inputs,
             const std::string& output, const IrTensorShape& shape) {
    graph->addOp(std::make_shared<ops::IrOp>(name, type, attributes), inputs, {output}, {shape},
                 {AxisFormat::NFC}, -1, false);
  }

  void addInput(const std::string& name, TensorType type) {
    graph->addTensor(std::make_shared<IrTensor>(name, std::vector<std::uint32_t>{1, 2, 30000},
                                                ORLO_DATATYPE_FLOAT_32, AxisFormat::NCF, type,
                                                std::vector<std::uint32_t>{}));
  }

  /// x -> Transpose -> y, a quantised Add of y and a constant, and a Sub that reads the constant as well.
  void buildSmallGraph() {
    addInput("x", TensorType::GraphInput);
    graph->addTensor(std::make_shared<IrStaticTensor>("c \"β\"\n", std::vector<std::uint32_t>{7, 8}));
    auto perm = std::make_shared<IrAttributes>();
    perm->add("perm", std::make_shared<IrStaticTensor>("p", std::vector<std::uint32_t>{0, 2, 1}),
              ATTR_ORDINARY);
    addOp("tr", "Transpose", perm, {"x"}, "y", IrTensorShape({1, 30000, 2}));
    addOp("add", "Add", nullptr, {"y", "c \"β\"\n"}, "q", IrTensorShape({1, 30000, 2}));
    QuantInfo quantInfo;
    quantInfo.encoding = QuantEncodingKind::ScaleOffset;
    quantInfo.scaleOffset.scale = 0.5f;
    graph->getTensor("q")->setQInfo(ORLO_DATATYPE_UFIXED_POINT_8, quantInfo);
    addOp("a/sub", "Sub", nullptr, {"q", "c \"β\"\n", "q"}, "a", IrTensorShape({4, 2}, {0, 1}));
  }

  fs::path home, room;
  std::shared_ptr<IrGraph> graph;
};

TEST_F(JsonDump, ModelFormOfASmallGraph) {
  buildSmallGraph();
  std::ofstream("temp.bin") << "old";
  dumpModelJson(graph, "model");
  EXPECT_EQ(read("model"), withQuantParams(R"({
    "model.cpp": "temp.cpp",
    "model.bin": "temp.bin",
    "graph": {
        "tensors": {
            "a": {
                "type": 3,
                "data_type": 562,
                @QUANT,
                "dims": [
                    4,
                    2
                ]
            },
            "c \"β\"\n": {
                "type": 4,
                "data_type": 306,
                @QUANT,
                "dims": [
                    2
                ]
            },
            "q": {
                "type": 3,
                "data_type": 1032,
                @QUANT,
                "dims": [
                    1,
                    30000,
                    2
                ]
            },
            "x": {
                "type": 0,
                "data_type": 562,
                @QUANT,
                "dims": [
                    1,
                    2,
                    30000
                ]
            },
            "y": {
                "type": 3,
                "data_type": 562,
                @QUANT,
                "dims": [
                    1,
                    30000,
                    2
                ]
            }
        },
        "nodes": {
            "tr": {
                "type": "Transpose",
                "tensor_params": {},
                "input_names": [
                    "x"
                ],
                "output_names": [
                    "y"
                ]
            },
            "add": {
                "type": "Add",
                "tensor_params": {},
                "input_names": [
                    "y",
                    "c \"β\"\n"
                ],
                "output_names": [
                    "q"
                ]
            },
            "a/sub": {
                "type": "Sub",
                "tensor_params": {},
                "input_names": [
                    "q",
                    "c \"β\"\n",
                    "q"
                ],
                "output_names": [
                    "a"
                ]
            }
        }
    }
})"));
  for (const char* companion : {"temp.cpp", "temp.bin"}) {
    EXPECT_TRUE(fs::exists(companion)) << companion;
    EXPECT_EQ(read(companion), "") << companion;
  }
}

/// One member of "inputs" or "outputs", at the depth of an output.
std::string record(const std::string& name, const std::string& layout, const std::string& dims,
                   const std::string& dynamicAxes, const std::string& type) {
  const auto numbers = [](const std::string& list) {
    if (list.empty()) return std::string("[]");
    std::string text = "[\n                        ";
    for (const char c : list) text += c == ' ' ? ",\n                        " : std::string(1, c);
    return text + "\n                    ]";
  };
  return "            \"" + name + "\": {\n                \"layout\": \"" + layout +
         "\",\n                \"shape\": {\n                    \"dims\": " + numbers(dims) +
         ",\n                    \"dynamic_axes\": " + numbers(dynamicAxes) +
         "\n                },\n                \"dtype\": \"" + type + "\"\n            }";
}

/// The same as an element of "inputs", which stands one level deeper.
std::string inputRecord(const std::string& text) {
  std::string deeper = "            {\n    ";
  for (const char c : text) deeper += c == '\n' ? "\n    " : std::string(1, c);
  return deeper + "\n            }";
}

std::string entry(const std::string& name, const std::string& type, const std::string& inputs,
                  const std::string& output, const std::string& attributes) {
  return "    \"" + name + "\": {\n        \"name\": \"" + name + "\",\n        \"type\": \"" + type +
         "\",\n        \"inputs\": " + (inputs.empty() ? "[]" : "[\n" + inputs + "\n        ]") +
         ",\n        \"outputs\": {\n" + output + "\n        },\n        \"attrs\": " + attributes +
         "\n    }";
}

TEST_F(JsonDump, GraphFormOfASmallGraph) {
  buildSmallGraph();
  graph->dumpJson("form");
  const std::string constantName = R"(c \"β\"\n)";
  const std::string x = record("x", "NCF", "1 2 30000", "", "float32");
  const std::string y = record("y", "NFC", "1 30000 2", "", "float32");
  const std::string q = record("q", "NFC", "1 30000 2", "", "quint8");
  const std::string c = record(constantName, "NOT_YET_DEFINED", "2", "", "uint32");
  const std::string a = record("a", "NFC", "4 2", "0 1", "float32");
  const std::string order = R"({
            "order": [
                0,
                2,
                1
            ]
        })";
  EXPECT_EQ(
      read("form.json"),
      "{\n" + entry("x", "input", "", x, "{}") + ",\n" + entry("tr", "Transpose", inputRecord(x), y, order) +
          ",\n" + entry(constantName, "constant", "", c, "{}") + ",\n" +
          entry("add", "Add", inputRecord(y) + ",\n" + inputRecord(c), q, "{}") + ",\n" +
          entry("a/sub", "Sub", inputRecord(q) + ",\n" + inputRecord(c) + ",\n" + inputRecord(q), a, "{}") +
          "\n}");
}

TEST_F(JsonDump, SameBytesAgainAndUnderAnyLocale) {
  buildSmallGraph();
  dumpModelJson(graph, "first");
  graph->dumpJson("first.json");
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new CommaDecimals));
  for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8", "C"}) {
    if (std::setlocale(LC_ALL, name) != nullptr) break;
  }
  dumpModelJson(graph, "second");
  graph->dumpJson("second.json");
  std::setlocale(LC_ALL, "C");
  std::locale::global(before);
  EXPECT_EQ(read("first"), read("second"));
  EXPECT_EQ(read("first.json"), read("second.json"));
  EXPECT_FALSE(fs::exists("first.json.json"));
}

TEST_F(JsonDump, EmptyGraphAndOddOps) {
  dumpModelJson(graph, "empty");
  graph->dumpJson("empty.json");
  EXPECT_EQ(read("empty"), R"({
    "model.cpp": "temp.cpp",
    "model.bin": "temp.bin",
    "graph": {
        "tensors": {},
        "nodes": {}
    }
})");
  EXPECT_EQ(read("empty.json"), "{}");

  // Types that the description has no number for appear as they are; no Transpose needs a "perm".
  addInput("x", TensorType::OptionalInput);
  graph->getTensor("x")->setDataType(ORLO_DATATYPE_UNDEFINED);
  addOp("tr", "Transpose", nullptr, {"x"}, "y", IrTensorShape());
  dumpModelJson(graph, "odd");
  graph->dumpJson("odd.json");
  EXPECT_NE(read("odd").find("\"type\": 11,\n                \"data_type\": 2147483647,"), std::string::npos);
  EXPECT_NE(read("odd").find("\"dims\": []"), std::string::npos);
  EXPECT_NE(read("odd.json").find("\"dtype\": \"undefined\""), std::string::npos);
  EXPECT_NE(read("odd.json").find("\"attrs\": {}"), std::string::npos);
  EXPECT_EQ(read("odd.json").find("\"input\""), std::string::npos);

  auto perm = std::make_shared<IrAttributes>();
  perm->add(
      "perm",
      std::make_shared<IrStaticTensor>("p", std::vector<std::uint32_t>{3, 0}, 0, nullptr,
                                       ORLO_DATATYPE_UINT_32, AxisFormat::NONTRIVIAL, AxisFormat::NONTRIVIAL,
                                       true, TensorType::Static, std::vector<std::uint32_t>{}),
      ATTR_ORDINARY);
  addOp("short", "Transpose", perm, {"x"}, "z", IrTensorShape({1}));
  EXPECT_THROW(graph->dumpJson("short"), std::out_of_range);
  EXPECT_FALSE(fs::exists("short.json"));
}

TEST_F(JsonDump, FilesThatCannotBeWritten) {
  const auto textOf = [](const auto& call) -> std::string {
    try {
      call();
    } catch (const std::runtime_error& failure) {
      return failure.what();
    }
    return "nothing thrown";
  };
  EXPECT_EQ(textOf([this] { graph->dumpJson("absent/x"); }),
            "netforge::IrGraph::dumpJson: IrGraph::dumpJson: Failed to open file for writing: absent/x.json");
  EXPECT_EQ(textOf([this] { dumpModelJson(graph, "absent/x"); }),
            "netforge::dumpModelJson: Failed to open file for writing: absent/x");
  fs::remove("temp.cpp");
  fs::create_directory("temp.cpp");  // a companion that can't be created doesn't stop the dump
  dumpModelJson(graph, "x");
  EXPECT_NE(read("x"), "");
  if (fs::exists("/dev/full")) {
    EXPECT_EQ(textOf([this] { dumpModelJson(graph, "/dev/full"); }),
              "netforge::dumpModelJson: Failed to write file: /dev/full");
  }
}

}  // namespace
}  // namespace netforge
