#include "tests/support/PassFixture.h"

#include <gtest/gtest.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include "GraphRefiner/src/Pass.h"
#include "GraphRefiner/src/PassRegistry.h"
#include "ir/Failure.h"
#include "tests/support/CapturedOutput.h"
#include "tests/support/GraphText.h"
#include "tests/support/TextValues.h"

namespace netforge::testing {

namespace {

constexpr int kMostRuns = 51;  // of a repeating pass, as the manager counts

// What the application sees of the graph.
std::vector<std::string> describeInterface(const IrGraph& graph) {
  std::vector<std::string> lines;
  for (const auto& tensor : graph.getGraphInputs()) {
    lines.push_back(concatText("input ", tensor->getName(), " ", tensor->getShape()));
  }
  for (const auto& tensor : graph.getGraphOutputs()) {
    lines.push_back(concatText("output ", tensor->getName(), " ", tensor->getShape(), " ",
                               typeWord(tensor->getDataType()), " role ", tensor->getRuntimeTensorType()));
  }
  return lines;
}

class CaseRun {
 public:
  CaseRun(graphrefiner::Pass& testedPass, const PassCase& tested) : pass(testedPass), passCase(tested) {}

  std::vector<std::string> run() {
    try {
      graph = readGraph(passCase.before);
    } catch (const std::exception& failure) {
      return {std::string("the graph before can't be read: ") + failure.what()};
    }
    if (passCase.prepare) passCase.prepare(*graph);
    checkInvariants("the graph before");
    before = printGraph(*graph);
    const auto interfaceBefore = describeInterface(*graph);

    CapturedOutput output;
    if (!runToTheEnd()) return complaints;
    if (passCase.prints && *passCase.prints != output.text()) {
      complain("prints '", output.text(), "' and not '", *passCase.prints, "'");
    }
    if ((passCase.allow & kOutputsChange) == 0 && interfaceBefore != describeInterface(*graph)) {
      complain("inputs and outputs of the graph were ", interfaceBefore, " and are ",
               describeInterface(*graph));
    }
    checkResult();
    after = printGraph(*graph);
    if (passCase.inspect) passCase.inspect(*graph);
    checkIdle();
    return complaints;
  }

  /// The graphs in front of and behind the pass; empty for a run that ended with an exception.
  std::string before;
  std::string after;

 private:
  template <class... Parts>
  void complain(const Parts&... parts) {
    complaints.push_back(concatText(parts...));
  }

  void checkInvariants(const std::string& where) {
    for (const std::string& violation : graph->checkInvariants()) complain(where, " breaks ", violation);
  }

  // False when the pass threw.
  bool runToTheEnd() {
    const bool repeats =
        pass.runMode == graphrefiner::PassRunMode::Fixpoint && (passCase.allow & kSingleRun) == 0;
    try {
      for (int runs = 0; runs < (repeats ? kMostRuns : 1); ++runs) {
        const std::string inFront = printGraph(*graph);
        const bool reported = pass.run(graph);
        const bool changed = inFront != printGraph(*graph);
        checkInvariants("the graph behind run " + std::to_string(runs));
        if (reported != changed && !(changed && (passCase.allow & kReportsNothing) != 0)) {
          complain("run ", runs, " returns ", reported ? "true" : "false", " but ",
                   changed ? "changed" : "didn't change", " the graph");
        }
        if (!reported) break;
      }
    } catch (const std::exception& failure) {
      if (passCase.throws.empty()) {
        complain("throws ", failure.what(), " and leaves\n", printGraph(*graph));
      } else if (passCase.throws != failure.what()) {
        complain("throws '", failure.what(), "' and not '", passCase.throws, "'");
      }
      return false;
    }
    if (!passCase.throws.empty()) complain("doesn't throw");
    return true;
  }

  void checkResult() {
    if (passCase.after == unchanged) {
      if (before != printGraph(*graph)) complain("the graph was\n", before, "and is\n", printGraph(*graph));
      return;
    }
    try {
      const auto expected = readGraph(passCase.after);
      const std::string difference = explainDifference(*expected, *graph);
      if (!difference.empty()) complain(difference, "the graph is\n", printGraph(*graph));
    } catch (const std::exception& failure) {
      complain("the expected graph can't be read: ", failure.what());
    }
  }

  void checkIdle() {
    if ((passCase.allow & kKeepsChanging) != 0) return;
    const bool reported = pass.run(graph);
    if (reported || after != printGraph(*graph)) {
      complain("one more run reports ", reported ? "a change" : "no change", " and leaves\n",
               printGraph(*graph));
    }
  }

  graphrefiner::Pass& pass;
  const PassCase& passCase;
  std::shared_ptr<IrGraph> graph;
  std::vector<std::string> complaints;
};

void writeFile(const std::filesystem::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// For the evaluation in Python; see the header.
void recordCase(const std::string& passName, const PassCase& passCase, const CaseRun& run) {
  const char* folder = std::getenv("NETFORGE_PASS_CASES");
  if (folder == nullptr || run.after.empty()) return;
  static int number = 0;
  const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
  const std::string stem =
      concatText(test->test_suite_name(), ".", test->name(), ".", std::to_string(++number));
  const std::string head =
      concatText("# pass: ", passName, "\n# fault: ", passCase.fault,
                 "\n# values: ", (passCase.allow & kValuesChange) != 0 ? "may change\n" : "stay\n");
  writeFile(std::filesystem::path(folder) / (stem + ".before"), head + run.before);
  writeFile(std::filesystem::path(folder) / (stem + ".after"), head + run.after);
}

}  // namespace

std::vector<std::string> runPassCase(graphrefiner::Pass& pass, const PassCase& passCase) {
  return CaseRun(pass, passCase).run();
}

void expectPass(graphrefiner::PassId id, const std::vector<PassCase>& cases) {
  const auto pass = graphrefiner::getPassRegistry().table(graphrefiner::OptimizationStage::PostLayout).at(id);
  for (const PassCase& passCase : cases) {
    const std::string passName = graphrefiner::getPassNameFromPassId(id);
    CaseRun run(*pass, passCase);
    for (const std::string& complaint : run.run()) {
      ADD_FAILURE() << passName << ", " << passCase.fault << ":\n" << complaint;
    }
    recordCase(passName, passCase, run);
  }
}

}  // namespace netforge::testing
