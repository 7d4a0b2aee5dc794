#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

/// The sequence that input 0 of a recurrent op holds: [batch, time, features], [time, batch, features] with
/// "time_major", or [batch, features] for a single step.
struct TimeSequence {
  bool timeMajor = false;
  bool backward = false;  ///< "direction" is not 0: the last time step is computed first
  bool ranked3 = true;    ///< whether the sequence has a time axis at all
  std::uint32_t steps = 0;
  std::uint32_t batch = 0;
  std::uint32_t features = 0;
  std::uint32_t timeAxis = 0;

  /// The dims of one step with this many features in the layout of the whole sequence.
  std::vector<std::uint32_t> stepDims(std::uint32_t width) const;
  /// Steps in the order in which they are computed, given in the order of time, or the other way round.
  std::vector<std::string> reordered(std::vector<std::string> names) const;
};

/// A sequence of no steps when x has another rank than 2 and 3.
TimeSequence readTimeSequence(const std::shared_ptr<ops::IrOp>& op);

/// Whether an input has a dynamic axis: the step ops need all dims.
bool hasDynamicInput(const std::shared_ptr<ops::IrOp>& op);

/// The attribute, or a default when the op has none.
template <class T>
T attributeOr(const std::shared_ptr<ops::IrOp>& op, const std::string& name, const T& otherwise) {
  return op->getAttributes()->hasAttr(name) ? T(op->getAttributes()->getAttr<T>(name)) : otherwise;
}

/// Whether none of the names is a tensor of the graph, and none stands in the list twice.
bool areFreeTensorNames(const IrGraph& graph, const std::vector<std::string>& names);
/// `<base>0`, `<base>1`, ...
std::vector<std::string> numberedNames(const std::string& base, std::uint32_t count);

}  // namespace netforge::graphrefiner
