// Dump files around a pass, and the fingerprint that decides on the dumps by op type.
#include <fstream>
#include "GraphRefiner/src/PassManager.h"
#include "RefinerTestSupport.h"

namespace netforge::graphrefiner::testing {
namespace {

using Files = std::set<std::string>;

class DumpTest : public ::testing::Test {
 protected:
  // Runs "FoldConcats" as the given script over a graph and returns the files that it leaves.
  Files run(const GraphPtr& graph, ScriptedPass::Script script) {
    registry.add(PassId::FoldConcats, std::move(script));
    GraphPtr shared = graph;
    for (const std::string& old : directory.dumps()) std::filesystem::remove(old);
    PassManager(context).applyOptimizationPasses(shared, {PassId::FoldConcats},
                                                 OptimizationStage::PostLayout);
    return directory.dumps();
  }
  static bool unchanged(GraphPtr&) { return false; }
  static bool claimsChange(GraphPtr&) { return true; }

  OwnDirectory directory;
  OwnRegistry registry;
  GraphRefinerContext context;
};

TEST_F(DumpTest, FilesByLevelAndPassName) {
  const Files both = {"BeforeFoldConcats1.json", "AfterFoldConcats1.json"};
  const struct {
    bool dumpIr;
    IrDumpLevel level;
    std::vector<std::string> passNames;
    bool changes;
    Files files;
  } cases[] = {
      {true, IrDumpLevel::PostPassChange, {}, true, both},
      {true, IrDumpLevel::PostPassChange, {"MatchTopK", "FoldConcats"}, true, both},
      {true, IrDumpLevel::PostPassChange, {"MatchTopK"}, true, {}},
      {true, IrDumpLevel::PostPassChange, {}, false, {}},
      {false, IrDumpLevel::PostPassChange, {}, true, {}},
      {true, IrDumpLevel::PreAndPostOptimization, {}, true, {}},
      {true, IrDumpLevel::Checkpoint, {}, true, {}},
      // Nothing watched, so nothing is dumped after the change and the "Before" file goes.
      {true, IrDumpLevel::PostOpChange, {}, true, {}},
  };
  for (const auto& c : cases) {
    context.dump_ir = c.dumpIr;
    context.dump_ir_level = c.level;
    context.dump_ir_pass_names = c.passNames;
    EXPECT_EQ(run(makeChain({"Relu"}), c.changes ? claimsChange : unchanged), c.files)
        << "level " << static_cast<int>(c.level) << " on " << c.dumpIr << " changes " << c.changes;
  }
}

TEST_F(DumpTest, CounterGoesByListAndBeforeFileOfAnUnchangedPassIsRemovedAlways) {
  context.dump_ir = true;
  context.dump_ir_level = IrDumpLevel::PostPassChange;
  registry.add(PassId::FoldConcats, claimsChange);
  GraphPtr graph = makeChain({"Relu"});
  PassManager manager(context);
  const auto stage = OptimizationStage::PostLayout;
  manager.applyOptimizationPasses(graph, {PassId::FoldConcats, PassId::FoldConcats}, stage);
  const Files files = {"BeforeFoldConcats1.json", "AfterFoldConcats1.json", "BeforeFoldConcats2.json",
                       "AfterFoldConcats2.json"};
  EXPECT_EQ(directory.dumps(), files);
  manager.applyOptimizationPasses(graph, {PassId::FoldConcats}, stage);
  EXPECT_EQ(directory.dumps(), files) << "a new list counts from 1 again";

  registry.add(PassId::FoldConcats, unchanged);
  PassManager(GraphRefinerContext{}).applyOptimizationPasses(graph, {PassId::FoldConcats}, stage);
  EXPECT_EQ(directory.dumps().count("BeforeFoldConcats1.json"), 0u);
}

TEST_F(DumpTest, OpChangeWalk) {
  context.dump_ir = true;
  context.dump_ir_level = IrDumpLevel::PostOpChange;
  const auto rename = [](const std::string& tensor) {
    return [tensor](GraphPtr& graph) {
      graph->updateTensorName(tensor, tensor + "_new");
      return true;
    };
  };
  const auto removeLast = [](GraphPtr& graph) {
    graph->prune(OpPtr(graph->getOps().back()), true);
    return true;
  };
  const auto removeAll = [&](GraphPtr& graph) {
    while (!graph->getOps().empty()) removeLast(graph);
    return true;
  };
  const auto addGather = [](GraphPtr& graph) {
    return addPlainOp(graph, "new", "Gather", {"op2"}) != nullptr;
  };
  const struct {
    const char* label;
    std::vector<std::string> watched;
    ScriptedPass::Script script;
    bool dumps;  // the first of the watched types
  } cases[] = {
      {"the changed op is of a watched type", {"Tanh", "Tanh"}, rename("op2"), true},
      {"renaming a tensor changes its reader too", {"Tanh"}, rename("op1"), true},
      {"the first op of the graph is unchanged", {"Relu"}, rename("op2"), false},
      {"a type that stands behind the first op is dumped at once", {"Cast"}, rename("op2"), true},
      {"all ops of the type went", {"Tanh"}, removeLast, true},
      {"a new type", {"Gather"}, addGather, true},
      {"nothing left to look at", {"Relu", "Cast", "Tanh"}, removeAll, false},
  };
  for (const auto& c : cases) {
    context.dump_ir_op_types = c.watched;
    const Files files = {"BeforeFoldConcats1.json", c.watched[0] + "_AfterFoldConcats1.json"};
    EXPECT_EQ(run(makeChain({"Relu", "Cast", "Tanh"}), c.script), c.dumps ? files : Files{}) << c.label;
  }
  context.dump_ir_pass_names = {"MatchTopK"};
  context.dump_ir_op_types = {"Tanh"};
  EXPECT_EQ(run(makeChain({"Relu", "Cast", "Tanh"}), rename("op2")), Files{"Tanh_AfterFoldConcats1.json"})
      << "pass names limit the \"Before\" file alone";
}

}  // namespace
}  // namespace netforge::graphrefiner::testing
