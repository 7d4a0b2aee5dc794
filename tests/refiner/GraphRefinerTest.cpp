// The driver: construction, stages, dumps around a stage, the trace line.
#include "GraphRefiner/src/GraphRefiner.h"

#include <stdexcept>
#include "GraphRefiner/src/NameNumbers.h"
#include "RefinerTestSupport.h"

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

TEST_F(GraphRefinerTest, ThePassSelectionOfTheContextReachesTheManager) {
  const auto off = registry.add(PassId::FoldConcats, [](GraphPtr&) { return false; });
  const auto wanted = registry.add(PassId::OptimizeNegation, [](GraphPtr&) { return false; });
  wanted->enableMode = 1;
  context.optimizer_config = {{"disabledPasses", {"FoldConcats"}}, {"enabledPasses", {"OptimizeNegation"}}};
  GraphRefiner refiner(graph, {OptimizationStage::PostLayout}, nullptr, context);
  context.optimizer_config.clear();
  refiner.optimize();
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

TEST_F(GraphRefinerTest, StageDumpsAndNothingWithoutStages) {
  context.dump_pass_trace_info = true;
  context.dump_ir = true;
  context.debug_log = true;
  PyGraphRefiner refiner(graph, {}, nullptr, context);
  refiner.optimize();
  EXPECT_EQ(output.text(), "PASS TRACE INFO: \n");
  EXPECT_TRUE(directory.dumps().empty());
  context.dump_pass_trace_info = context.debug_log = false;
  GraphRefiner(graph, {OptimizationStage::PreQuant}, nullptr, context).optimize();
  EXPECT_EQ(directory.dumps(),
            (std::set<std::string>{"BeforePreQuantOptimizations.json", "AfterPreQuantOptimizations.json"}));
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
  EXPECT_EQ(drawn[0] + drawn[1], drawn[2] + drawn[3]);
  EXPECT_NE(drawn[0], drawn[1]);
  EXPECT_EQ(drawn[0].size(), 6u);
}

}  // namespace
}  // namespace netforge::graphrefiner::testing
