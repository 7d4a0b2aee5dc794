#include "tests/support/PassFixture.h"

#include <gtest/gtest.h>
#include "GraphRefiner/src/Pass.h"

namespace netforge::testing {
namespace {

using GraphPtr = std::shared_ptr<IrGraph>;

struct ScriptedPass : graphrefiner::Pass {
  std::function<bool(GraphPtr&)> script;
  bool run(GraphPtr& graph) override { return script(graph); }
};

constexpr const char* kBefore = "in x[2,3] f32\na = Relu(x)\nb = Relu(a)\nout b";

std::vector<std::string> complaintsOf(const std::function<bool(GraphPtr&)>& script, PassCase passCase = {}) {
  ScriptedPass pass;
  pass.script = script;
  passCase.before = kBefore;
  return runPassCase(pass, passCase);
}

bool squashA(GraphPtr& graph) {
  if (!graph->hasOp("a")) return false;
  graph->squash(graph->getOp("a"), "x", true, false);
  return true;
}

// Each pass here does one thing that a pass must not do. A fixture that lets it through makes every test of a
// pass blind to it.
TEST(PassFixture, CatchesAPassThatMisbehaves) {
  const PassCase squashed{.after = "in x[2,3] f32\nb = Relu(x)\nout b"};
  struct Row {
    const char* complaint;
    std::function<bool(GraphPtr&)> script;
    PassCase passCase;
  };
  const Row rows[] = {
      {"run 0 returns false but changed the graph",
       [](GraphPtr& graph) {
         squashA(graph);
         return false;
       },
       squashed},
      {"run 0 returns true but didn't change the graph", [](GraphPtr&) { return true; }, {}},
      {"the graph was\n", squashA, {}},
      {"op a[Relu] is not expected\n", [](GraphPtr&) { return false; }, squashed},
      {"the graph behind run 0 breaks links: ",
       [](GraphPtr& graph) {
         graph->getTensor("x")->clearConsumers();
         return true;
       },
       {}},
      {"inputs and outputs of the graph were ",
       [](GraphPtr& graph) {
         if (graph->hasTensor("b")) graph->updateTensorName("b", "c");
         return true;
       },
       {}},
      {"one more run reports a change",
       [](GraphPtr& graph) {
         graph->updateTensorName(graph->getTensor("a") ? "a" : "c", graph->getTensor("a") ? "c" : "a");
         return true;
       },
       {}},
      {"prints 'said' and not ''",
       [](GraphPtr&) {
         std::cout << "said";
         return false;
       },
       {.prints = ""}},
      {"throws thrown and leaves\n", [](GraphPtr&) -> bool { throw std::runtime_error("thrown"); }, {}},
      {"throws 'thrown' and not 'else'",
       [](GraphPtr&) -> bool { throw std::runtime_error("thrown"); },
       {.throws = "else"}},
      {"doesn't throw", [](GraphPtr&) { return false; }, {.throws = "thrown"}},
  };
  for (const Row& row : rows) {
    const auto complaints = complaintsOf(row.script, row.passCase);
    bool found = false;
    for (const std::string& complaint : complaints)
      found = found || complaint.find(row.complaint) != std::string::npos;
    EXPECT_TRUE(found) << row.complaint << " is not among the " << complaints.size() << " complaints";
  }
  EXPECT_EQ(complaintsOf(squashA, squashed), std::vector<std::string>());
}

TEST(PassFixture, RepeatsAPassUntilItReportsNoChange) {
  int runs = 0;
  ScriptedPass pass;
  pass.runMode = graphrefiner::PassRunMode::Fixpoint;
  pass.script = [&](GraphPtr& graph) {
    ++runs;
    const auto op = graph->getOp("a");
    if (runs == 1 && op) return squashA(graph);
    return false;
  };
  PassCase passCase{.before = kBefore, .after = "in x[2,3] f32\nb = Relu(x)\nout b"};
  EXPECT_EQ(runPassCase(pass, passCase), std::vector<std::string>());
  EXPECT_EQ(runs, 3);  // the change, the end of the repeating, the check that it stays so

  runs = 0;
  passCase.allow = kSingleRun;
  EXPECT_EQ(runPassCase(pass, passCase), std::vector<std::string>());
  EXPECT_EQ(runs, 2);
}

}  // namespace
}  // namespace netforge::testing
