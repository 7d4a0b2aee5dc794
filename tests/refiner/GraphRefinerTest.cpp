// The driver: construction, stages, dumps around a stage, the trace line.
#include "GraphRefiner/src/GraphRefiner.h"

#include <stdexcept>
#include "GraphRefiner/src/NameNumbers.h"
#include "RefinerTestSupport.h"
#include "ir/BackendInfo.h"

namespace netforge::graphrefiner::testing {
namespace {

using Stages = std::vector<OptimizationStage>;

class GraphRefinerTest : public ::testing::Test {
 protected:
  OwnDirectory directory;
  OwnRegistry registry;
  CapturedOutput output;
  GraphPtr graph = std::make_shared<IrGraph>("g");
  GraphRefinerContext context;
};

TEST_F(GraphRefinerTest, ConstructionChecksGraphAndPassNames) {
  EXPECT_THROW(GraphRefiner(nullptr, Stages{}, nullptr, context), std::invalid_argument);
  EXPECT_THROW(PyGraphRefiner(nullptr, Stages{}, nullptr, context), std::invalid_argument);
  context.optimizer_config = {{"anything", {"NoSuchPass"}}};
  EXPECT_NO_THROW(GraphRefiner(graph, Stages{}, nullptr, context));
  for (const char* key : {"enabledPasses", "disabledPasses"}) {
    context.optimizer_config = {{key, {"MatchTopK", "NoSuchPass"}}};
    EXPECT_EQ(
        failureOf<std::runtime_error>([&] { GraphRefiner(graph, Stages{}, nullptr, context); }),
        "netforge::graphrefiner::getPassIdFromPassName:  Invalid pass, No pass registered with the name: "
        "NoSuchPass");
  }
}

TEST_F(GraphRefinerTest, ThePassSelectionOfTheContextReachesTheManager) {
  const auto on = registry.add(PassId::MatchTopK, [](GraphPtr&) { return false; });
  const auto off = registry.add(PassId::FoldConcats, [](GraphPtr&) { return false; });
  const auto wanted = registry.add(PassId::OptimizeNegation, [](GraphPtr&) { return false; });
  wanted->enableMode = 1;
  context.optimizer_config = {{"disabledPasses", {"FoldConcats"}}, {"enabledPasses", {"OptimizeNegation"}}};
  GraphRefiner refiner(graph, {OptimizationStage::PostLayout}, nullptr, context);
  context.optimizer_config.clear();
  refiner.optimize();
  EXPECT_EQ(on->calls, 1);
  EXPECT_EQ(off->calls, 0);
  EXPECT_EQ(wanted->calls, 1);
}

TEST_F(GraphRefinerTest, TraceLineListsEveryChangingRunAndStartsAnewWithEachCall) {
  int changes = 1;
  registry.add(PassId::MatchTopK, [&](GraphPtr&) { return changes-- > 0; });
  registry.add(PassId::FlattenPReluAlpha, [](GraphPtr&) { return true; });
  context.dump_pass_trace_info = true;
  GraphRefiner refiner(graph, {OptimizationStage::PostLayout, OptimizationStage::PostLayout}, nullptr,
                       context);
  const auto traceLine = [&] {
    CapturedOutput ofThisCall;
    refiner.optimize();
    return ofThisCall.text().substr(ofThisCall.text().find("PASS TRACE INFO"));
  };
  EXPECT_EQ(traceLine(), "PASS TRACE INFO: MatchTopK, FlattenPReluAlpha, FlattenPReluAlpha, \n");
  EXPECT_EQ(traceLine(), "PASS TRACE INFO: FlattenPReluAlpha, FlattenPReluAlpha, \n");
}

TEST_F(GraphRefinerTest, WithoutStagesOnlyTheTraceLineIsPrinted) {
  context.dump_pass_trace_info = true;
  context.dump_ir = true;
  context.debug_log = true;
  PyGraphRefiner refiner(graph, {}, nullptr, context);
  refiner.optimize();
  EXPECT_EQ(output.text(), "PASS TRACE INFO: \n");
  EXPECT_TRUE(directory.dumps().empty());
  EXPECT_TRUE(refiner.getCurrentExecutionPassNames().empty());
}

TEST_F(GraphRefinerTest, StageDumps) {
  context.dump_ir = true;
  GraphRefiner(graph, {OptimizationStage::PreQuant, OptimizationStage::PostLayout}, nullptr, context)
      .optimize();
  EXPECT_EQ(
      directory.dumps(),
      (std::set<std::string>{"BeforePreQuantOptimizations.json", "AfterPreQuantOptimizations.json",
                             "BeforePostLayoutOptimizations.json", "AfterPostLayoutOptimizations.json"}));
}

TEST_F(GraphRefinerTest, CurrentExecutionPassNamesFollowTheStages) {
  const auto backend = std::make_shared<BackendInfo>(std::uint8_t(3));
  GraphRefiner refiner(
      graph, {OptimizationStage::PreLayout, OptimizationStage::PostLayout, OptimizationStage::PostQuant},
      backend, context);
  const auto names = refiner.getCurrentExecutionPassNames();
  ASSERT_EQ(names.size(), 50u);
  EXPECT_EQ(names.front(), "MatchTopK");
  EXPECT_EQ(names[47], "FlattenPReluAlpha");
  EXPECT_EQ(names[49], "FoldHadamardWithMul");
}

TEST_F(GraphRefinerTest, NameNumbersRepeatWithEachCall) {
  std::vector<std::string> drawn;
  registry.add(PassId::MatchTopK, [&](GraphPtr&) {
    drawn.push_back(nextNameNumber());
    drawn.push_back(nextNameNumber());
    return true;
  });
  GraphRefiner refiner(graph, {OptimizationStage::PostLayout}, nullptr, context);
  refiner.optimize();
  refiner.optimize();
  ASSERT_EQ(drawn.size(), 4u);
  EXPECT_EQ(drawn[0], drawn[2]);
  EXPECT_EQ(drawn[1], drawn[3]);
  EXPECT_NE(drawn[0], drawn[1]);
  for (const auto& digits : drawn) EXPECT_EQ(digits.size(), 6u);
}

}  // namespace
}  // namespace netforge::graphrefiner::testing
