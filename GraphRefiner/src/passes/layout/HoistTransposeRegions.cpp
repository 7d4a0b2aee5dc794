#include "GraphRefiner/src/passes/layout/HoistTransposeRegions.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <unordered_set>
#include "ir/IrGraph.h"

namespace netforge::graphrefiner {

namespace {

constexpr std::uint32_t kUnknown = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t kWithdrawn = kUnknown - 1;
constexpr std::uint32_t kRejected = kUnknown;  // in `missingInput`: never joins
constexpr std::uint32_t kRank = 4;

const std::unordered_set<std::string>& hoistableOpTypes() {
  static const std::unordered_set<std::string> types{
      "Concat", "CumulativeSum", "Eltwise_Binary", "ElementWiseNeuron", "Eltwise_Ternary", "Identity",
      "L2Norm", "Pad",           "Prelu",          "ElementWiseUnary",  "Split",           "StridedSlice",
      "Tile",   "Transpose"};
  return types;
}

bool isTranspose(const ops::IrOp& op) {
  return op.getType() == "Transpose";
}

bool isEligibleInput(const IrTensor& tensor) {
  const auto& dims = tensor.getDims();
  return dims.size() == kRank && dims[1] < dims[2] && dims[1] < dims[3];
}

std::shared_ptr<IrStaticTensor> findTensorAttribute(const ops::IrOp& op, const std::string& name) {
  const auto& entries = op.getAttributes()->entries();
  const auto entry = entries.find(name);
  return entry == entries.end() ? nullptr : entry->second.tensorValue;
}

bool isChannelLastTranspose(const ops::IrOp& op) {
  if (!isTranspose(op)) return false;
  const auto perm = findTensorAttribute(op, "perm");
  if (!perm || perm->getDims().empty() || perm->getDims()[0] != kRank) return false;
  perm->getData();
  return getPermutation(perm) == channelLastOrder();
}

bool isHoistable(const ops::IrOp& op) {
  return hoistableOpTypes().count(op.getType()) != 0;
}

bool broadcastsInputs(const std::string& type) {
  return type == "Eltwise_Binary" || type == "Eltwise_Ternary" || type == "Prelu";
}

// Whether the attribute, when there is one, has a row for each of the four axes.
bool hasRowPerAxis(const ops::IrOp& op, const std::string& name) {
  const auto rows = findTensorAttribute(op, name);
  return !rows || (!rows->getDims().empty() && rows->getDims()[0] == kRank);
}

std::int64_t readMask(const ops::IrOp& op, const std::string& name) {
  const auto& entries = op.getAttributes()->entries();
  const auto entry = entries.find(name);
  return entry == entries.end() ? 0 : entry->second.intValue;
}

bool hasMappableAttributes(const std::shared_ptr<ops::IrOp>& op) {
  const std::string& type = op->getType();
  if (type == "Concat" || type == "Split" || type == "CumulativeSum" || type == "L2Norm") {
    // Without an axis the op goes by a default that may depend on the layout; "axes" isn't mapped.
    return op->getAttributes()->hasAttr("axis") && !op->getAttributes()->hasAttr("axes") &&
           readAxis(op, "axis", kRank) < kRank;
  }
  if (type == "Pad") return hasRowPerAxis(*op, "pad_amount");
  if (type == "Tile") return hasRowPerAxis(*op, "multiples");
  if (type == "StridedSlice") {
    // An axis that goes and one that comes leave four, but no longer the image's four in their order.
    return hasRowPerAxis(*op, "ranges") &&
           (readMask(*op, "shrink_axes") == 0 || readMask(*op, "new_axes_mask") == 0);
  }
  return true;
}

// What keeps an op other than a Transpose from running in the new layout.
std::optional<HoistRefusal> obstacleAtOp(const std::shared_ptr<ops::IrOp>& op) {
  for (const auto& output : op->getOutputs()) {
    if (isGraphOutput(output)) return HoistRefusal::GraphOutput;
    if (output->getRank() != kRank) return HoistRefusal::Rank;
    if (isEncodedAlongAxes(*output)) return HoistRefusal::Encoding;
  }
  if (!broadcastsInputs(op->getType())) {
    for (const auto& input : op->getInputs()) {
      if (input->getRank() != kRank) return HoistRefusal::Rank;
    }
  }
  if (!hasMappableAttributes(op)) return HoistRefusal::Attribute;
  return std::nullopt;
}

// A Transpose is removed by merging its two tensors. An output that must stay takes its input's place, which
// only the sole reader of that input can do.
std::optional<HoistRefusal> obstacleAtTranspose(const ops::IrOp& transpose) {
  const auto output = transpose.getOutput(0);
  const bool outputStays = output->getConsumers().empty() || isGraphOutput(output);
  if (outputStays && transpose.getInput(0)->getConsumers().size() > 1)
    return HoistRefusal::SharedBeforeOutput;
  return std::nullopt;
}

std::optional<HoistRefusal> obstacleAtStart(const IrGraph& graph, const HoistNode& start) {
  const auto isTaken = [&](const std::string& name) { return graph.hasTensor(name) || graph.hasOp(name); };
  const IrTensor& tensor = *start.tensor;
  if (isGraphOutput(start.tensor)) return HoistRefusal::GraphOutput;
  if (tensor.getRank() > kRank) return HoistRefusal::Rank;
  if (isEncodedAlongAxes(tensor)) return HoistRefusal::Encoding;
  if (!start.isGraphInput && isLayoutFreeConstant(tensor)) return std::nullopt;
  const bool broadcasts = tensor.getRank() < kRank;
  if (isTaken(hoistedTransposeName(tensor)) || (broadcasts && isTaken(hoistedBroadcastName(tensor))))
    return HoistRefusal::NameTaken;
  return std::nullopt;
}

std::optional<HoistRefusal> obstacleAt(const IrGraph& graph, const HoistNode& node) {
  if (node.tensor) return obstacleAtStart(graph, node);
  return isTranspose(*node.op) ? obstacleAtTranspose(*node.op) : obstacleAtOp(node.op);
}

const std::string& nameOf(const HoistNode& node) {
  return node.tensor ? node.tensor->getName() : node.op->getName();
}

}  // namespace

const Permutation& channelLastOrder() {
  static const Permutation order{0, 2, 3, 1};
  return order;
}

const Permutation& channelLastAxisMap() {
  static const Permutation map{0, 3, 1, 2};
  return map;
}

std::string hoistedTransposeName(const IrTensor& start) {
  return start.getName() + "_hoist_0231";
}

std::string hoistedBroadcastName(const IrTensor& start) {
  return start.getName() + "_hoist_broadcast";
}

bool isLayoutFreeConstant(const IrTensor& tensor) {
  const auto& dims = tensor.getDims();
  return dims.empty() || (dims.size() == 1 && dims[0] == 1);
}

HoistRegions::HoistRegions(const IrGraph& givenGraph) : graph(givenGraph) {
  seed();
  for (NodeId node = 0; node < allNodes.size(); ++node) visit(node);
  for (NodeId node = 0; node < allNodes.size(); ++node) close(node);
}

std::vector<HoistNode> HoistRegions::survivors() {
  std::vector<HoistNode> nodes;
  for (NodeId node = 0; node < allNodes.size(); ++node) {
    if (findRoot(node) != kWithdrawn) nodes.push_back(allNodes[node]);
  }
  return nodes;
}

const std::vector<HoistWithdrawal>& HoistRegions::withdrawals() const {
  return givenUp;
}

// The root, or kWithdrawn. Without recursion: a chain may be as long as the graph.
HoistRegions::NodeId HoistRegions::findRoot(NodeId node) {
  NodeId root = node;
  while (root != kWithdrawn && parent[root] != root) root = parent[root];
  while (node != root) {
    const NodeId next = parent[node];
    parent[node] = root;
    node = next;
  }
  return root;
}

void HoistRegions::withdraw(NodeId node, HoistRefusal reason, const std::string& culprit) {
  const NodeId root = findRoot(node);
  if (root == kWithdrawn) return;
  parent[root] = kWithdrawn;
  givenUp.push_back({reason, culprit});
}

// A root that is a start node stays one as long as it meets no other start node.
void HoistRegions::merge(NodeId op, NodeId input) {
  const NodeId opRoot = findRoot(op);
  const NodeId inputRoot = findRoot(input);
  if (opRoot == inputRoot || opRoot == kWithdrawn || inputRoot == kWithdrawn) return;
  if (allNodes[inputRoot].tensor && !allNodes[opRoot].tensor) {
    parent[opRoot] = inputRoot;
  } else {
    parent[inputRoot] = opRoot;
  }
}

HoistRegions::NodeId HoistRegions::addNode(const HoistNode& node) {
  const auto id = static_cast<NodeId>(allNodes.size());
  allNodes.push_back(node);
  parent.push_back(id);
  hitRoots.push_back(false);
  return id;
}

void HoistRegions::seed() {
  const auto start = [&](const TensorPtr& tensor, bool isGraphInput) {
    if (startNodes.count(tensor.get()) == 0)
      startNodes.emplace(tensor.get(), addNode({tensor, nullptr, isGraphInput}));
  };
  for (const TensorPtr& input : graph.getGraphInputs()) start(input, true);
  for (const OpPtr& op : graph.getOps()) {
    for (const TensorPtr& input : op->getInputs()) {
      if (input->getTensorType() == TensorType::Static) start(input, false);
    }
  }
}

// What a Transpose writes has no node: it is in the new layout already, and no region goes on behind it.
HoistRegions::NodeId HoistRegions::nodeOf(const IrTensor& input) const {
  const TensorType type = input.getTensorType();
  if (type == TensorType::GraphInput || type == TensorType::Static) {
    const auto start = startNodes.find(&input);
    return start == startNodes.end() ? kUnknown : start->second;
  }
  const OpPtr producer = input.getProducer();
  if (!producer || isTranspose(*producer)) return kUnknown;
  const auto known = opNodes.find(producer.get());
  return known == opNodes.end() ? kUnknown : known->second;
}

std::vector<HoistRegions::TensorPtr> HoistRegions::tensorsOf(const HoistNode& node) const {
  if (node.op) return node.op->getOutputs();
  if (graph.getTensor(node.tensor->getName()) != node.tensor) return {};
  return {node.tensor};
}

void HoistRegions::visit(NodeId id) {
  if (findRoot(id) == kWithdrawn) return;
  const HoistNode node = allNodes[id];
  if (node.tensor) {
    if (node.isGraphInput && !isEligibleInput(*node.tensor)) {
      withdraw(id, HoistRefusal::LargeChannels, nameOf(node));
    } else {
      propagate(id);
    }
  } else if (!isHoistable(*node.op)) {
    withdraw(id, HoistRefusal::UnsupportedOp, nameOf(node));
  } else if (!isTranspose(*node.op)) {
    propagate(id);
  } else if (isChannelLastTranspose(*node.op)) {
    hitRoots[findRoot(id)] = true;
  } else {
    withdraw(id, HoistRefusal::OtherOrder, nameOf(node));
  }
}

void HoistRegions::propagate(NodeId id) {
  const std::vector<TensorPtr> tensors = tensorsOf(allNodes[id]);  // `allNodes` grows below
  for (const TensorPtr& tensor : tensors) {
    for (const OpPtr& consumer : consumersInGraphOrder(graph, tensor->getConsumers())) offer(consumer);
  }
}

// Takes the op into the region of its inputs once they are all known; until then it is offered again by each
// of them. An op joins once and for all, and one that meets a region given up never does.
void HoistRegions::offer(const OpPtr& consumer) {
  if (opNodes.count(consumer.get()) != 0) return;
  std::uint32_t& next = missingInput[consumer.get()];
  if (next == kRejected) return;
  const std::uint32_t count = consumer->numInputs();
  while (next < count && nodeOf(*consumer->getInput(next)) != kUnknown) ++next;
  if (next < count) return;

  std::vector<NodeId> inputs;
  for (const TensorPtr& input : consumer->getInputs()) inputs.push_back(nodeOf(*input));
  if (std::any_of(inputs.begin(), inputs.end(),
                  [&](NodeId input) { return findRoot(input) == kWithdrawn; })) {
    next = kRejected;
    return;
  }
  missingInput.erase(consumer.get());
  const NodeId id = addNode({nullptr, consumer, false});
  opNodes.emplace(consumer.get(), id);
  for (const NodeId input : inputs) merge(id, input);
}

// Gives the region up when it is of no use or this node stands in the way.
void HoistRegions::close(NodeId id) {
  const NodeId root = findRoot(id);
  if (root == kWithdrawn) return;
  const HoistNode& node = allNodes[id];
  if (!hitRoots[root]) {
    withdraw(id, HoistRefusal::NoTranspose, nameOf(node));
  } else if (const auto obstacle = obstacleAt(graph, node)) {
    withdraw(id, *obstacle, nameOf(node));
  } else if (const ops::IrOp* reader = findOutsideReader(node, root)) {
    withdraw(id, HoistRefusal::ReadOutside, reader->getName());
  }
}

// A reader that would go on seeing the old layout. The readers of a Transpose see the new one anyway.
const ops::IrOp* HoistRegions::findOutsideReader(const HoistNode& node, NodeId root) {
  if (node.op && isTranspose(*node.op)) return nullptr;
  for (const TensorPtr& tensor : tensorsOf(node)) {
    for (const OpPtr& consumer : consumersInGraphOrder(graph, tensor->getConsumers())) {
      const auto known = opNodes.find(consumer.get());
      if (known == opNodes.end() || findRoot(known->second) != root) return consumer.get();
    }
  }
  return nullptr;
}

}  // namespace netforge::graphrefiner
