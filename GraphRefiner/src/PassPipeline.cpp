#include "GraphRefiner/src/PassPipeline.h"

namespace netforge::graphrefiner {

namespace {

// In execution order. A line whose place matters says what it leaves for whom, or whom it relies on.
constexpr PassId kDefaultPasses[] = {
    // First, while the cluster's Transposes and Reshapes still stand as the model was exported. Its
    // Transposes to
    // channel-last on graph inputs join the hoisting below.
    PassId::MatchTopK,
    // Casts go before the expansions and fusions, so that no cluster is cut in two by one. Indices that lose
    // their
    // Cast here get one back from InjectCastForGather.
    PassId::RemoveCastIdentity,
    PassId::ForcePruneCast,
    // Expansions into elementary ops, before anything moves layouts: what they create is hoisted, aligned and
    // fused like the ops that came with the model.
    PassId::ExpandThresholdedRelu,
    PassId::ExpandReduceL2Op,
    PassId::ExpandElementwiseMean,
    PassId::ExpandInverse,
    // Makes the Expand ops that the next line turns into products.
    PassId::SquashTileUnsqueezeToExpand,
    PassId::ExpandExpandOpToEltwise,
    // Leaves Transposes (and Reshapes in front of them) on constants: SquashReshapeInstance2 and
    // SquashConstantTranspose fold those, in this order.
    PassId::HoistTranspose,
    // Most passes from here to PermuteAxisToLast leave pairs of inverse Transposes around their ops, for
    // RemoveInverseTransposePair, ReduceEltwiseBinTranspose, SquashMultiplePermute and OptimizeTransposes.
    PassId::OptimizeDepthBroadcastElementwise,
    PassId::OptimizeUnmatchedMatMul,
    PassId::OptimizeNonInplaceConcat,
    PassId::OptimizeDepthReduce,
    PassId::FallbackDepthBroadcastEltwiseBin,
    // Brings the normalised axes to the end; the next line relies on that.
    PassId::AdjustNormOpBuffers,
    // Leaves a Reshape on either side, for FoldReshapesInstance4.
    PassId::AdjustNormOpFlattenLastDims,
    PassId::PermuteAxisToLast,
    PassId::RemoveInverseTransposePair,
    PassId::ReduceEltwiseBinTranspose,
    // Reshapes of constants first, so that a Transpose behind one reads the constant itself.
    PassId::SquashReshapeInstance2,
    PassId::SquashConstantTranspose,
    // Looks for Transpose, Reshape, Transpose in a row: before the Reshapes are folded away from between.
    PassId::ReplaceTRTWithReshape,
    PassId::FoldReshapesInstance4,
    // Records the transforms done to constants so far, so it stands behind the folding into constants.
    PassId::RecordLoraTensorTransforms,
    // Leaves a Transpose below the sum, which may make a pair for the next line.
    PassId::SinkTransposeBelowSum,
    PassId::SquashMultiplePermute,
    PassId::OptimizeNegation,
    // Takes the Reshape in front of a FullyConnected away, which SquashBatchnorm then sees directly.
    PassId::RemoveNoOps1,
    PassId::FoldConcats,
    PassId::OptimizeTransposes,
    PassId::OptimizeTransposeReshape,
    // Fusions, once no no-op and no layout pair separates their members.
    PassId::SquashBatchnorm,
    PassId::MatchGeluApprox,
    // The unrolling sees only what the expansion refused.
    PassId::ExpandLstmOpStructure,
    PassId::UnrollLstm,
    // Folds the step Reshapes of the two lines above into a Reshape of the model.
    PassId::FoldReshapesInstance3,
    // The other way round than for Lstm: the expansion takes single-step ops only, so the steps come first.
    PassId::UnrollGruTimeSteps,
    PassId::ExpandGruOpStructure,
    // Before the Cast is put in, while the indices are still the constant itself.
    PassId::HandleGatherNegativeIndices,
    PassId::InjectCastForGather,
    // Once more: non-negative indices may have made a Gather the identity, and the expansions leave no-op
    // Reshapes.
    PassId::RemoveNoOps2,
    PassId::ExpandSparseOpStructure,
    // Behind everything that recognises graph inputs and outputs by their tensor type.
    PassId::ProcessCustomIOQuantInfo,
    // Leaves Transposes on constants for the next line.
    PassId::HoistTransposeAboveElementWiseMux,
    PassId::SquashConstantInput,
    // Near the end, so that no pass raises a rank again. Leaves Reshape pairs for the manager's follow-up.
    PassId::Replace6dOps,
    PassId::FlattenPReluAlpha,
};

constexpr PassId kAcceleratorPasses[] = {
    // Makes the Hadamard ops that the next line folds a scale into.
    PassId::FullyConnectedToHadamard,
    PassId::FoldHadamardWithMul,
};

template <std::size_t N>
std::vector<PassId> passesOfStage(const PassId (&passes)[N], OptimizationStage stage) {
  if (stage != OptimizationStage::PostLayout) return {};
  return {std::begin(passes), std::end(passes)};
}

}  // namespace

PassPipeline::~PassPipeline() = default;

std::vector<PassId> DefaultPassPipeline::getPasses(const std::shared_ptr<BackendInfo>& /*backendInfo*/,
                                                   OptimizationStage stage) {
  return passesOfStage(kDefaultPasses, stage);
}

std::vector<PassId> NPXPassPipeline::getPasses(const std::shared_ptr<BackendInfo>& /*backendInfo*/,
                                               OptimizationStage stage) {
  return passesOfStage(kAcceleratorPasses, stage);
}

std::shared_ptr<PassPipeline> createPassPipeline(std::uint32_t kind) {
  switch (kind) {
    case 7:
      return std::make_shared<DefaultPassPipeline>();
    case 3:
      return std::make_shared<NPXPassPipeline>();
    default:
      return nullptr;
  }
}

}  // namespace netforge::graphrefiner
