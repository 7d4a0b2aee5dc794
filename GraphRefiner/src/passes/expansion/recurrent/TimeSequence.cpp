#include "GraphRefiner/src/passes/expansion/recurrent/TimeSequence.h"

#include <algorithm>
#include <set>

namespace netforge::graphrefiner {

std::vector<std::uint32_t> TimeSequence::stepDims(std::uint32_t width) const {
  if (timeMajor) return {1, batch, width};
  return {batch, 1, width};
}

std::vector<std::string> TimeSequence::reordered(std::vector<std::string> names) const {
  if (backward) std::reverse(names.begin(), names.end());
  return names;
}

TimeSequence readTimeSequence(const std::shared_ptr<ops::IrOp>& op) {
  TimeSequence sequence;
  const auto x = op->getInput(0);
  const auto& dims = x->getDims();
  if (dims.size() != 2 && dims.size() != 3) return sequence;
  sequence.timeMajor = attributeOr(op, "time_major", false);
  sequence.backward = attributeOr<std::uint32_t>(op, "direction", 0) != 0;
  sequence.timeAxis = sequence.timeMajor ? 0 : 1;
  sequence.features = dims.back();
  sequence.ranked3 = dims.size() == 3;
  sequence.steps = sequence.ranked3 ? dims[sequence.timeAxis] : 1;
  sequence.batch = sequence.ranked3 ? dims[1 - sequence.timeAxis] : dims[0];
  return sequence;
}

bool hasDynamicInput(const std::shared_ptr<ops::IrOp>& op) {
  const auto inputs = op->getInputs();
  return std::any_of(inputs.begin(), inputs.end(),
                     [](const auto& input) { return input->getShape().hasDynamicAxes(); });
}

bool areFreeTensorNames(const IrGraph& graph, const std::vector<std::string>& names) {
  return std::set<std::string>(names.begin(), names.end()).size() == names.size() &&
         std::none_of(names.begin(), names.end(),
                      [&](const std::string& name) { return graph.hasTensor(name); });
}

std::vector<std::string> numberedNames(const std::string& base, std::uint32_t count) {
  std::vector<std::string> names;
  names.reserve(count);
  for (std::uint32_t i = 0; i < count; ++i) names.push_back(base + std::to_string(i));
  return names;
}

}  // namespace netforge::graphrefiner
