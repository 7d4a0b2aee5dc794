#include "GraphRefiner/src/PendingPasses.h"

#include "GraphRefiner/src/PassBuilders.h"

// The passes that are still to be written, one line each. Whoever writes a pass takes its line out of this
// list: the pass's own source file then defines the builder and the registration that the line stood for.

namespace netforge::graphrefiner {

#define NETFORGE_PENDING(name)              \
  std::shared_ptr<Pass> build##name() {     \
    return std::make_shared<PendingPass>(); \
  }                                         \
  [[maybe_unused]] static const bool registered##name = PassManager::registerPass(PassId::name);

NETFORGE_PENDING(AlignMatmulRanks)
NETFORGE_PENDING(SinkTransposeBelowSum)
NETFORGE_PENDING(HandleGatherNegativeIndices)
NETFORGE_PENDING(MatchSpaceToDepth)
NETFORGE_PENDING(Replace6dOps)
NETFORGE_PENDING(OptimizeGatherND)
NETFORGE_PENDING(OptimizeDepthToSpace)
NETFORGE_PENDING(RemoveCastIdentity)
NETFORGE_PENDING(ForcePruneCast)
NETFORGE_PENDING(SquashPad)
NETFORGE_PENDING(FoldSoftmax)
NETFORGE_PENDING(FoldConcats)
NETFORGE_PENDING(InjectCastForGather)
NETFORGE_PENDING(FullyConnectedToHadamard)
NETFORGE_PENDING(FoldHadamardWithMul)
NETFORGE_PENDING(HoistTransposeAboveElementWiseMux)
NETFORGE_PENDING(SquashConstantInput)
NETFORGE_PENDING(ExpandSparseOpStructure)
NETFORGE_PENDING(ProcessCustomIOQuantInfo)
NETFORGE_PENDING(OptimizeNegation)
NETFORGE_PENDING(OptimizeDepthReduce)
NETFORGE_PENDING(SquashBatchnorm)
NETFORGE_PENDING(OptimizeNonInplaceConcat)
NETFORGE_PENDING(ReduceEltwiseBinTranspose)
NETFORGE_PENDING(PermuteAxisToLast)
NETFORGE_PENDING(OptimizeUnmatchedMatMul)
NETFORGE_PENDING(ExpandInverse)
NETFORGE_PENDING(FallbackDepthBroadcastEltwiseBin)
NETFORGE_PENDING(OptimizeDepthBroadcastElementwise)
NETFORGE_PENDING(AdjustNormOpBuffers)
NETFORGE_PENDING(AdjustNormOpFlattenLastDims)
NETFORGE_PENDING(ExpandThresholdedRelu)
NETFORGE_PENDING(HoistTranspose)
NETFORGE_PENDING(ExpandElementwiseMean)
NETFORGE_PENDING(ExpandReduceL2Op)
NETFORGE_PENDING(FlattenPReluAlpha)
NETFORGE_PENDING(RecordLoraTensorTransforms)
NETFORGE_PENDING(ExpandExpandOpToEltwise)
NETFORGE_PENDING(SquashTileUnsqueezeToExpand)
NETFORGE_PENDING(MatchTopK)

#undef NETFORGE_PENDING

}  // namespace netforge::graphrefiner
