// StridedSlices: leading axes that are not sliced are dropped when they have size 1, and split off when not.
#include <cstdint>
#include <string>
#include "GraphRefiner/src/Handles.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/RankReduction.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/Refusal.h"
#include "GraphRefiner/src/passes/layout/rank_reduction/Replace6dOpPass.h"
#include "ops/OpFactory.h"
#include "ops/OpInference.h"
#include "ops/SliceOps.h"

namespace netforge::graphrefiner {

using Rows = std::vector<std::int32_t>;  // begin, end, stride of each axis

namespace {

constexpr const char* kHandler = "handleStridedSliceOp";

std::uint32_t readMask(const OpPtr& op, const std::string& name) {
  const auto& attributes = op->getAttributes();
  return attributes->hasAttr(name) ? attributes->getAttr<std::uint32_t>(name) : 0;
}

Rows rowsFrom(const Rows& ranges, std::uint32_t first) {
  return {ranges.begin() + 3 * static_cast<std::ptrdiff_t>(first), ranges.end()};
}

void checkLeadingAxes(const OpPtr& op, const Rows& ranges, const Dims& dims) {
  if (readMask(op, "new_axes_mask") != 0 || readMask(op, "shrink_axes") != 0) {
    refuseRank(kHandler, op,
               " StridedSlice Op with rank > 5 doesn't support nonzero newAxesMask or shrinkAxes in 6D op "
               "replacement");
  }
  for (std::size_t axis = 0; axis + kRankLimit < dims.size(); ++axis) {
    const bool isWhole = ranges.at(3 * axis) == 0 && ranges.at(3 * axis + 2) == 1 &&
                         static_cast<std::uint32_t>(ranges.at(3 * axis + 1)) == dims[axis];
    if (!isWhole) {
      refuseRank(
          kHandler, op,
          " StridedSlice Op with rank > 5 does not support slicing or strided-slicing on the dimension "
          "which rank > 5.");
    }
  }
}

// The rows of the axes that are left, and the masks without the bits of the `dropped` leading axes.
void setRanges(const OpPtr& op, const Rows& rows, std::uint32_t dropped) {
  const std::vector<std::uint32_t> words(rows.begin(), rows.end());
  setWords(op, "ranges", op->getName() + "_ranges", words, {static_cast<std::uint32_t>(rows.size() / 3), 3},
           ORLO_DATATYPE_INT_32);
  for (const char* mask : {"begin_mask", "end_mask"}) {
    if (const std::uint32_t bits = readMask(op, mask)) {
      op->getAttributes()->add(mask, dropped < 32 ? bits >> dropped : 0u, ATTR_ORDINARY);
    }
  }
}

// One slice between a Split and a Concat along its first axis, for one index each.
class BatchSplit {
 public:
  BatchSplit(const GraphPtr& owner, const OpPtr& split, const Rows& rows)
      : graph(owner),
        slice(split),
        restRanges(rows),
        input(split->getInput(0)),
        output(split->getOutput(0)),
        name(split->getName()),
        place(owner->getOpIndex(split)) {
    const Dims& dims = input->getDims();
    batch = dims[0];
    rest.assign(dims.begin() + 1, dims.end());
    sources = graph->collectTraceSources({{TraceKind::Op, name},
                                          {TraceKind::Tensor, input->getName()},
                                          {TraceKind::Tensor, output->getName()}});
  }

  std::vector<OpPtr> run() {
    const auto pieces = addSplit();
    std::vector<OpPtr> slices;
    std::vector<std::string> results;
    for (std::uint32_t i = 0; i < batch; ++i) {
      slices.push_back(makePiece(i));
      results.push_back(addPiece(slices.back(), pieces[i], i));
    }
    add(createOp("Concat", name + "_restoreRank_concat", OpParams{{"axis", OpParam(0u)}}), results,
        {output->getName()});
    slice->removeOutput(output);
    graph->prune(slice, false);
    graph->removeTraceInfo(TraceKind::Op, name);
    return slices;
  }

 private:
  std::string pieceName(std::uint32_t i) const { return name + "_" + std::to_string(i) + "th_rankReducedOp"; }

  std::string addTensor(const std::string& tensorName, const Dims& dims, const TensorPtr& like) {
    addTensorLike(graph, tensorName, dims, like);
    graph->addTraceSources(TraceKind::Tensor, tensorName, sources);
    return tensorName;
  }

  void add(const OpPtr& op, const std::vector<std::string>& inputs, const std::vector<std::string>& outputs) {
    Replace6dOpPass::addOpNoCanonical(graph, op, inputs, outputs, place++);
    graph->addTraceSources(TraceKind::Op, op->getName(), sources);
  }

  // Cuts the flattened input; returns the names of the pieces.
  std::vector<std::string> addSplit() {
    const std::string splitName = name + "_reduceRank_split";
    const std::uint32_t length = product(rest);
    add(makeReshape(splitName + "_pre_split_reshape", {batch, length}), {input->getName()},
        {addTensor(splitName + "_input", {batch, length}, input)});
    std::vector<std::string> pieces;
    std::vector<std::uint32_t> cuts;
    for (std::uint32_t i = 0; i < batch; ++i) {
      if (i > 0) cuts.push_back(i);
      pieces.push_back(addTensor(splitName + "_" + std::to_string(i) + "th_output", {1, length}, input));
    }
    add(createOp("Split", splitName, OpParams{{"axis", OpParam(0u)}, {"split_index", OpParam(cuts)}}),
        {splitName + "_input"}, pieces);
    return pieces;
  }

  OpPtr makePiece(std::uint32_t i) const {
    const auto piece = std::make_shared<ops::StridedSliceOp>(
        pieceName(i), std::make_shared<IrAttributes>(*slice->getAttributes()));
    setRanges(piece, restRanges, 1);
    return piece;
  }

  // The slice of one index with the Reshapes around it; returns the name of what goes into the Concat.
  std::string addPiece(const OpPtr& piece, const std::string& cut, std::uint32_t i) {
    const std::string own = pieceName(i);
    const std::string ith = "_" + std::to_string(i) + "th_";
    add(makeReshape(own + "_post_split_reshape", rest), {cut}, {addTensor(own + ith + "input", rest, input)});
    Dims dims = sliceDims(piece);
    add(piece, {own + ith + "input"}, {addTensor(own + ith + "output", dims, output)});
    dims.insert(dims.begin(), 1);
    const std::string result = addTensor(name + "_restoreRank_concat" + ith + "input", dims, output);
    add(makeReshape(own + "_expandBatch_reshape", dims), {own + ith + "output"}, {result});
    return result;
  }

  Dims sliceDims(const OpPtr& piece) const {
    const auto probe = std::make_shared<IrTensor>("tmp", rest, input->getDataType(),
                                                  AxisFormat::NOT_YET_DEFINED, TensorType::Native, Dims{});
    piece->addInput(probe);
    Dims dims = piece->inferOutputShapes(graph->getAxisOrder(), 1).at(0);
    piece->removeInput(probe);
    return dims;
  }

  GraphPtr graph;
  OpPtr slice;
  Rows restRanges;
  TensorPtr input;
  TensorPtr output;
  std::string name;
  std::uint32_t place;  // of the next new op
  std::uint32_t batch = 0;
  Dims rest;
  std::vector<TraceSource> sources;
};

}  // namespace

bool Replace6dOpPass::handleStridedSliceOp(OpPtr& op, GraphPtr& graph) {
  const bool isLow = !hasInputAboveRankLimit(op) && op->getOutput(0)->getRank() <= kRankLimit;
  if (isLow || hasDynamicTensor(op)) return false;
  const Dims inputDims = op->getInput(0)->getDims();
  const Dims outputDims = op->getOutput(0)->getDims();
  const Rows ranges = ops::readInt32Values(*op->getAttributes()->getStaticTensor("ranges"));
  checkLeadingAxes(op, ranges, inputDims);

  cloneSharedStaticInputs(op, graph);
  std::vector<OpPtr> slices{op};
  const auto rank = static_cast<std::uint32_t>(inputDims.size());
  std::uint32_t done = 0;  // leading axes that are gone
  while (rank - done > kRankLimit) {
    std::uint32_t dropped = 0;  // by the Reshapes of this turn
    if (inputDims[done] != 1) {
      slices = splitAlongBatch(graph, slices, rowsFrom(ranges, done + 1));
    } else {
      ++dropped;
    }
    ++done;
    // Further axes of size 1 go at the same time.
    for (; rank - done > kRankLimit && inputDims[done] == 1; ++done) ++dropped;
    const auto left = static_cast<std::ptrdiff_t>(done);
    for (const OpPtr& slice : slices) {
      setRanges(slice, rowsFrom(ranges, done), dropped);
      reshapeAround(graph, slice, {{inputDims.begin() + left, inputDims.end()}},
                    {outputDims.begin() + left, outputDims.end()});
    }
  }
  return true;
}

std::vector<OpPtr> Replace6dOpPass::splitAlongBatch(const GraphPtr& graph, const std::vector<OpPtr>& ops,
                                                    const Rows& restRanges) {
  std::vector<OpPtr> slices;
  for (const OpPtr& op : ops) {
    const std::vector<OpPtr> pieces = BatchSplit(graph, op, restRanges).run();
    slices.insert(slices.end(), pieces.begin(), pieces.end());
  }
  return slices;
}

void Replace6dOpPass::addOpNoCanonical(const GraphPtr& graph, const OpPtr& op,
                                       const std::vector<std::string>& inputNames,
                                       const std::vector<std::string>& outputNames, std::uint32_t index) {
  const auto find = [&](const std::string& name) {
    const TensorPtr tensor = graph->getTensor(name);
    if (!tensor) {
      fail<std::runtime_error>("netforge::graphrefiner::Replace6dOpPass::addOpNoCanonical",
                               "Graph has no tensor ", name, " referred to as input for Op ", op->getName());
    }
    return tensor;
  };
  std::vector<TensorPtr> inputs;
  std::vector<TensorPtr> outputs;
  for (const std::string& name : inputNames) {
    inputs.push_back(find(name));
    inputs.back()->addConsumer(op);
  }
  for (const std::string& name : outputNames) {
    outputs.push_back(find(name));
    outputs.back()->setProducer(op);
  }
  op->setInputs(inputs);
  op->setOutputs(outputs);
  graph->addOp(op, static_cast<std::int32_t>(index), false);
}

}  // namespace netforge::graphrefiner
