#pragma once

#include <memory>
#include <string>

namespace netforge {

class IrGraph;

/// Writes the model dump: the tensors and nodes of the graph as JSON in the shape of a model description,
/// without static data and with a constant "quant_params" for every tensor, whatever its quantisation. Also
/// leaves the empty files "temp.cpp" and "temp.bin", which the description refers to, in the current
/// directory. Throws std::runtime_error when `fileName` can't be opened or written. `IrGraph::dumpJson`
/// writes the graph in a fuller form.
void dumpModelJson(const std::shared_ptr<IrGraph>& graph, const std::string& fileName);

}  // namespace netforge
