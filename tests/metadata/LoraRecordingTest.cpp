// The pass that records layouts of tensors in the transform metadata file.
#include <gtest/gtest.h>
#include "metadata/TransformManagerWrapper.h"
#include "tests/metadata/MetadataSupport.h"
#include "tests/support/Failures.h"
#include "tests/support/GraphText.h"

namespace netforge::testing {
namespace {

using graphrefiner::DType;
using graphrefiner::ODLTransformManager;
using graphrefiner::TransformEntry;
using graphrefiner::TransformGraph;
using Names = std::vector<std::string>;
using Shapes = std::vector<std::vector<std::uint32_t>>;

class LoraRecording : public ::testing::Test {
 protected:
  void record(const std::string& text) {
    const auto graph = readGraph(text);
    pass.recordLoraTensorTransforms(folder.path(), graph);
  }

  // What leads to a tensor in the file, null when nothing does.
  static const TransformEntry* producerOf(const TransformGraph& graph, const std::string& name) {
    for (const TransformEntry* entry : graph.getOrderedTransforms()) {
      if (entry->destTensors == Names{name}) return entry;
    }
    return nullptr;
  }

  const TransformGraph& load() {
    manager = ODLTransformManager();
    manager.loadMetadata(folder.path());
    return manager.getTransformGraph("g");
  }

  MetadataFolder folder;
  ODLTransformManager manager;
  graphrefiner::TransformManagerWrapper pass;
};

const std::string kChain =
    R"("transforms": [{"src_tensors": ["w"], "dest_tensors": ["y"], "tensor_dtypes": {"y": "int8"},)"
    R"("operator": {"op_type": "Scale"}}])";

TEST_F(LoraRecording, TiesTheFileToTheLayoutOfAnOutput) {
  folder.writeGraph(kChain);
  for (int run = 0; run < 2; ++run) {  // the second finds the first one's work
    record("in y[2,3,5,7] order=[0,2,3,1]");
    const TransformGraph& graph = load();
    ASSERT_EQ(graph.transforms.size(), 2U);
    const TransformEntry* transpose = producerOf(graph, "y");
    ASSERT_NE(transpose, nullptr);
    EXPECT_EQ(transpose->srcTensors, Names{"y_pre_transposed"});
    EXPECT_EQ(transpose->op.attributes, (std::map<std::string, std::string>{{"perm", "[0,3,1,2]"}}));
    EXPECT_EQ(transpose->op.inputShapes, (Shapes{{2, 5, 7, 3}}));
    EXPECT_EQ(producerOf(graph, "y_pre_transposed")->op.opType, "Scale");
    EXPECT_EQ(graph.getTensorDtype("y_pre_transposed"), DType::Int8);
    EXPECT_EQ(sorted(graph.outputTensors), std::set<std::string>{"y"});
    EXPECT_EQ(sorted(graph.inputTensors), std::set<std::string>{"w"});
  }
}

TEST_F(LoraRecording, LeavesATensorThatIsInputAndOutputAnInput) {
  folder.writeGraph(
      R"("transforms": [{"src_tensors": ["y"], "dest_tensors": ["y"], "operator": {"op_type": "Identity"}}])");
  record("in y[2,3,5] order=[1,2,0]");
  const TransformGraph& graph = load();
  EXPECT_EQ(sorted(graph.inputTensors), std::set<std::string>{"y"});
  EXPECT_EQ(sorted(graph.outputTensors), std::set<std::string>{"y"});
  EXPECT_EQ(producerOf(graph, "y_pre_transposed")->srcTensors, Names{"y"});
  EXPECT_EQ(producerOf(graph, "y")->op.attributes.at("perm"), "[2,0,1]");
}

TEST_F(LoraRecording, RecordsNothingWhereNothingMoved) {
  for (const std::string tensor :
       {"y[2,3]", "y[2,3] order=[0,1]", "y[2,3] order=[1,0]", "y[2,3,5] order=[0,2,1]"}) {
    folder.writeGraph(kChain);
    record("in " + tensor);
    EXPECT_EQ(load().transforms.size(), 1U) << tensor;
  }
}

TEST_F(LoraRecording, WarnsOfATensorThatIsNotInTheGraph) {
  folder.writeGraph(kChain);
  ::testing::internal::CaptureStderr();
  record("in x[2,3]");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "[WARNING] RecordLoraTensorTransforms: tensor 'y' not found in IrGraph. Skipping.\n");
  EXPECT_NE(folder.read().find("\"version\""), std::string::npos);  // saved all the same
}

TEST_F(LoraRecording, AFailureLeavesTheFileAsItWas) {
  const std::string got =
      "RecordLoraTensorTransformsPass: Expected exactly one graph in transforms metadata, got ";
  for (const std::string graphs : {"", R"("a": {"execution_order": 0}, "b": {"execution_order": 0})"}) {
    folder.write("{\"graphs\": {" + graphs + "}}");
    EXPECT_EQ(failureOf<std::invalid_argument>([&] { record("in y[2]"); }),
              got + (graphs.empty() ? "0" : "2"));
  }
  folder.writeGraph(kChain);
  const std::string before = folder.read();
  failureOf<std::out_of_range>([&] { record("in y[2,3,5,7] order=[1,2,0]"); });
  EXPECT_EQ(folder.read(), before);
}

}  // namespace
}  // namespace netforge::testing
