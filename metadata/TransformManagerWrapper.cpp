#include "metadata/TransformManagerWrapper.h"

#include <iostream>
#include <set>
#include <stdexcept>
#include <vector>
#include "GraphRefiner/src/PassBuilders.h"
#include "GraphRefiner/src/RewriteUtilities.h"
#include "ir/Failure.h"
#include "ir/IrGraph.h"
#include "metadata/ODLTransformManager.h"

namespace netforge::graphrefiner {

namespace {

using Dims = std::vector<std::uint32_t>;

Dims dimsBeforeTranspose(const IrTensor& tensor, const Permutation& perm) {
  const Dims& dims = tensor.getDims();
  if (perm.size() != dims.size()) {
    fail<std::out_of_range>("netforge::graphrefiner::TransformManagerWrapper::recordLoraTensorTransforms",
                            "Permute order ", dimsText(perm), " doesn't fit tensor ", tensor.getName(),
                            " of dims ", dimsText(dims));
  }
  Dims before;
  for (const std::uint32_t axis : perm) before.push_back(dims.at(axis));
  return before;
}

void recordTranspose(TransformGraph& transforms, const IrTensor& tensor, bool isInput) {
  const Permutation perm = tensor.getPermuteOrder();
  if (perm.empty()) return;
  const Permutation inverse = getInversePermutation(perm);
  if (inverse == perm) return;
  const std::string& name = tensor.getName();
  const std::string preName = name + "_pre_transposed";
  if (transforms.hasTransform({preName}, {name})) return;  // an earlier run was here
  const Dims before = dimsBeforeTranspose(tensor, perm);

  transforms.renameTensor(name, preName, true, true);
  TransformOp op;
  op.opType = "Transpose";
  op.attributes["perm"] = dimsText(inverse);
  op.inputShapes = {before};
  op.outputShapes = {tensor.getDims()};
  transforms.addTransform({preName}, {name}, op, isInput, {});
}

}  // namespace

bool TransformManagerWrapper::run(std::shared_ptr<IrGraph>& graph) {
  recordLoraTensorTransforms(graph->transformMetadataPath, graph);
  return false;
}

void TransformManagerWrapper::recordLoraTensorTransforms(const std::string& path,
                                                         const std::shared_ptr<IrGraph>& graph) {
  if (path.empty()) return;
  ODLTransformManager manager;
  manager.loadMetadata(path);
  const std::vector<std::string> names = manager.getGraphNames();
  if (names.size() != 1) {
    throw std::invalid_argument(
        concatText("RecordLoraTensorTransformsPass: Expected exactly one graph in transforms metadata, got ",
                   names.size()));
  }
  TransformGraph& transforms = manager.getTransformGraph(names.front());
  // Copies, as recording changes the sets.
  const std::vector<std::string> outputs(transforms.outputTensors.begin(), transforms.outputTensors.end());
  const std::set<std::string> inputs(transforms.inputTensors.begin(), transforms.inputTensors.end());
  for (const std::string& name : outputs) {
    const auto tensor = graph->getTensor(name);
    if (!tensor) {
      std::cerr << "[WARNING] RecordLoraTensorTransforms: tensor '" << name
                << "' not found in IrGraph. Skipping.\n";
      continue;
    }
    recordTranspose(transforms, *tensor, inputs.count(name) != 0);
  }
  manager.saveMetadata(path);
}

std::shared_ptr<Pass> buildRecordLoraTensorTransforms() {
  return std::make_shared<TransformManagerWrapper>();
}

[[maybe_unused]] static const bool registered = PassManager::registerPass(PassId::RecordLoraTensorTransforms);

}  // namespace netforge::graphrefiner
