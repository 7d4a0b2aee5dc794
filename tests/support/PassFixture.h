#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>
#include "GraphRefiner/src/GraphRefinerContext.h"
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {
class Pass;
}

namespace netforge::testing {

/// In the place of an expected graph: the pass leaves the graph as it was.
inline const std::string unchanged = "unchanged";

/// What a case lets pass that the fixture holds against every other. Say why beside it.
enum Allowance : unsigned {
  kNothing = 0,
  kOutputsChange = 1,   // graph outputs may change their name, shape or type
  kKeepsChanging = 2,   // a run after the last one may change the graph again
  kReportsNothing = 4,  // `run` returns false although it edits
  kSingleRun = 8,       // one call of `run`, whatever the run mode
  kValuesChange = 16,   // the graph may compute something else afterwards
};

/// One case of a pass: text form of graphs (see GraphText.h).
struct PassCase {
  std::string fault = {};  ///< what would be wrong if the case failed
  std::string before = {};
  std::string after = unchanged;
  std::optional<std::string> prints = {};  ///< all of standard output, when given
  std::string throws = {};                 ///< the text of the exception that ends the run, when not empty
  unsigned allow = kNothing;               ///< of Allowance
  std::function<void(IrGraph&)> prepare = {};        ///< what the text form can't say of the graph before
  std::function<void(const IrGraph&)> inspect = {};  ///< further checks of the graph after
};

/// Runs the pass over the case's graph as the manager does: once, or until it reports no change. Returns what
/// is wrong, one entry each, none when all is well. Always checked:
///  * the result is the expected graph, and what the pass prints or throws is as told;
///  * the graph's invariants hold in front of and behind every run;
///  * each return value of `run` is true to what that run did to the printed graph;
///  * one more run is idle;
///  * graph inputs keep name and shape, graph outputs name, shape, type and role, static ones included.
std::vector<std::string> runPassCase(graphrefiner::Pass& pass, const PassCase& passCase);

/// Takes the pass from the registry and fails the test for everything that `runPassCase` finds.
///
/// With the environment variable NETFORGE_PASS_CASES the graphs before and after every case that ends well go
/// into files of that folder, "<suite>.<test>.<number>.before" and ".after". The tests in Python evaluate
/// them: what the graph computes must not change but as the table of exceptions or kValuesChange allows.
void expectPass(graphrefiner::PassId id, const std::vector<PassCase>& cases);

}  // namespace netforge::testing
