// The cost of a graph, counted by the op classes.

#include <exception>
#include <iostream>
#include "ir/IrGraph.h"
#include "ops/TranslationRegistry.h"

namespace netforge {

std::pair<std::uint64_t, std::uint64_t> IrGraph::reEvalMacsParams() {
  constexpr const char* kFunction = "netforge::IrGraph::reEvalMacsParams";
  const auto warn = [&](const OpPtr& op, const char* what) {
    std::cout << kFunction << ": WARNING: Failed to calculate MACs/params for op " << op->getName() << ": "
              << what << '\n'
              << std::flush;
  };
  TranslationRegistry& registry = TranslationRegistry::instance();
  std::uint64_t totalMacs = 0;
  std::uint64_t totalParams = 0;
  for (const OpPtr& op : opOrder.asVector()) {
    try {
      // The graph may hold plain ops of a type that has a class. The shadow shares attributes and tensors.
      const OpPtr counted = registry.hasMethod(op->getType())
                                ? registry.applyMethod(op->getType(), op->getName(), op->getAttributes(),
                                                       op->getInputs(), op->getOutputs())
                                : op;
      const std::uint64_t macs = counted->macs(axisOrder);
      const std::uint32_t params = counted->paramsCount(axisOrder);
      totalMacs += macs;
      totalParams += params;
    } catch (const std::exception& failure) {
      warn(op, failure.what());
    } catch (...) {
      warn(op, "");
    }
  }
  std::cout << kFunction << ": Re-evaluated graph statistics after GraphRefiner optimization passes:\n"
            << kFunction << ": Total MACs: " << std::to_string(totalMacs) << '\n'
            << kFunction << ": Total Params Count: " << std::to_string(totalParams) << '\n'
            << std::flush;
  return {totalMacs, totalParams};
}

}  // namespace netforge
