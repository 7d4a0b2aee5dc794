// Which passes the manager runs, how often, and in which order.
#include "GraphRefiner/src/PassManager.h"

#include "RefinerTestSupport.h"
#include "ir/BackendInfo.h"

namespace netforge::graphrefiner::testing {
namespace {

constexpr auto kStage = OptimizationStage::PreQuant;

class PassManagerTest : public ::testing::Test {
 protected:
  std::shared_ptr<ScriptedPass> add(PassId id, bool changes, PassRunMode mode = PassRunMode::Once) {
    return registry.add(
        id,
        [this, id, changes](GraphPtr&) {
          order.push_back(getPassNameFromPassId(id));
          return changes;
        },
        mode, kStage);
  }

  OwnDirectory directory;
  OwnRegistry registry;
  GraphPtr graph = std::make_shared<IrGraph>("g");
  std::vector<std::string> order;
};

TEST_F(PassManagerTest, SelectionByEnableModeAndLists) {
  const struct {
    std::uint32_t enableMode;
    bool enabled;
    bool disabled;
    int calls;
  } cases[] = {{0, false, false, 1}, {0, false, true, 0}, {0, true, true, 0},
               {1, false, false, 0}, {1, true, false, 1}, {1, true, true, 0}};
  for (const auto& c : cases) {
    const auto pass = add(PassId::FoldConcats, false);
    pass->enableMode = c.enableMode;
    GraphRefinerContext context;
    if (c.enabled) context.enabledPassIds = {PassId::FoldConcats};
    if (c.disabled) context.disabledPassIds = {PassId::MatchTopK, PassId::FoldConcats};
    PassManager(context).applyOptimizationPasses(graph, {PassId::FoldConcats}, kStage);
    EXPECT_EQ(pass->calls, c.calls) << c.enableMode << c.enabled << c.disabled;
  }
}

TEST_F(PassManagerTest, RunModes) {
  const struct {
    std::uint32_t mode;
    int changingRuns;  // the first runs report a change
    int calls;
    bool changed;
  } cases[] = {{0, 0, 1, false},  {0, 9, 1, true},   {1, 0, 1, false}, {1, 1, 2, true},
               {1, 50, 51, true}, {1, 99, 51, true}, {2, 9, 0, false}};
  for (const auto& c : cases) {
    int left = c.changingRuns;
    const auto pass = registry.add(
        PassId::OptimizeTransposes, [&left](GraphPtr&) { return left-- > 0; },
        static_cast<PassRunMode>(c.mode), kStage);
    CapturedOutput output;
    PassManager manager{GraphRefinerContext{}};
    manager.applyOptimizationPasses(graph, {PassId::OptimizeTransposes}, kStage);
    EXPECT_EQ(pass->calls, c.calls) << "mode " << c.mode << ", " << c.changingRuns << " changing runs";
    EXPECT_EQ(manager.getExecutedPasses().size(), c.changed ? 1u : 0u);
    EXPECT_EQ(output.text(), "");
  }
}

TEST_F(PassManagerTest, RunsInListOrderAndSkipsIdsWithoutAnEntry) {
  add(PassId::MatchTopK, true);
  add(PassId::FoldConcats, false);
  GraphRefinerContext context;
  context.debug_log = true;
  PassManager manager(context);
  CapturedOutput output;
  manager.applyOptimizationPasses(
      graph, {PassId::MatchTopK, PassId::RemoveNoOps1, PassId::FoldConcats, PassId::MatchTopK}, kStage);
  EXPECT_EQ(order, (std::vector<std::string>{"MatchTopK", "FoldConcats", "MatchTopK"}));
  EXPECT_EQ(manager.getExecutedPasses(), (std::vector<std::string>{"MatchTopK", "MatchTopK"}));
  const std::string line = "netforge::graphrefiner::PassManager::applyOptimizationPasses: DEBUG: ";
  EXPECT_EQ(output.text(), line + "MatchTopK Pass getting executed in GraphRefiner\n" + line +
                               "FoldConcats Pass getting executed in GraphRefiner\n" + line +
                               "MatchTopK Pass getting executed in GraphRefiner\n");
}

#ifndef NDEBUG
// A broken link that is found passes later, or never, costs hours.
TEST_F(PassManagerTest, ADebugBuildNamesThePassThatBreaksTheGraph) {
  const auto breakLinks = [](GraphPtr& broken) {
    broken->getTensor("x")->clearConsumers();
    return false;  // a pass that breaks the graph need not admit a change
  };
  const std::string prefix =
      "netforge::graphrefiner::PassManager::applyOptimizationPasses: The graph is broken ";
  const std::string violation = "\n  links: op op0 is not a consumer of its input x";
  registry.add(PassId::MatchTopK, breakLinks, PassRunMode::Once, kStage);
  const auto next = add(PassId::FoldConcats, false);
  GraphRefinerContext context;
  context.debug_log = true;
  for (const bool brokenBefore : {false, true}) {
    GraphPtr chain = makeChain({"Relu"});
    if (brokenBefore) breakLinks(chain);
    CapturedOutput output;
    EXPECT_EQ(messageOf([&] {
                PassManager(context).applyOptimizationPasses(chain, {PassId::MatchTopK, PassId::FoldConcats},
                                                             kStage);
              }),
              prefix + (brokenBefore ? "before the first pass" : "after pass MatchTopK") + violation);
  }
  EXPECT_EQ(next->calls, 0);
}
#endif

// One stage with a stand-in for every pass; each run notes its name.
class StageTest : public ::testing::Test {
 protected:
  StageTest() {
    for (std::uint32_t number = 0; number < 61; ++number) {
      const PassId id = static_cast<PassId>(number);
      registry.add(id, [this, id](GraphPtr&) {
        const std::string name = getPassNameFromPassId(id);
        order.push_back(name);
        return changing.count(name) != 0;
      });
    }
  }
  // What ran beyond the default passes.
  std::vector<std::string> tail() const {
    return {order.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(48, order.size())),
            order.end()};
  }

  OwnDirectory directory;
  OwnRegistry registry;
  CapturedOutput output;
  GraphPtr graph = std::make_shared<IrGraph>("g");
  std::vector<std::string> order;
  std::set<std::string> changing;
  GraphRefinerContext context;
};

const std::vector<std::string> kFollowUp = {"FoldReshapesInstance1", "SquashReshapeInstance1",
                                            "RemoveNoOps1"};

TEST_F(StageTest, BackendPipelineRunsBehindTheDefaultOne) {
  const struct {
    int kind;  // -1: no backend
    std::vector<std::string> tail;
  } cases[] = {{-1, {}}, {3, {"FullyConnectedToHadamard", "FoldHadamardWithMul"}}, {7, {}}, {255, {}}};
  for (const auto& c : cases) {
    const auto backend =
        c.kind < 0 ? nullptr : std::make_shared<BackendInfo>(static_cast<std::uint8_t>(c.kind));
    order.clear();
    PassManager manager(context);
    manager.runOptimizationStage(graph, backend, OptimizationStage::PostLayout);
    EXPECT_EQ(tail(), c.tail) << c.kind;
    EXPECT_EQ(order, manager.getCurrentExecutionPassNames(OptimizationStage::PostLayout, backend)) << c.kind;
  }
}

TEST_F(StageTest, FollowUpAfterRankReductionOverridesTheDisabling) {
  changing = {"Replace6dOps"};
  context.disabledPassIds = {PassId::SquashReshapeInstance1, PassId::MatchTopK, PassId::RemoveNoOps1,
                             PassId::SquashReshapeInstance1};
  PassManager manager(context);
  manager.runOptimizationStage(graph, std::make_shared<BackendInfo>(std::uint8_t(3)),
                               OptimizationStage::PostLayout);
  ASSERT_EQ(order.size(), 46u + 3u + 2u) << "RemoveNoOps1 and MatchTopK are disabled in the default list";
  EXPECT_EQ(std::vector<std::string>(order.begin() + 46, order.begin() + 49), kFollowUp);
  EXPECT_EQ(order[49], "FullyConnectedToHadamard");

  // The re-enabling lasts, the follow-up is due again, and MatchTopK stays disabled.
  order.clear();
  changing.clear();
  manager.runOptimizationStage(graph, nullptr, OptimizationStage::PostLayout);
  ASSERT_EQ(order.size(), 47u + 3u);
  EXPECT_EQ(std::vector<std::string>(order.begin() + 47, order.end()), kFollowUp);

  // Without rank reduction there is no follow-up.
  order.clear();
  PassManager(GraphRefinerContext{}).runOptimizationStage(graph, nullptr, OptimizationStage::PostLayout);
  EXPECT_EQ(order.size(), 48u);
}

TEST_F(StageTest, PostSteps) {
  graph = makeChain({"Relu"});
  graph->setTraceInfo(TraceKind::Op, "op0", {{"op0", TraceKind::Op}});
  context.enable_trace = true;
  context.dump_ir = true;
  context.dump_ir_level = IrDumpLevel::Checkpoint;
  PassManager(context).runOptimizationStage(graph, nullptr, OptimizationStage::PreQuant);
  EXPECT_NE(output.text().find("in stage Post G2G optimizations: PreQuant"), std::string::npos)
      << output.text();
  const std::size_t dumpLine = output.text().find(
      "netforge::graphrefiner::PassManager::runPostOptimizationSteps: Dumping IR graph after IrGraph "
      "optimizations as "
      "IRGraph_after_IrGraph_optimizations.json\n");
  EXPECT_NE(dumpLine, std::string::npos) << output.text();
  EXPECT_EQ(directory.dumps(), (std::set<std::string>{"IRGraph_after_IrGraph_optimizations.json"}));
}

}  // namespace
}  // namespace netforge::graphrefiner::testing
