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

NETFORGE_PENDING(ExpandGruOpStructure)
NETFORGE_PENDING(ExpandSparseOpStructure)
NETFORGE_PENDING(UnrollGruTimeSteps)
NETFORGE_PENDING(ExpandLstmOpStructure)
NETFORGE_PENDING(UnrollLstm)
NETFORGE_PENDING(ExpandInverse)
NETFORGE_PENDING(ExpandThresholdedRelu)
NETFORGE_PENDING(ExpandElementwiseMean)
NETFORGE_PENDING(ExpandReduceL2Op)

#undef NETFORGE_PENDING

}  // namespace netforge::graphrefiner
