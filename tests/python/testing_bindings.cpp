// What the tests in Python need beside the public modules: the text form of graphs, and passes one by one.

#include <pybind11/pybind11.h>

#include <memory>
#include <string>

#include "GraphRefiner/src/PassManager.h"
#include "GraphRefiner/src/PassRegistry.h"
#include "ir/IrGraph.h"
#include "tests/support/CapturedOutput.h"
#include "tests/support/GraphText.h"

namespace py = pybind11;

namespace {

using namespace netforge;

// As the manager runs the pass, whatever pipeline lists it. Gives whether the pass reported a change.
bool runPass(std::shared_ptr<IrGraph> graph, const std::string& name) {
  const testing::CapturedOutput silence;
  graphrefiner::PassManager manager{graphrefiner::GraphRefinerContext()};
  manager.applyOptimizationPasses(graph, {graphrefiner::getPassIdFromPassName(name)},
                                  graphrefiner::OptimizationStage::PostLayout);
  return !manager.getExecutedPasses().empty();
}

}  // namespace

PYBIND11_MODULE(netforge_testing, module) {
  py::module_::import("netforge");  // binds IrGraph
  module.def("read_graph", [](const std::string& text) { return testing::readGraph(text); });
  module.def("extend_graph", [](const std::shared_ptr<IrGraph>& graph, const std::string& text) {
    testing::extendGraph(graph, text);
  });
  module.def("print_graph",
             [](const std::shared_ptr<IrGraph>& graph) { return testing::printGraph(*graph); });
  module.def("run_pass", &runPass);
}
