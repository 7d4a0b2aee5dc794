#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>
#include "GraphRefiner/src/RewriteUtilities.h"

namespace netforge::graphrefiner {

/// The Transpose that HoistTranspose moves, NCHW to NHWC: new axis i is old axis channelLastOrder()[i].
const Permutation& channelLastOrder();
/// Its inverse: old axis a is new axis channelLastAxisMap()[a].
const Permutation& channelLastAxisMap();

/// Names of the ops and tensors that the hoisting puts behind a start tensor.
std::string hoistedTransposeName(const IrTensor& start);
std::string hoistedBroadcastName(const IrTensor& start);
/// A constant that fits any layout as it stands: one element, of rank at most 1.
bool isLayoutFreeConstant(const IrTensor& tensor);

/// A node of the analysis: a start tensor (graph input or constant), or an op, which stands for its outputs.
struct HoistNode {
  std::shared_ptr<IrTensor> tensor;  ///< null for an op
  std::shared_ptr<ops::IrOp> op;     ///< null for a start tensor
  bool isGraphInput = false;
};

/// Why a region keeps its layout.
enum class HoistRefusal {
  LargeChannels,       ///< a graph input that isn't rank 4 with fewer channels than height and width
  UnsupportedOp,       ///< an op type that isn't indifferent to layout
  OtherOrder,          ///< a Transpose with another order
  NoTranspose,         ///< no channel-last Transpose is reached: the rule for most of a graph
  ReadOutside,         ///< an op outside the region reads one of its tensors
  GraphOutput,         ///< the application reads one of its tensors
  Rank,                ///< a tensor whose axes aren't the four of the image
  Attribute,           ///< an attribute that has no counterpart in the new layout
  Encoding,            ///< a tensor quantised along an axis
  SharedBeforeOutput,  ///< a Transpose that can't be removed: a dead end or graph output on a shared tensor
  NameTaken            ///< something bears the name that the moved Transpose would get
};

/// A region that was given up; `culprit` is the name of the op or start tensor that made it so.
struct HoistWithdrawal {
  HoistRefusal reason;
  std::string culprit;
};

/// The regions of a graph through which a channel-last Transpose can be moved up to the graph inputs and
/// constants. Reads the graph only; the time is proportional to the number of links between ops.
///
/// A region begins at start tensors and grows along the data flow through ops that are indifferent to layout
/// ("hoistable"), an op joining once all of its inputs are known. It ends at Transposes. Regions that meet
/// are merged, in a disjoint-set forest, so a region is taken or given up as a whole. It is taken when it
/// reaches a channel-last Transpose, has no graph input with too many channels in it, and nothing outside
/// reads it.
class HoistRegions {
 public:
  explicit HoistRegions(const IrGraph& graph);
  /// The nodes of the regions to rewrite in the order of their discovery: an op behind those of its inputs.
  std::vector<HoistNode> survivors();
  /// One entry per region given up, in the order of the decisions.
  const std::vector<HoistWithdrawal>& withdrawals() const;

 private:
  using NodeId = std::uint32_t;  // place in `allNodes`
  using OpPtr = std::shared_ptr<ops::IrOp>;
  using TensorPtr = std::shared_ptr<IrTensor>;

  NodeId findRoot(NodeId node);
  void withdraw(NodeId node, HoistRefusal reason, const std::string& culprit);
  void merge(NodeId op, NodeId input);
  void seed();
  NodeId addNode(const HoistNode& node);
  NodeId nodeOf(const IrTensor& input) const;
  std::vector<TensorPtr> tensorsOf(const HoistNode& node) const;
  void visit(NodeId node);
  void propagate(NodeId node);
  void offer(const OpPtr& consumer);
  void close(NodeId node);
  const ops::IrOp* findOutsideReader(const HoistNode& node, NodeId root);

  const IrGraph& graph;
  // In the order of discovery. A node is discovered and put on the list of nodes to visit at once, so this is
  // that list too.
  std::vector<HoistNode> allNodes;
  std::vector<NodeId> parent;  // the forest; a root is its own parent
  std::vector<bool> hitRoots;  // roots of regions that have reached a channel-last Transpose
  std::vector<HoistWithdrawal> givenUp;
  std::unordered_map<const IrTensor*, NodeId> startNodes;
  std::unordered_map<const ops::IrOp*, NodeId> opNodes;
  // Of ops that haven't joined: the first input that isn't known to have a node.
  std::unordered_map<const ops::IrOp*, std::uint32_t> missingInput;
};

}  // namespace netforge::graphrefiner
