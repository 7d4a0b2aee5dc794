// The graph's self-check.

#include <algorithm>
#include <exception>
#include <unordered_map>
#include <unordered_set>
#include "ir/Failure.h"
#include "ir/IrGraph.h"

namespace netforge {

namespace {

class InvariantCheck {
 public:
  explicit InvariantCheck(const IrGraph& checked) : graph(checked) {
    std::uint32_t index = 0;
    for (const IrGraph::OpPtr& op : graph.getOps()) {
      if (!position.emplace(op.get(), index++).second) report("names", "op ", op->getName(), " stands twice");
    }
  }

  std::vector<std::string> run() {
    checkNames();
    for (const IrGraph::OpPtr& op : graph.getOps()) checkOp(op);
    for (const auto& [key, tensor] : graph.getTensors()) checkTensor(tensor);
    checkList(graph.getGraphInputs(), "graph input ");
    checkList(graph.getGraphOutputs(), "graph output ");
    return violations;
  }

 private:
  template <class... Parts>
  void report(const char* invariant, const Parts&... parts) {
    violations.push_back(concatText(invariant, ": ", parts...));
  }

  bool holds(const IrGraph::TensorPtr& tensor) const { return graph.getTensor(tensor->getName()) == tensor; }

  void checkNames() {
    for (const IrGraph::OpPtr& op : graph.getOps()) {
      if (graph.getOp(op->getName()) != op)
        report("names", "op ", op->getName(), " is not found by its name");
    }
    for (const auto& [key, tensor] : graph.getTensors()) {
      if (tensor->getName() != key) report("names", "tensor ", tensor->getName(), " is found as ", key);
    }
  }

  void checkOp(const IrGraph::OpPtr& op) {
    if (op->getStoredInputAxisFormats().size() != op->numInputs()) {
      report("input formats", "op ", op->getName(), " has ", op->getStoredInputAxisFormats().size(),
             " formats for ", op->numInputs(), " inputs");
    }
    ops::IrOp::TensorList inputs;
    ops::IrOp::TensorList outputs;
    try {
      inputs = op->getInputs();
      outputs = op->getOutputs();
    } catch (const std::exception&) {
      report("known tensors", "op ", op->getName(), " refers to a tensor that is gone");
      return;
    }
    for (const IrGraph::TensorPtr& input : inputs) checkInput(op, input);
    for (const IrGraph::TensorPtr& output : outputs) {
      if (!holds(output)) {
        report("known tensors", "output ", output->getName(), " of op ", op->getName(),
               " is not in the graph");
      }
      if (output->getProducer() != op) {
        report("links", "op ", op->getName(), " is not the producer of its output ", output->getName());
      }
    }
  }

  void checkInput(const IrGraph::OpPtr& op, const IrGraph::TensorPtr& input) {
    if (!holds(input)) {
      report("known tensors", "input ", input->getName(), " of op ", op->getName(), " is not in the graph");
    }
    if (input->getConsumers().count(op) == 0) {
      report("links", "op ", op->getName(), " is not a consumer of its input ", input->getName());
    }
    const IrGraph::OpPtr producer = input->getProducer();
    if (producer == nullptr) return;
    const auto place = position.find(producer.get());
    if (place != position.end() && place->second >= position.at(op.get())) {
      report("topological order", "op ", op->getName(), " stands before ", producer->getName(),
             ", which produces its input ", input->getName());
    }
  }

  // The other direction of the links: what a tensor of the graph says of its ops.
  void checkTensor(const IrGraph::TensorPtr& tensor) {
    if (const IrGraph::OpPtr producer = tensor->getProducer(); producer != nullptr) {
      if (position.count(producer.get()) == 0) {
        report("links", "the producer ", producer->getName(), " of tensor ", tensor->getName(),
               " is not in the graph");
      } else if (!lists(*producer, tensor, false)) {
        report("links", "the producer ", producer->getName(), " of tensor ", tensor->getName(),
               " has no such output");
      }
    }
    for (const IrGraph::OpPtr& consumer : consumersInGraphOrder(graph, tensor->getConsumers())) {
      if (position.count(consumer.get()) == 0) {
        report("links", "the consumer ", consumer->getName(), " of tensor ", tensor->getName(),
               " is not in the graph");
      } else if (!lists(*consumer, tensor, true)) {
        report("links", "the consumer ", consumer->getName(), " of tensor ", tensor->getName(),
               " has no such input");
      }
    }
  }

  static bool lists(const ops::IrOp& op, const IrGraph::TensorPtr& tensor, bool asInput) {
    try {
      const ops::IrOp::TensorList list = asInput ? op.getInputs() : op.getOutputs();
      return std::find(list.begin(), list.end(), tensor) != list.end();
    } catch (const std::exception&) {
      return true;  // reported with the op
    }
  }

  void checkList(const std::vector<IrGraph::TensorPtr>& list, const char* role) {
    std::unordered_set<const IrTensor*> seen;
    for (const IrGraph::TensorPtr& tensor : list) {
      if (!holds(tensor)) report("graph lists", role, tensor->getName(), " is not in the graph");
      if (!seen.insert(tensor.get()).second) report("graph lists", role, tensor->getName(), " stands twice");
    }
  }

  const IrGraph& graph;
  std::unordered_map<const ops::IrOp*, std::uint32_t> position;
  std::vector<std::string> violations;
};

}  // namespace

std::vector<std::string> IrGraph::checkInvariants() const {
  return InvariantCheck(*this).run();
}

}  // namespace netforge
